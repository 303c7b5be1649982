// Log sinks: objects that receive every message at or above their level on "LogThread".
//
// StandardLogSink ties an object to the log API's callback table; the classes below turn a
// message into console output, a dated text file or a syslog datagram. A sink is
// unregistered after construction and registered between SinkEvents(true) and
// SinkEvents(false); every sink leaves the table in its destructor before its data goes.
// OnItemLogged runs on "LogThread" with the API lock held: it must not call LogFlush or
// LogRemoveCallback, and it reports nothing (logging from a sink would loop).
#pragma once

#include <cstddef>
#include <cstdint>

#include "tolven/logapi.h"
#include "tolven/quicklock.h"
#include "tolven/simplelogfile.h"

namespace TOLVEN {

class ConfigReader;

// Colours of console text: 0 leaves the console's colours alone; 1 bright red, 2 bright
// green, 3 bright yellow.
enum console_color : uint32_t {
    CONSOLE_COLOR_DEFAULT = 0,
    CONSOLE_COLOR_RED = 1,
    CONSOLE_COLOR_GREEN = 2,
    CONSOLE_COLOR_YELLOW = 3,
};

// Writes `text` to standard output as it is (no line end added), in `color` where the
// output is a terminal. False for a null text, when there is no standard output, or when
// not every byte was written. Safe for concurrent use without external locking: one call's
// colour, text and reset are not interleaved with another's.
bool WriteConsoleLine(const char* text, console_color color);

// The base of every sink: registration with the log API and the sink's level. The
// constructor takes a reference on the log API (LogInitApi) and the destructor gives it
// back. A derived class calls SinkEvents(false) in its own destructor, so that no message
// reaches a half-destroyed object. Not thread-safe: set up and tear down a sink from one
// thread at a time.
class StandardLogSink {
  public:
    StandardLogSink();
    virtual ~StandardLogSink();
    StandardLogSink(const StandardLogSink&) = delete;
    StandardLogSink& operator=(const StandardLogSink&) = delete;

    // The level asked for (TRACE after construction).
    logger_event_level GetLoggingLevel() const noexcept { return level_; }
    // Stores the level and hands it to the API; before registration it takes effect at
    // registration.
    void SetLoggingLevel(logger_event_level level);

  protected:
    // Called on "LogThread" for each message at or above the level.
    virtual void OnItemLogged(_LOGGER_CB_DATA* const data) = 0;
    // true: registers the sink (false when it already is, or when the API refuses).
    // false: delivers what is queued and unregisters (false when it was not registered).
    bool SinkEvents(bool enable);
    // The id the API gave, 0 while unregistered.
    uint32_t CallbackId() const noexcept { return callbackId_; }

  private:
    static void LogFunc(_LOGGER_CB_DATA* const data, void* context);

    uint32_t callbackId_ = 0;
    logger_event_level level_ = LOGGER_TRACE;
};

// Each message as one line on standard output: "(hh:mm:ss.fffff) text\r\n", in yellow for
// WARN and red for ERROR. Not thread-safe (see StandardLogSink).
class ConsoleLogger : public StandardLogSink {
  public:
    // `init` true registers at once.
    explicit ConsoleLogger(bool init = false);
    ~ConsoleLogger() override;
    // Registers; false when already registered.
    bool Init() { return SinkEvents(true); }
    // Unregisters; false when not registered.
    bool Term() { return SinkEvents(false); }

  protected:
    void OnItemLogged(_LOGGER_CB_DATA* const data) override;
};

// A console sink that can hold its lines while an operator types at a prompt and write
// them afterwards; only the last 1000 lines are kept. WARN and ERROR lines carry the level
// name. StartHolding, FlushHeld and Stop are safe for concurrent use with the messages
// arriving; the rest is not thread-safe (see StandardLogSink).
class BufferedConsoleLogger : public StandardLogSink {
  public:
    // Lines kept while holding.
    static constexpr uint32_t kCapacity = 1000;
    // Bytes of one line, with its NUL.
    static constexpr uint32_t kLineSize = 4096;

    // An unregistered sink with room for kCapacity lines.
    BufferedConsoleLogger();
    ~BufferedConsoleLogger() override;
    // Registers; false when already registered.
    bool Init() { return SinkEvents(true); }
    // From now on lines are kept instead of written.
    void StartHolding();
    // When holding: writes the kept lines, oldest first, forgets them and stops holding.
    void FlushHeld();
    // Unregisters and stops holding; kept lines are dropped unwritten.
    void Stop();

  protected:
    void OnItemLogged(_LOGGER_CB_DATA* const data) override;

  private:
    struct Line {
        uint32_t level;
        uint32_t length;
        uint32_t color;
        char text[kLineSize];
    };

    QuickLock lock_;
    bool holding_ = false;
    Line* lines_;
    int first_ = -1;  // oldest kept line, -1 when none
    int last_ = -1;   // newest kept line, -1 when none
};

// The place of a debugger-output sink. It builds each line and emits nothing: this build
// has no debugger channel to write to. Not thread-safe (see StandardLogSink).
class OdsLogger : public StandardLogSink {
  public:
    OdsLogger() = default;
    ~OdsLogger() override;
    // Registers; false when already registered.
    bool Init() { return SinkEvents(true); }
    // Unregisters; false when not registered.
    bool Term() { return SinkEvents(false); }

  protected:
    void OnItemLogged(_LOGGER_CB_DATA* const data) override;
};

// Each message as one line of a dated text file (simplelogfile, stamped): the time of the
// write, "WARN:" or "ERROR:" for those levels, and the text. Lines reach the disk through
// the background writer, so a message may take half a second to show in the file. Not
// thread-safe (see StandardLogSink).
class DatedFileLogger : public StandardLogSink {
  public:
    DatedFileLogger();
    // Term.
    ~DatedFileLogger() override;
    // Unregisters, opens the file as simplelogfile::Init does and registers; false (and
    // unregistered) when the file cannot be opened.
    bool Init(const char* name, const char* directory, const char* rollText, int keepDays,
              bool dated, const char* archiveDirectory);
    // Unregisters, delivering what is queued, then closes the file.
    void Term();
    // The file, for its name and figures.
    simplelogfile& GetLogFile() noexcept { return file_; }

  protected:
    void OnItemLogged(_LOGGER_CB_DATA* const data) override;

  private:
    simplelogfile file_;
};

// Each message as one UDP datagram to a syslog collector,
// "<priority> ident hh:mm:ss.mmm LEVEL text", at most 1024 bytes. Settings come from the
// default section of a configuration reader: "SyslogHost", "SyslogPort", "SyslogPriority"
// (all three required) and "SyslogMinLevel" (WARN when missing or unknown). The host is
// resolved once, at Init; a dotted address is used as it is. Lost or refused datagrams go
// unnoticed. Not thread-safe (see StandardLogSink).
class SyslogLogger : public StandardLogSink {
  public:
    // Longest datagram, in bytes.
    static constexpr size_t kDatagramSize = 1024;

    SyslogLogger() = default;
    ~SyslogLogger() override;
    // Reads the settings, opens the socket and registers. `ident` is kept by address: the
    // caller keeps the text alive. False (logged at ERROR, sink unregistered) when a
    // required setting is missing or the socket cannot be set up.
    bool Init(ConfigReader* config, const char* ident);
    // Unregisters and closes the socket.
    void Term();

  protected:
    void OnItemLogged(_LOGGER_CB_DATA* const data) override;

  private:
    bool CreateSocket(const char* host, int port);
    void DestroySocket();

    const char* ident_ = nullptr;
    intptr_t socket_ = -1;
    int priority_ = 0;
};

}  // namespace TOLVEN
