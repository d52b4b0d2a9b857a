// A model of power loss for crash tests: it remembers what each file held
// when it was last synced, and at a chosen moment takes the picture of what
// a machine that lost power then would find on disk. Every file below the
// watched roots is in that picture with its content at its last sync (empty
// when it was never synced); directory entries (creations, renames, removals)
// count as durable at once, except, when asked for (dirs_need_parent_sync),
// new directories: those are in the picture only once their parent directory
// was synced after they were made, and everything below a lost directory is
// lost with it.
//
// It learns about syncs from the platform layer's fault seam (dct/fault.h:
// fsync with a path, or right after an open_write / write of a path) and from
// the SQLite test layer (sqlite_test_vfs.h: xSync of a named file). Renames
// and moves carry the synced content with the file. A moment is an "event":
// every call of the fault seam and every SQLite write, truncate, sync or
// delete of a file below the roots; the crash is taken just before the
// chosen event has any effect.
//
// The code under test goes on running after the crash event; what it does
// then is thrown away by restore(), which replaces the roots with the
// picture. One model per process at a time; it owns both hooks while alive.
#ifndef KAVREL_TESTS_COMMON_POWER_LOSS_H_
#define KAVREL_TESTS_COMMON_POWER_LOSS_H_

#include <sys/types.h>

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace kt {

class PowerLossModel {
public:
    // Every file below `roots` counts as synced as it is now.
    explicit PowerLossModel(std::vector<std::string> roots);
    ~PowerLossModel();
    PowerLossModel(const PowerLossModel&) = delete;
    PowerLossModel& operator=(const PowerLossModel&) = delete;

    // Takes the picture just before event `n` (1 is the first; 0 never).
    void crash_at(long n);
    // New directories survive only when their parent was synced (see above).
    void dirs_need_parent_sync(bool on);
    long events() const;
    bool crashed() const;
    // Syncs whose file could not be told (should stay 0: then every sync of
    // the code under test is modelled).
    long unattributed_syncs() const;
    // Files synced so far (all events), for reports.
    long syncs() const;

    // Replaces everything below the roots with the picture taken at the
    // crash, or with one taken now when no crash happened. Removes the hooks
    // first. Call it after the code under test has let go of its files.
    void restore();

private:
    struct pending_move {
        std::string from;
        dev_t dev;
        ino_t ino;
    };
    struct picture {
        std::vector<std::string> dirs;
        std::map<std::string, std::string> files;
    };

    void on_event(bool counts);       // with mutex_ held
    void settle();                    // with mutex_ held: pending moves and deletes
    void sync_file(const std::string& path);
    bool below_roots(const std::string& path) const;
    picture take_picture();           // with mutex_ held
    int on_fault_point(int op, const char* path);

    std::vector<std::string> roots_;
    mutable std::mutex mutex_;
    std::map<std::string, std::string> durable_;
    std::set<std::string> durable_dirs_;
    bool dirs_need_parent_sync_ = false;
    std::vector<pending_move> moves_;
    std::vector<std::string> deletes_;
    std::string last_path_;
    long events_ = 0;
    long crash_at_ = 0;
    bool crashed_ = false;
    long unattributed_ = 0;
    long syncs_ = 0;
    picture picture_;
};

}  // namespace kt

#endif  // KAVREL_TESTS_COMMON_POWER_LOSS_H_
