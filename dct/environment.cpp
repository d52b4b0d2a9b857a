#include "dct/environment.h"

#include <errno.h>

#include "dct/clock.h"
#include "dct/config.h"
#include "dct/fault.h"
#include "dct/sleep.h"

namespace dct {

unsigned long environment::now_ms() const { return clock ? clock() : dct::now_ms(); }

void environment::sleep_seconds(unsigned seconds) const {
    if (sleep) {
        sleep(seconds);
        return;
    }
    DctSleep(seconds);
}

int environment::fault_point(fault_op op, const char* path) const {
    if (!fault) return dct::fault_point(op, path);
    const int err = fault(op, path != nullptr ? path : "");
    if (err != 0) errno = err;
    return err;
}

bool environment::auto_fix_journal() const {
    if (disable_auto_fix_journal) return !*disable_auto_fix_journal;
    const _crConfigClass* config = _crConfigClass::Instance();
    return config == nullptr || !config->GetDisableCatalogAutoFixJournal();
}

int environment::busy_timeout_or(int process_default) const {
    return busy_timeout_ms ? *busy_timeout_ms : process_default;
}

long environment::lock_wait_limit_or(long process_default) const {
    return lock_wait_limit_ms ? *lock_wait_limit_ms : process_default;
}

const environment& default_environment() {
    static const environment empty;
    return empty;
}

namespace {
thread_local const environment* t_current = nullptr;
}

const environment& current_environment() { return t_current != nullptr ? *t_current : default_environment(); }

environment_scope::environment_scope(const environment& env) : previous_(t_current) { t_current = &env; }

environment_scope::~environment_scope() { t_current = previous_; }

}  // namespace dct
