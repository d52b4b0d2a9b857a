#include "common/power_loss.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>

#include "common/sqlite_test_vfs.h"
#include "common/test_util.h"
#include "dct/fault.h"
#include "dct/fs.h"

namespace kt {

namespace {

bool is_regular(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// Every directory and regular file below `dir` (not `dir` itself).
void walk(const std::string& dir, const std::function<void(const std::string&, bool)>& visit) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return;
    while (struct dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        const std::string path = dir + "/" + name;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            visit(path, true);
            walk(path, visit);
        } else if (S_ISREG(st.st_mode)) {
            visit(path, false);
        }
    }
    closedir(d);
}

}  // namespace

PowerLossModel::PowerLossModel(std::vector<std::string> roots) : roots_(std::move(roots)) {
    for (const std::string& root : roots_) {
        walk(root, [this](const std::string& path, bool dir) {
            if (dir) {
                durable_dirs_.insert(path);
            } else {
                durable_[path] = read_file(path);
            }
        });
    }
    dct::set_fault_hook(
        [this](dct::fault_op op, const char* path) { return on_fault_point(static_cast<int>(op), path); });
    SqliteTestVfs::install();
    SqliteTestVfs::set_hooks(
        [this](vfs_op op, const std::string& path) {
            if (op == vfs_op::read || op == vfs_op::lock || !below_roots(path)) return 0;
            std::lock_guard<std::mutex> guard(mutex_);
            on_event(true);
            return 0;
        },
        [this](vfs_op op, const std::string& path, int rc) {
            if (rc != 0 || !below_roots(path)) return;
            std::lock_guard<std::mutex> guard(mutex_);
            if (op == vfs_op::sync) {
                sync_file(path);
            } else if (op == vfs_op::remove) {
                durable_.erase(path);
            }
        });
}

PowerLossModel::~PowerLossModel() {
    dct::set_fault_hook(nullptr);
    SqliteTestVfs::set_hooks(nullptr, nullptr);
}

void PowerLossModel::dirs_need_parent_sync(bool on) {
    std::lock_guard<std::mutex> guard(mutex_);
    dirs_need_parent_sync_ = on;
}

void PowerLossModel::crash_at(long n) {
    std::lock_guard<std::mutex> guard(mutex_);
    crash_at_ = n;
}

long PowerLossModel::events() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return events_;
}

bool PowerLossModel::crashed() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return crashed_;
}

long PowerLossModel::unattributed_syncs() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return unattributed_;
}

long PowerLossModel::syncs() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return syncs_;
}

bool PowerLossModel::below_roots(const std::string& path) const {
    for (const std::string& root : roots_) {
        if (path.size() > root.size() && path.compare(0, root.size(), root) == 0 && path[root.size()] == '/') {
            return true;
        }
    }
    return false;
}

void PowerLossModel::sync_file(const std::string& path) {
    if (!is_regular(path)) {
        // A directory sync makes the names of its subdirectories durable.
        DIR* d = opendir(path.c_str());
        if (d == nullptr) return;
        while (struct dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name == "." || name == "..") continue;
            struct stat st;
            const std::string child = path + "/" + name;
            if (lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) durable_dirs_.insert(child);
        }
        closedir(d);
        return;
    }
    durable_[path] = read_file(path);
    ++syncs_;
}

// Moves and deletes announced by the fault seam happen after its hook
// returns; by the next event they are done (or failed), and the synced
// content follows the file to its new name.
void PowerLossModel::settle() {
    for (const pending_move& m : moves_) {
        struct stat st;
        if (lstat(m.from.c_str(), &st) == 0 && st.st_dev == m.dev && st.st_ino == m.ino) continue;  // not moved
        std::string to;
        for (const std::string& root : roots_) {
            walk(root, [&](const std::string& path, bool dir) {
                struct stat s2;
                if (!dir && to.empty() && lstat(path.c_str(), &s2) == 0 && s2.st_dev == m.dev && s2.st_ino == m.ino) {
                    to = path;
                }
            });
        }
        auto it = durable_.find(m.from);
        if (!to.empty()) {
            if (it != durable_.end()) {
                durable_[to] = it->second;
            } else {
                durable_.erase(to);
            }
        }
        durable_.erase(m.from);
    }
    moves_.clear();
    for (const std::string& path : deletes_) {
        if (exists(path)) continue;
        // A removed tree takes everything below it.
        const std::string prefix = path + "/";
        for (auto it = durable_.begin(); it != durable_.end();) {
            if (it->first == path || it->first.compare(0, prefix.size(), prefix) == 0) {
                it = durable_.erase(it);
            } else {
                ++it;
            }
        }
    }
    deletes_.clear();
}

void PowerLossModel::on_event(bool counts) {
    settle();
    if (!counts) return;
    ++events_;
    if (!crashed_ && crash_at_ > 0 && events_ == crash_at_) {
        crashed_ = true;
        picture_ = take_picture();
    }
}

PowerLossModel::picture PowerLossModel::take_picture() {
    picture p;
    // A path survives when every directory on its way below the root does.
    auto reachable = [this](const std::string& root, const std::string& path, bool dir) {
        if (!dirs_need_parent_sync_) return true;
        for (size_t slash = path.find('/', root.size() + 1); slash != std::string::npos;
             slash = path.find('/', slash + 1)) {
            if (durable_dirs_.count(path.substr(0, slash)) == 0) return false;
        }
        return !dir || durable_dirs_.count(path) != 0;
    };
    for (const std::string& root : roots_) {
        walk(root, [&](const std::string& path, bool dir) {
            if (!reachable(root, path, dir)) return;
            if (dir) {
                p.dirs.push_back(path);
            } else {
                auto it = durable_.find(path);
                p.files[path] = it != durable_.end() ? it->second : std::string();
            }
        });
    }
    return p;
}

int PowerLossModel::on_fault_point(int raw_op, const char* cpath) {
    const dct::fault_op op = static_cast<dct::fault_op>(raw_op);
    const std::string path = cpath != nullptr ? cpath : "";
    std::lock_guard<std::mutex> guard(mutex_);
    // Directory syncs and calls outside the roots are no events of ours, but
    // an anonymous fsync right after them must not be pinned on a file.
    const bool ours = path.empty() || below_roots(path);
    on_event(ours);
    switch (op) {
        case dct::fault_op::open_write:
        case dct::fault_op::write:
            last_path_ = ours ? path : std::string();
            break;
        case dct::fault_op::fsync:
            if (!path.empty()) {
                // A root's own sync counts for the directories made in it.
                const bool root = std::find(roots_.begin(), roots_.end(), path) != roots_.end();
                last_path_ = ours || root ? path : std::string();
                if (ours || root) sync_file(path);
            } else if (!last_path_.empty()) {
                sync_file(last_path_);
            } else {
                ++unattributed_;
            }
            break;
        case dct::fault_op::rename:
        case dct::fault_op::filemove: {
            struct stat st;
            if (ours && lstat(path.c_str(), &st) == 0) moves_.push_back(pending_move{path, st.st_dev, st.st_ino});
            break;
        }
        case dct::fault_op::deletefile:
        case dct::fault_op::deletedir:
        case dct::fault_op::deletetree:
            if (ours) deletes_.push_back(path);
            break;
        default:
            break;
    }
    return 0;
}

void PowerLossModel::restore() {
    dct::set_fault_hook(nullptr);
    SqliteTestVfs::set_hooks(nullptr, nullptr);
    picture p;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        settle();
        p = crashed_ ? picture_ : take_picture();
    }
    for (const std::string& root : roots_) {
        wa_deletetree(root);
        wa_createtree(root, 0755);
    }
    for (const std::string& dir : p.dirs) wa_createtree(dir, 0755);
    for (const auto& f : p.files) write_file(f.first, f.second);
}

}  // namespace kt
