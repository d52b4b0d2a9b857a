// The one policy for a database that answers busy: how often an operation is
// tried and how long it waits between tries. Every busy loop of the catalog
// and the shadow subsystem goes through retry_while_busy, and every other wait
// on a busy database (the directory lock) is bounded by the same total.
#ifndef SQLITEDB_BUSY_RETRY_H_
#define SQLITEDB_BUSY_RETRY_H_

#include "dct/environment.h"
#include "dct/status.h"

namespace sqlitedb {

// Tries of one operation while its database is busy, one second apart.
constexpr unsigned int busy_tries = 60;

// Runs `attempt()` until it returns anything but CR_STATUS_BUSY, at most
// busy_tries times. After each busy result `on_busy(n)` is called (n counts
// the busy results from 0; it logs, and returns false to give up at once),
// then the thread sleeps one second through its environment
// (dct::current_environment(); the process-wide DctSleep by default). Returns
// the last status: CR_STATUS_BUSY when every try was busy or on_busy gave up.
template <typename Attempt, typename OnBusy>
cr_status_t retry_while_busy(Attempt&& attempt, OnBusy&& on_busy) {
    for (unsigned int busy = 0;;) {
        const cr_status_t status = attempt();
        if (status != CR_STATUS_BUSY) return status;
        if (!on_busy(busy)) return status;
        dct::current_environment().sleep_seconds(1);
        if (++busy >= busy_tries) return status;
    }
}

}  // namespace sqlitedb

#endif  // SQLITEDB_BUSY_RETRY_H_
