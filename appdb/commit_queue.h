// commit_queue: the changes that threads of one process make at the same
// moment to one catalog database, waiting in line to be committed together.
//
// Each change joins the line of its database (keyed by its directory) and
// waits. The change at the front leads: it takes the directory lock, then
// takes every change waiting behind it (within the bounds) into its group,
// runs the group, and wakes each member with its own status. A change that
// finds nobody in front of it and nobody behind it once it holds the lock
// runs on its own, as if there were no line at all: a lone writer pays one
// mutex and a map lookup. While the front works, the changes arriving pile up
// behind it and form the next group, so that the more writers wait, the more
// changes share one commit and its syncs.
//
// The writers a group releases usually come straight back with their next
// change. The next front (woken by the end of the group, or the first of
// those writers to come back) therefore waits a moment for them before it
// takes its group: until as many changes wait as the group released (one
// more when the front was not among them), or a quarter of the group's time
// has passed (at most 20 ms). Without that pause the new front, quicker than
// the writers it woke, would often commit alone, and the groups would
// alternate between one change and all the others. A lone writer (a group
// of one before it) never waits.
//
// The line only orders and hands over; what a group does is the caller's
// (catalog_application_base::commit_change). Thread-safe.
#ifndef APPDB_COMMIT_QUEUE_H_
#define APPDB_COMMIT_QUEUE_H_

#include <stddef.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "dct/status.h"

namespace appdb {

// The most a group takes: changes, and bytes of their texts. The front
// change goes whatever its size; a change that would cross a bound waits for
// the next group.
struct commit_bounds {
    size_t changes = 128;
    size_t bytes = size_t(1) << 20;
};

// What the groups of one queue have been, for tests and the benchmark.
struct commit_statistics {
    unsigned long alone = 0;    // changes the front ran on its own
    unsigned long groups = 0;   // groups of two or more changes run together
    unsigned long grouped = 0;  // changes in those groups
    unsigned long given_up = 0; // groups that handed their changes back to run alone
    size_t largest = 0;         // most changes in one group
    std::map<size_t, unsigned long> sizes;  // group size -> how many (sizes >= 2)
    // How long the fronts held their databases, alone and in groups.
    std::chrono::steady_clock::duration alone_time{};
    std::chrono::steady_clock::duration group_time{};
};

class commit_queue {
public:
    // One change in line. Lives on its caller's stack until the caller is
    // woken; the front runs `step` on the caller's behalf.
    struct change {
        change(size_t bytes_in, const std::function<cr_status_t()>& step_in)
            : bytes(bytes_in), step(step_in) {}
        const size_t bytes;
        const std::function<cr_status_t()>& step;
        cr_status_t status = CR_STATUS_OK;
        // Set by a group that was given up: the caller runs its change on
        // its own (and then reports that status).
        bool alone = false;

    private:
        friend class commit_queue;
        bool done = false;
        std::condition_variable wake;
    };

    explicit commit_queue(const commit_bounds& bounds) : bounds_(bounds) {}
    commit_queue(const commit_queue&) = delete;
    commit_queue& operator=(const commit_queue&) = delete;

    const commit_bounds& bounds() const { return bounds_; }

    // Puts `c` in the line of `key` and waits until it is at the front (true:
    // the caller leads, and must call take_group and then finish) or until
    // the group of another change has dealt with it (false: c.status holds
    // its result, or c.alone says to run it on its own).
    bool wait_turn(const std::string& key, change& c);

    // For the front `c`, holding the directory lock: the changes waiting
    // behind it, within the bounds, `c` first.
    std::vector<change*> take_group(const std::string& key, change& c);

    // For the front: it and the rest of `group` (what take_group gave; empty
    // when the front ran alone) leave the line, the members behind the front
    // are woken with their statuses, and the next change in line becomes the
    // front. `took` is how long the front held the database; `given_up`
    // counts a group that handed its changes back.
    void finish(const std::string& key, const std::vector<change*>& group,
                std::chrono::steady_clock::duration took, bool given_up = false);

    // Changes in the line of `key`, the front included.
    size_t waiting(const std::string& key) const;
    commit_statistics statistics() const;

private:
    // The line of one database.
    struct line {
        std::deque<change*> changes;  // the front first
        // What the last group released and how long it took: the front it
        // woke waits a moment for those writers to come back.
        size_t released = 0;
        std::chrono::steady_clock::time_point released_at;
        std::chrono::steady_clock::duration took{};
    };

    const commit_bounds bounds_;
    mutable std::mutex mutex_;
    std::map<std::string, line> lines_;
    commit_statistics stats_;
};

}  // namespace appdb

#endif  // APPDB_COMMIT_QUEUE_H_
