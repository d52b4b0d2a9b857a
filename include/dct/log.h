// Logging: ErrorA / WarningA / InfoA / __TraceA and the sink they write to.
//
// Every record that a sink keeps is formatted once and handed to that sink; a
// record that no sink keeps is never formatted (its arguments are not read).
// The default sink is chosen at the first record from the environment variable
// DCT_LOG: "syslog" (default), "stderr", "file:PATH" (append) or "none" (keeps
// nothing). With it, DCT_LOG_LEVEL read at the same moment sets the least
// important level the default sink keeps: "error", "warning", "info" or
// "trace" (every level, the default); another value keeps every level and is
// reported by one warning record. Without DCT_LOG_LEVEL, a level read from a
// configuration file ("[Log] Level", configure_log_level) applies instead. On stderr and in a file a record is one line
// "LEVEL [status] message" ("TRACE message" for traces). DCT_TRACE=1 turns
// tracing on at start. Standard output is never used.
// All functions are thread-safe and never throw (a record that cannot be
// allocated is dropped).
#ifndef DCT_LOG_H_
#define DCT_LOG_H_

#include <atomic>
#include <functional>
#include <string>

#include "dct/status.h"

// Trace switch: non-zero = trace records are formatted and written. Starts as
// DCT_TRACE says; a program may set it at any time, from any thread.
extern std::atomic<int> __dctlog_trace_location;

void ErrorA(cr_status_t status, const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));
void WarningA(cr_status_t status, const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));
void InfoA(cr_status_t status, const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));

namespace dct {

enum class log_level { error, warning, info, trace };
using log_sink = std::function<void(log_level, cr_status_t status, const std::string& message)>;

// Installs `sink` for every later record; an empty sink restores the default.
// A thread whose environment has its own sink (dct::environment::log, see
// dct/environment.h) logs there instead, under the same lock.
// The sink receives each record once, fully formatted (no trailing newline),
// with the status it is about (0 for information, CR_STATUS_NONE when there is
// none). Records of every thread go through one process-wide lock, so the sink
// is never called twice at once, but it is called on whichever thread logs,
// while that lock is held: it should return quickly and must not call
// set_log_sink. A sink that throws loses that record only. Trace records reach
// it only while the trace switch is on; DCT_LOG_LEVEL does not apply to it. Install the sink before the threads
// that log start, or accept that records in flight go to the old one.
void set_log_sink(log_sink sink);

// Where records go now, for a message to people: "the program's log sink",
// "standard error", "the file PATH", "syslog", "nowhere (DCT_LOG=none)", or,
// when syslog is chosen but no daemon listens, "nowhere: no syslog daemon
// listens on /dev/log (DCT_LOG=stderr or DCT_LOG=file:PATH keeps them)".
// Chooses the default sink if no record has yet.
std::string log_destination();
// "ERROR", "WARNING", "INFO", "TRACE".
const char* log_level_name(log_level level);

// The level named "error", "warning", "info" or "trace" (exactly, lower case)
// into `*level`; false for any other name.
bool parse_log_level(const std::string& name, log_level* level);

// The least important level the default sink keeps when DCT_LOG_LEVEL does not
// name one: a configuration file's choice, which the environment overrides.
// Applies from the next record on, whether or not the default sink was chosen
// already. An installed sink is not affected.
void set_default_log_level(log_level level);

// Reads the key "Level" of section "[Log]" of the ini file `config_file` and,
// when it names a level, makes it the default sink's (set_default_log_level).
// 0 when the file, section or key is missing or the level was taken; 4 (one
// warning record naming the value and the file) when the value names no level.
cr_status_t configure_log_level(const std::string& config_file);

// Writes a trace record; callers use __TraceA, which checks the switch first.
void trace_write(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));

}  // namespace dct

// Trace: nothing (not even the arguments) is evaluated while tracing is off.
#define __TraceA(...)                                  \
    do {                                               \
        if (__dctlog_trace_location.load(std::memory_order_relaxed)) \
            ::dct::trace_write(__VA_ARGS__);           \
    } while (0)

#endif  // DCT_LOG_H_
