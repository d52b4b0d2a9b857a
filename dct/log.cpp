#include "dct/log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <memory>
#include <mutex>

#include "dct/environment.h"
#include "dct/syslog_gate.h"

namespace {

int initial_trace_switch() {
    const char* t = getenv("DCT_TRACE");
    return (t != nullptr && strcmp(t, "1") == 0) ? 1 : 0;
}

// Writes "LEVEL [status] message" lines to a FILE (stderr or an appended file).
class stream_sink {
public:
    stream_sink(FILE* f, bool owned) : f_(f), owned_(owned) {}
    ~stream_sink() {
        if (owned_ && f_ != nullptr) fclose(f_);
    }
    void write(dct::log_level level, cr_status_t status, const std::string& message) {
        if (f_ == nullptr) return;
        // The message is written by its length: a byte inside it (even a
        // NUL) never cuts the record short.
        if (level == dct::log_level::trace) {
            fprintf(f_, "%s ", dct::log_level_name(level));
        } else {
            fprintf(f_, "%s [%u] ", dct::log_level_name(level), status);
        }
        fwrite(message.data(), 1, message.size(), f_);
        fputc('\n', f_);
        fflush(f_);
    }

private:
    FILE* f_;
    bool owned_;
};

// The log daemon's socket, and how often the default sink asks whether it
// takes records.
const char kSyslogSocket[] = "/dev/log";
const unsigned long kSyslogProbeIntervalMs = 1000;

// The default sink and the least important level it keeps. A record above
// `threshold` (in log_level order, error first) is dropped before it is
// formatted; `keeps_nothing` marks DCT_LOG=none, which drops every record.
struct default_sink {
    dct::log_sink write;
    dct::log_level threshold = dct::log_level::trace;
    bool keeps_nothing = false;
    // DCT_LOG_LEVEL chose the threshold: a configured level does not change it.
    bool threshold_from_env = false;
    // For syslog: whether a daemon takes records now; null for the others.
    std::shared_ptr<dct::syslog_gate> gate;
    // Where the records go, for people: "standard error", "the file PATH"...
    std::string destination;
    // Why DCT_LOG=file:PATH was not used ("" when it was, or was not asked for).
    std::string unusable_file;

    // Whether a record of `level` would be kept (and so is worth formatting).
    bool keeps(dct::log_level level) const {
        return !keeps_nothing && level <= threshold && (!gate || gate->open());
    }
};

// Reads DCT_LOG_LEVEL into `*level`. Unset or empty: false, `*level` left
// alone. Any value that does not name a level also gives false and sets
// `*invalid`, so that the caller can say so once.
bool threshold_from_environment(dct::log_level* level, bool* invalid) {
    *invalid = false;
    const char* v = getenv("DCT_LOG_LEVEL");
    if (v == nullptr || *v == '\0') return false;
    if (dct::parse_log_level(v, level)) return true;
    *invalid = true;
    return false;
}

// The writer DCT_LOG chooses; for syslog also the gate that says whether a
// daemon takes records (records it would not take are not handed to syslog).
dct::log_sink make_default_writer(const std::string& choice, std::shared_ptr<dct::syslog_gate>* gate,
                                  std::string* destination, std::string* unusable_file) {
    if (choice == "stderr") {
        *destination = "standard error";
        auto s = std::make_shared<stream_sink>(stderr, false);
        return [s](dct::log_level l, cr_status_t st, const std::string& m) { s->write(l, st, m); };
    }
    if (choice.compare(0, 5, "file:") == 0) {
        FILE* f = fopen(choice.c_str() + 5, "a");
        if (f != nullptr) {
            *destination = "the file " + choice.substr(5);
            auto s = std::make_shared<stream_sink>(f, true);
            return [s](dct::log_level l, cr_status_t st, const std::string& m) { s->write(l, st, m); };
        }
        // An unusable file falls back to syslog below rather than losing records.
        *unusable_file = "DCT_LOG=" + choice + " cannot be opened: " + strerror(errno);
    }
    *destination = unusable_file->empty() ? "syslog" : "syslog (" + *unusable_file + ")";
    openlog(program_invocation_short_name, LOG_PID, LOG_USER);
    *gate = std::make_shared<dct::syslog_gate>(kSyslogSocket, kSyslogProbeIntervalMs);
    return [](dct::log_level level, cr_status_t status, const std::string& message) {
        int prio = LOG_DEBUG;
        switch (level) {
            case dct::log_level::error: prio = LOG_ERR; break;
            case dct::log_level::warning: prio = LOG_WARNING; break;
            case dct::log_level::info: prio = LOG_INFO; break;
            case dct::log_level::trace: prio = LOG_DEBUG; break;
        }
        // A record holds no NUL byte (make_one_line), so syslog's C string
        // is the whole of it.
        if (level == dct::log_level::trace) {
            syslog(prio, "%s %s", dct::log_level_name(level), message.c_str());
        } else {
            syslog(prio, "%s [%u] %s", dct::log_level_name(level), status, message.c_str());
        }
    };
}

// Chooses the default sink from DCT_LOG and its threshold from DCT_LOG_LEVEL,
// else from `configured` (a configuration file's level, when set). An invalid
// DCT_LOG_LEVEL is reported once, as a warning record through the sink just
// chosen, and leaves the threshold to the configuration or every level.
default_sink make_default_sink(const dct::log_level* configured) {
    const char* env_value = getenv("DCT_LOG");
    std::string choice = env_value != nullptr ? env_value : "";
    default_sink d;
    if (choice == "none") {
        d.keeps_nothing = true;
        d.destination = "nowhere (DCT_LOG=none)";
        d.write = [](dct::log_level, cr_status_t, const std::string&) {};
        return d;
    }
    bool invalid = false;
    d.threshold_from_env = threshold_from_environment(&d.threshold, &invalid);
    if (!d.threshold_from_env && configured != nullptr) d.threshold = *configured;
    d.write = make_default_writer(choice, &d.gate, &d.destination, &d.unusable_file);
    if (invalid) {
        try {
            d.write(dct::log_level::warning, CR_STATUS_FAILED,
                    std::string("DCT_LOG_LEVEL \"") + getenv("DCT_LOG_LEVEL") +
                        "\" is not error, warning, info or trace; " +
                        (configured != nullptr ? "the configured level is used"
                                               : "every level is logged"));
        } catch (...) {
            // Only this record is lost; the sink itself stays chosen.
        }
    }
    return d;
}

struct sink_state {
    std::recursive_mutex mutex;
    dct::log_sink installed;   // set by set_log_sink
    default_sink fallback;     // made at the first record that reaches it
    bool fallback_made = false;
    bool configured = false;   // set_default_log_level was called
    dct::log_level configured_level = dct::log_level::trace;
};

sink_state& state() {
    static sink_state* s = new sink_state();  // never destroyed: logging may run at exit
    return *s;
}

// A record is one line of text: line breaks that formats end with are dropped,
// and any other control byte in the text (a NUL printed with %c, a line break
// inside a file name) is written as "\n", "\r" or "\xHH", so that no record
// can split a log file's lines or end a reader's string early. Tabs stay.
void make_one_line(std::string* message) {
    while (!message->empty() && (message->back() == '\n' || message->back() == '\r')) message->pop_back();
    size_t i = 0;
    while (i < message->size()) {
        const unsigned char c = static_cast<unsigned char>((*message)[i]);
        if ((c >= 0x20 && c != 0x7f) || c == '\t') {
            ++i;
            continue;
        }
        char escaped[5];
        if (c == '\n') {
            memcpy(escaped, "\\n", 3);
        } else if (c == '\r') {
            memcpy(escaped, "\\r", 3);
        } else {
            snprintf(escaped, sizeof(escaped), "\\x%02x", c);
        }
        const size_t length = strlen(escaped);
        message->replace(i, 1, escaped, length);
        i += length;
    }
}

// Formats `format` with `ap` into `*message`, as one line (make_one_line).
void format_record(const char* format, va_list ap, std::string* message) {
    char stack_buf[1024];
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(stack_buf, sizeof(stack_buf), format, copy);
    va_end(copy);
    if (n < 0) {
        *message = format;
    } else if (static_cast<size_t>(n) < sizeof(stack_buf)) {
        message->assign(stack_buf, n);
    } else {
        message->resize(n + 1);
        vsnprintf(&(*message)[0], n + 1, format, ap);
        message->resize(n);
    }
    make_one_line(message);
}

// Delivers one record to the sink that keeps it, formatting it only when one
// does: an installed sink keeps every record, the default one those at or
// above its threshold (syslog only while a daemon takes them). The decision and the delivery happen under the one
// lock, so a record is judged by the sink that receives it. Never throws to
// the caller (see emit): a record that cannot be allocated, or a sink that
// throws, loses that record only, so that logging a failure can never become
// a second failure (callers log inside destructors and out-of-memory paths).
void emit_unguarded(dct::log_level level, cr_status_t status, const char* format, va_list ap) {
    sink_state& s = state();
    std::lock_guard<std::recursive_mutex> guard(s.mutex);
    // The thread's environment's own sink, else the process-wide one.
    const dct::log_sink& own = dct::current_environment().log;
    const dct::log_sink& installed = own ? own : s.installed;
    if (installed) {
        std::string message;
        format_record(format, ap, &message);
        installed(level, status, message);
        return;
    }
    if (!s.fallback_made) {
        s.fallback = make_default_sink(s.configured ? &s.configured_level : nullptr);
        s.fallback_made = true;
    }
    if (!s.fallback.keeps(level)) return;
    std::string message;
    format_record(format, ap, &message);
    s.fallback.write(level, status, message);
}

void emit(dct::log_level level, cr_status_t status, const char* format, va_list ap) noexcept {
    try {
        emit_unguarded(level, status, format, ap);
    } catch (...) {
    }
}

}  // namespace

std::atomic<int> __dctlog_trace_location{initial_trace_switch()};

void ErrorA(cr_status_t status, const char* format, ...) noexcept {
    int saved = errno;
    va_list ap;
    va_start(ap, format);
    emit(dct::log_level::error, status, format, ap);
    va_end(ap);
    errno = saved;
}

void WarningA(cr_status_t status, const char* format, ...) noexcept {
    int saved = errno;
    va_list ap;
    va_start(ap, format);
    emit(dct::log_level::warning, status, format, ap);
    va_end(ap);
    errno = saved;
}

void InfoA(cr_status_t status, const char* format, ...) noexcept {
    int saved = errno;
    va_list ap;
    va_start(ap, format);
    emit(dct::log_level::info, status, format, ap);
    va_end(ap);
    errno = saved;
}

namespace dct {

void set_log_sink(log_sink sink) {
    sink_state& s = state();
    std::lock_guard<std::recursive_mutex> guard(s.mutex);
    s.installed = std::move(sink);
}

std::string log_destination() {
    try {
        sink_state& s = state();
        std::lock_guard<std::recursive_mutex> guard(s.mutex);
        if (s.installed) return "the program's log sink";
        if (!s.fallback_made) {
            s.fallback = make_default_sink(s.configured ? &s.configured_level : nullptr);
            s.fallback_made = true;
        }
        if (s.fallback.gate && !s.fallback.gate->open()) {
            if (!s.fallback.unusable_file.empty()) {
                return "nowhere: " + s.fallback.unusable_file + ", and no syslog daemon listens on /dev/log";
            }
            return "nowhere: no syslog daemon listens on /dev/log (DCT_LOG=stderr or DCT_LOG=file:PATH keeps them)";
        }
        return s.fallback.destination;
    } catch (...) {
        return "an unknown place";
    }
}

const char* log_level_name(log_level level) {
    switch (level) {
        case log_level::error: return "ERROR";
        case log_level::warning: return "WARNING";
        case log_level::info: return "INFO";
        case log_level::trace: return "TRACE";
    }
    return "TRACE";
}

bool parse_log_level(const std::string& name, log_level* level) {
    static const struct {
        const char* name;
        log_level level;
    } names[] = {{"error", log_level::error},
                 {"warning", log_level::warning},
                 {"info", log_level::info},
                 {"trace", log_level::trace}};
    for (const auto& n : names) {
        if (name == n.name) {
            *level = n.level;
            return true;
        }
    }
    return false;
}

void set_default_log_level(log_level level) {
    sink_state& s = state();
    std::lock_guard<std::recursive_mutex> guard(s.mutex);
    s.configured = true;
    s.configured_level = level;
    if (s.fallback_made && !s.fallback.threshold_from_env) s.fallback.threshold = level;
}

void trace_write(const char* format, ...) noexcept {
    if (!__dctlog_trace_location.load(std::memory_order_relaxed)) return;
    int saved = errno;
    va_list ap;
    va_start(ap, format);
    emit(log_level::trace, CR_STATUS_NONE, format, ap);
    va_end(ap);
    errno = saved;
}

}  // namespace dct
