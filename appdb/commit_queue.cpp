// commit_queue: the line of changes per database and the hand-over between
// its front and the changes it takes.
#include "appdb/commit_queue.h"

#include <algorithm>
#include <new>

namespace appdb {

namespace {

// The longest a front waits for the writers of the last group, whatever that
// group took (one that waited long for a busy database says nothing about
// the next).
const std::chrono::steady_clock::duration kLongestPause = std::chrono::milliseconds(20);

// Empty lines kept for their databases' next changes.
const size_t kKeptLines = 64;

}  // namespace

bool commit_queue::wait_turn(const std::string& key, change& c) {
    std::unique_lock<std::mutex> lock(mutex_);
    line& l = lines_[key];
    l.changes.push_back(&c);
    size_t expected;
    if (l.changes.front() == &c) {
        // The line was empty: most likely `c` is one of the writers the last
        // group released, and the others are on their way. A lone writer
        // (a group of one released) never waits.
        if (l.released < 2 || std::chrono::steady_clock::now() - l.released_at > l.took) return true;
        expected = l.released;
    } else {
        // A front pausing for arrivals counts them.
        l.changes.front()->wake.notify_one();
        // Woken when it becomes the front, or when a group has dealt with it.
        c.wake.wait(lock, [&] { return c.done || l.changes.front() == &c; });
        if (c.done) return false;
        expected = 1 + l.released;
    }
    // A moment for the writers the last group released.
    expected = std::min(bounds_.changes, expected);
    const auto until = std::chrono::steady_clock::now() + std::min(kLongestPause, l.took / 4);
    c.wake.wait_until(lock, until, [&] { return l.changes.size() >= expected; });
    return true;
}

std::vector<commit_queue::change*> commit_queue::take_group(const std::string& key, change& c) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<change*> group(1, &c);
    auto l = lines_.find(key);
    if (l == lines_.end()) return group;
    size_t bytes = c.bytes;
    // The line is in arrival order, the front first.
    for (auto it = l->second.changes.begin() + 1; it != l->second.changes.end(); ++it) {
        if (group.size() >= bounds_.changes || bytes + (*it)->bytes > bounds_.bytes) break;
        bytes += (*it)->bytes;
        group.push_back(*it);
    }
    return group;
}

void commit_queue::finish(const std::string& key, const std::vector<change*>& group,
                          std::chrono::steady_clock::duration took, bool given_up) {
    std::lock_guard<std::mutex> lock(mutex_);
    const size_t size = group.empty() ? 1 : group.size();
    try {
        if (size < 2) {
            ++stats_.alone;
            stats_.alone_time += took;
        } else {
            ++stats_.groups;
            stats_.group_time += took;
            stats_.grouped += size;
            stats_.largest = std::max(stats_.largest, size);
            if (given_up) ++stats_.given_up;
            ++stats_.sizes[size];
        }
    } catch (const std::bad_alloc&) {
        // Only the table of sizes misses one.
    }
    auto l = lines_.find(key);
    if (l == lines_.end()) return;
    std::deque<change*>& changes = l->second.changes;
    // The group is the front of the line and the changes right behind it.
    for (size_t i = 0; i < size && !changes.empty(); ++i) changes.pop_front();
    for (size_t i = 1; i < group.size(); ++i) {
        group[i]->done = true;
        group[i]->wake.notify_one();
    }
    // A group leaves what the next front needs to wait for its writers. An
    // empty line stays for the next change to the same database (no new
    // entry for every change of a lone writer), as long as few lines are kept.
    if (changes.empty() && size < 2 && lines_.size() > kKeptLines) {
        lines_.erase(l);
        return;
    }
    l->second.released = size;
    l->second.released_at = std::chrono::steady_clock::now();
    l->second.took = took;
    if (!changes.empty()) changes.front()->wake.notify_one();
}

size_t commit_queue::waiting(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto l = lines_.find(key);
    return l == lines_.end() ? 0 : l->second.changes.size();
}

commit_statistics commit_queue::statistics() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return stats_;
}

}  // namespace appdb
