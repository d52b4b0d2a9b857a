// The environment of one service: the clock, the sleep (the busy retries'
// too), the fault seam of the file operations, the busy timeout, the
// directory lock's wait limit, the configuration switches and the log sink it
// runs with.
//
// A service (or a test) fills one in and hands it to the objects that serve
// it (CatalogShadowContext, catalog_application_factory); two services in one
// process, each with its own environment, do not see each other's choices,
// even on two threads at once. Every member left empty or unset falls back to
// the process-wide default (dct::set_clock_function, dct::set_sleep_function,
// dct::set_fault_hook, dct::set_log_sink, catalog_store::set_busy_timeout_ms,
// CatalogDirectoryLock::set_wait_limit_ms, _crConfigClass::Instance()), read
// at the moment it is asked, so a default environment behaves exactly as the
// process-wide setters say.
//
// Each public operation of those objects makes its environment the calling
// thread's (environment_scope) for as long as it runs, so that everything
// below it (the file calls of dct, the busy retries, the log records) asks
// that environment: the library reads the process-wide seams only through a
// default environment.
//
//   dct::environment env;
//   env.sleep = [](unsigned) {};              // busy retries without waiting
//   env.disable_auto_fix_journal = true;
//   CatalogShadowContext shadow(proxy, new CatalogDirectoryLock(), env);
//
// An environment is a value: objects keep their own copy, taken when they are
// built (the shadow context may later fill in switches from its
// configuration file). Reading it from several threads is safe; the functions
// it holds must be safe to call from several threads at once.
#ifndef DCT_ENVIRONMENT_H_
#define DCT_ENVIRONMENT_H_

#include <stddef.h>

#include <functional>
#include <optional>

#include "dct/log.h"

namespace dct {

// The file operations of the fault seam (dct/fault.h, a test seam that is not
// installed).
enum class fault_op;

struct environment {
    // Milliseconds since the epoch; empty: dct::now_ms().
    std::function<unsigned long()> clock;
    // Sleeps the given number of seconds; empty: DctSleep.
    std::function<void(unsigned)> sleep;
    // The fault seam of the file operations made on this environment's
    // behalf (returns 0, or the errno to fail with); empty: dct::fault_point
    // (the process-wide hook).
    std::function<int(fault_op op, const char* path)> fault;
    // SQLite busy timeout of new catalog connections, in milliseconds; unset:
    // the database layer's process-wide value.
    std::optional<int> busy_timeout_ms;
    // Longest wait for one directory lock, in milliseconds; unset: the lock's
    // process-wide limit.
    std::optional<long> lock_wait_limit_ms;
    // [Paths] DisableCatalogAutoFixJournal; unset: the process configuration
    // object (_crConfigClass::Instance()) decides, and without one auto-fix
    // is on.
    std::optional<bool> disable_auto_fix_journal;
    // Receives every record logged while this environment is the thread's
    // (see environment_scope), fully formatted, as a sink given to
    // dct::set_log_sink would; empty: the process-wide sink.
    log_sink log;
    // Group commit: concurrent changes to one catalog database are committed
    // together, at most this many changes and this many bytes of their line
    // texts in one group (the first change of a group goes whatever its
    // size); unset: the catalog's defaults (128 changes, 1 MiB). A bound of
    // 1 change commits every change on its own.
    std::optional<unsigned> commit_group_changes;
    std::optional<size_t> commit_group_bytes;

    unsigned long now_ms() const;
    void sleep_seconds(unsigned seconds) const;
    // 0, or the errno the hook chose (errno is then set to it).
    int fault_point(fault_op op, const char* path) const;
    // Whether a journal check may fill in a count of 0 recorded lines and a
    // journal is checked before lines are appended to it.
    bool auto_fix_journal() const;
    // The member when set, else `process_default`.
    int busy_timeout_or(int process_default) const;
    long lock_wait_limit_or(long process_default) const;
};

// The environment of everything built without one: every member empty.
const environment& default_environment();

// The calling thread's environment: the innermost live environment_scope's,
// else default_environment().
const environment& current_environment();

// Makes `env` the calling thread's environment until the scope ends; scopes
// nest, the innermost wins. `env` must outlive the scope. Objects that serve
// a service open one at each public operation.
class environment_scope {
public:
    explicit environment_scope(const environment& env);
    ~environment_scope();
    environment_scope(const environment_scope&) = delete;
    environment_scope& operator=(const environment_scope&) = delete;

private:
    const environment* previous_;
};

}  // namespace dct

#endif  // DCT_ENVIRONMENT_H_
