// The process-wide record behind CatalogDirectoryLock (DirectoryLock.h):
// which directories this process holds with flock and for which thread, the
// unlocked descriptors kept for the next lock, and the frames of every Lock
// call, with the fork handlers that make a child forget them. Private to
// DirectoryLock.cpp and DirectoryLockTable.cpp.
//
// Lock order: frames_mutex() before the table's own mutex.
#ifndef CATALOG_SHADOW_DIRECTORYLOCKTABLE_H_
#define CATALOG_SHADOW_DIRECTORYLOCKTABLE_H_

#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "catalog_shadow/DirectoryLock.h"
#include "dct/status.h"

namespace directory_lock_table {

using dir_key = CatalogDirectoryLock::dir_key;

// What one Lock call acquired, for the object that made it: the directories
// it holds (the ancestor it stood in for a missing directory, then that
// directory once created).
struct frame {
    const CatalogDirectoryLock* object;
    std::vector<dir_key> keys;
    bool on_ancestor;
};
using frame_owner = std::pair<std::thread::id, std::string>;

std::mutex& frames_mutex();
std::map<frame_owner, std::vector<frame>>& frames();

// Counts a thread's second hold of a directory it holds already; false when
// the calling thread does not hold `key`.
bool count_up(const dir_key& key);

// Gives one hold of `key` back; the last one unlocks it (its descriptor is
// kept idle for the next lock).
void release(const dir_key& key);

// The descriptor carrying the flock of `key` when the calling thread holds
// it, else -1.
int held_fd(const dir_key& key);

// Takes `dir`, or its nearest existing ancestor while it is missing (when
// `allow_ancestor`), for the calling thread, waiting at most `wait_limit_ms`.
// `ancestor` says which was taken. 0; 2 when `dir` is missing and no
// ancestor may stand in; 11 after the wait; else the logged failure.
cr_status_t take(const std::string& dir, bool allow_ancestor, long wait_limit_ms, dir_key* key, bool* ancestor);

}  // namespace directory_lock_table

#endif  // CATALOG_SHADOW_DIRECTORYLOCKTABLE_H_
