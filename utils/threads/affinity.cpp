#include "tolven/affinity.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <set>

#include "platform/affinity.h"
#include "threads/AffinityProvider.h"
#include "tolven/autothread.h"
#include "tolven/configreader.h"
#include "tolven/utilerror.h"

namespace TOLVEN {
namespace detail {
namespace {

class PlatformAffinity final : public AffinityProvider {
  public:
    uint32_t HighestNode(uint32_t* node) override { return platform::NumaHighestNode(node); }
    uint32_t NodeMask(uint32_t node, uint64_t* mask) override {
        return platform::NumaNodeMask(node, mask);
    }
    uint32_t ProcessMask(uint64_t* mask) override { return platform::GetProcessAffinity(mask); }
    uint32_t SetProcessMask(uint64_t mask) override { return platform::SetProcessAffinity(mask); }
    uint32_t SetThreadMask(void* thread, uint64_t mask) override {
        return platform::SetThreadAffinity(thread, mask);
    }
};

AffinityProvider& PlatformProvider() {
    static auto* provider = new PlatformAffinity;
    return *provider;
}

std::atomic<AffinityProvider*> g_provider{nullptr};

}  // namespace

AffinityProvider& CurrentAffinityProvider() {
    AffinityProvider* p = g_provider.load(std::memory_order_acquire);
    return p != nullptr ? *p : PlatformProvider();
}

AffinityProvider* SetAffinityProvider(AffinityProvider* provider) {
    return g_provider.exchange(provider, std::memory_order_acq_rel);
}

}  // namespace detail

namespace {

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

// One number: blanks, an optional sign, digits, blanks.
bool IsNumberField(const std::string& field) {
    size_t i = 0;
    while (i < field.size() && IsBlank(field[i]))
        ++i;
    if (i < field.size() && (field[i] == '+' || field[i] == '-')) ++i;
    const size_t digits = i;
    while (i < field.size() && field[i] >= '0' && field[i] <= '9')
        ++i;
    if (i == digits) return false;
    while (i < field.size() && IsBlank(field[i]))
        ++i;
    return i == field.size();
}

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t at = text.find(separator, start);
        parts.push_back(
            text.substr(start, at == std::string::npos ? std::string::npos : at - start));
        if (at == std::string::npos) return parts;
        start = at + 1;
    }
}

uint32_t ToCpu(const std::string& field) {
    return static_cast<uint32_t>(std::atoi(field.c_str()));
}

bool Fail(UtilError* error, const char* text) {
    if (error != nullptr) (void)error->SetError(text);
    return false;
}

}  // namespace

// ---- mask ------------------------------------------------------------------------------------

affinity::mask::mask(uint64_t word) : bytes_(8) {
    for (size_t i = 0; i < 8; ++i)
        bytes_[i] = static_cast<unsigned char>(word >> (8 * i));
}

void affinity::mask::set(const unsigned char* bytes, uint64_t size) {
    if (bytes == nullptr) size = 0;
    bytes_.assign(bytes, bytes + size);
}

bool affinity::mask::convert(uint64_t& out) const {
    if (bytes_.empty()) return false;
    out = 0;
    for (size_t i = 0; i < bytes_.size() && i < 8; ++i)
        out |= static_cast<uint64_t>(bytes_[i]) << (8 * i);
    return true;
}

bool affinity::mask::is_set(uint64_t index) const {
    return index < bytes_.size() && (bytes_[index] & 1) != 0;
}

// ---- affinity --------------------------------------------------------------------------------

bool affinity::init(const std::string& text, UtilError* error) {
    ranges_.clear();
    text_.clear();
    if (text.empty()) return true;
    for (const std::string& part : Split(text, ',')) {
        const std::vector<std::string> fields = Split(part, '-');
        if (fields.size() > 2) return Fail(error, "Invalid CPU range setting");
        for (const std::string& field : fields)
            if (!IsNumberField(field)) return Fail(error, "Invalid CPU range setting");
        cpu_range range;
        range.first = ToCpu(fields[0]);
        range.last = ToCpu(fields.back());
        ranges_.push_back(range);
    }
    text_ = text;
    return true;
}

bool affinity::init(ConfigReader* reader, const char* section, UtilError*) {
    if (reader != nullptr) {
        char text[4096];
        size_t size = sizeof(text);
        (void)reader->ReadString(section, "CPU", text, &size);
    }
    return true;
}

void affinity::add_range(const cpu_range& range) {
    ranges_.push_back(range);
}

void affinity::clear_range() {
    ranges_.clear();
}

bool affinity::get_cpumask(unsigned int node, mask& out, UtilError* error) const {
    uint64_t nodeMask = 0;
    if (const uint32_t code = detail::CurrentAffinityProvider().NodeMask(node, &nodeMask)) {
        if (error != nullptr)
            (void)error->SetErrorFormat("Error<%u> reading Numa node processor details", code);
        return false;
    }
    uint64_t result = 0;
    uint32_t position = 0;
    for (uint32_t bit = 0; bit < 64; ++bit) {
        if ((nodeMask & (uint64_t{1} << bit)) == 0) continue;
        for (const cpu_range& r : ranges_) {
            if (position >= r.first && position <= r.last) {
                result |= uint64_t{1} << bit;
                break;
            }
        }
        ++position;
    }
    out = mask(result);
    return true;
}

bool affinity::set_thread_affinity(void* thread, unsigned int node, bool loadBalance,
                                   UtilError* error) {
    thread_data* self = GetCurrentThreadData();
    if (loadBalance && self == nullptr)
        return Fail(error,
                    "Thread must be created using the auto_thread class to use load "
                    "balancing!");
    bool haveChosen = false;
    uint32_t chosen = 0;
    if (loadBalance) {
        std::set<uint32_t> taken;
        {
            thread_details& registry = thread_details::get();
            QuickLockGuard guard(registry.get_lock());
            for (const auto& entry : registry.get_thread_map()) {
                const thread_data* d = entry.second;
                if (d->loadBalance && d->name == self->name) taken.insert(d->assignedCpu);
            }
        }
        for (const cpu_range& r : ranges_) {
            for (uint64_t cpu = r.first; cpu <= r.last && !haveChosen; ++cpu) {
                if (taken.count(static_cast<uint32_t>(cpu)) == 0) {
                    haveChosen = true;
                    chosen = static_cast<uint32_t>(cpu);
                }
            }
            if (haveChosen) break;
        }
    }
    detail::AffinityProvider& provider = detail::CurrentAffinityProvider();
    uint64_t nodeMask = 0;
    if (const uint32_t code = provider.NodeMask(node, &nodeMask)) {
        if (error != nullptr)
            (void)error->SetErrorFormat("Error<%u> reading Numa node processor details", code);
        return false;
    }
    uint64_t wanted = 0;
    if (haveChosen) {
        // The chosen number is taken as a processor number of the machine.
        wanted = chosen < 64 ? uint64_t{1} << chosen : 0;
    } else {
        mask m;
        if (!get_cpumask(node, m, error)) return false;
        (void)m.convert(wanted);
    }
    if (wanted == 0) {
        if (error != nullptr)
            (void)error->SetErrorFormat("Error no matching cpu found on numa node %u", node);
        return false;
    }
    uint64_t processMask = 0;
    if (const uint32_t code = provider.ProcessMask(&processMask)) {
        if (error != nullptr)
            (void)error->SetErrorFormat("Error<%u> cannot get process affinity.", code);
        return false;
    }
    if ((wanted & processMask) == 0) {
        if (const uint32_t code = provider.SetProcessMask(processMask | wanted)) {
            if (error != nullptr)
                (void)error->SetErrorFormat(
                    "Error<%u> cannot set adjust the affinity to support a thread affinity.", code);
            return false;
        }
    }
    if (const uint32_t code = provider.SetThreadMask(thread, wanted)) {
        if (error != nullptr)
            (void)error->SetErrorFormat("Error<%u> setting affinity 0x%llx", code,
                                        static_cast<unsigned long long>(wanted));
        return false;
    }
    if (haveChosen) {
        // Other threads read these fields under the registry's lock.
        QuickLockGuard guard(thread_details::get().get_lock());
        self->loadBalance = true;
        self->assignedCpu = chosen;
    }
    return true;
}

}  // namespace TOLVEN
