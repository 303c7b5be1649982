// Processor ranges, NUMA node masks and the thread file that binds threads by name.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace TOLVEN {

class ConfigReader;
class UtilError;

// A set of processor ranges read from text such as "0-3,8", with the text it came from.
// Numbers are logical positions among the processors of a NUMA node: 0 is the node's first
// processor, whatever its number on the machine. Not thread-safe: one owner at a time.
class affinity {
  public:
    // An inclusive range of processor positions. No order between the ends is enforced; a
    // range whose `first` is above its `last` matches nothing.
    struct cpu_range {
        uint32_t first = 0;
        uint32_t last = 0;
    };

    // A processor mask as a byte array, copied by value.
    class mask {
      public:
        // An empty mask.
        mask() = default;
        // The 8 bytes of `word`, lowest first.
        explicit mask(uint64_t word);
        // Replaces the array with a copy of `size` bytes at `bytes`.
        void set(const unsigned char* bytes, uint64_t size);
        // The first 8 bytes (fewer when shorter) as a word, lowest first; false when empty.
        bool convert(uint64_t& out) const;
        // The lowest bit of byte `index`: the array is probed by byte, not by bit. False for
        // an index at or past the end.
        bool is_set(uint64_t index) const;
        // The size of the array in bytes.
        uint64_t count() const { return bytes_.size(); }

      private:
        std::vector<unsigned char> bytes_;
    };

    // Parses `text`: ranges "a" or "a-b" separated by ","; each number may have blanks
    // around it and one sign. An empty text gives no range. A bad part gives "Invalid CPU
    // range setting" and false, keeping the ranges before it; the text is kept on success.
    bool init(const std::string& text, UtilError* error);
    // Reads item "CPU" of `section` and leaves the object as it is; true.
    bool init(ConfigReader* reader, const char* section, UtilError* error);
    // Appends a range.
    void add_range(const cpu_range& range);
    // Removes every range (the text stays).
    void clear_range();
    // The ranges.
    const std::vector<cpu_range>& get_cpu_vector() const { return ranges_; }
    // The text of the last successful init.
    const std::string& get_cpumask_str() const { return text_; }
    // The processors of node `node` whose positions among the node's processors fall in a
    // range, as an 8-byte mask. False when the node cannot be read.
    bool get_cpumask(unsigned int node, mask& out, UtilError* error) const;
    // Binds `thread` (the OS handle of a thread) to the ranges on node `node`, widening the
    // process mask when it has no processor in common with them. With `loadBalance` the
    // calling thread, which must be an auto_thread, takes the first processor number of the
    // ranges that no other load-balanced thread of its name holds. False with the reason in
    // `error`.
    bool set_thread_affinity(void* thread, unsigned int node, bool loadBalance, UtilError* error);

  private:
    std::vector<cpu_range> ranges_;
    std::string text_;
};

// Names the thread file (null: "<application>_thread.ini" in the working directory) the first
// time, creating it when missing, and records it in the machine-wide table of thread files.
// Every call then applies the default section's "NumaNode" to the process: on a machine of
// several nodes the process is restricted to that node's processors. False, with the reason
// logged and in `error`, when the file cannot be read or the node cannot be applied.
// Thread-safe.
bool set_threadaffinityfile(const char* path, UtilError* error);

}  // namespace TOLVEN
