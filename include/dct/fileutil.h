// Generic directory walk: TraverseDir calls a functor for every entry below a
// directory, depth first, in the order the system lists them.
#ifndef DCT_FILEUTIL_H_
#define DCT_FILEUTIL_H_

#include <dirent.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "dct/fs.h"
#include "dct/log.h"
#include "dct/status.h"

// One directory entry offered to a walk functor.
struct DirItem {
    std::string fullpath;     // dir + "/" + name
    std::string dir;          // parent directory as given to the walk
    std::string name;         // entry name
    int depth = 0;            // root 0, its entries 1, ...
    bool stat_failed = false; // stat of the entry failed (then not a directory)
    bool is_link = false;     // the entry is a symbolic link
    bool is_dir = false;      // a directory, after following links
};

// Result of a walk: status 0 when every level was walked, else the status that
// stopped it and the path it concerns.
struct TraverseResult {
    cr_status_t status = CR_STATUS_OK;
    std::string path;
};

// Walks `dir`. For every entry but "." and ".." it calls `op(item)`:
//   0  go on, and descend when the entry is a directory and `recursive` is set;
//   >0 go on without descending;
//   <0 abort the whole walk: status 4 with the entry's path.
// A missing `dir` gives status 2 ("Directory %s doesn't exist.", info); one that
// cannot be opened gives the mapped errno ("Failed to open directory %s",
// error). A non-zero status of a sub-walk ends this level with that status, so
// it travels up to the first caller. Links to directories are followed (no loop
// guard: a loop ends when the system no longer resolves the growing path, as too
// many links or too long; that entry's stat fails and it is not entered). The
// directory itself is never offered to `op`.
template <typename Op>
TraverseResult TraverseDir(const std::string& dir, Op op, bool recursive, int depth) {
    TraverseResult result;
    result.status = CR_STATUS_OK;
    result.path = dir;

    if (wa_access(dir, 0) != 0) {
        InfoA(CR_STATUS_MISSING, "Directory %s doesn't exist.", dir.c_str());
        result.status = CR_STATUS_MISSING;
        return result;
    }

    DIR* raw = wa_opendir(dir);
    if (raw == nullptr) {
        result.status = _crMapError("TraverseDir", "include/dct/fileutil", 120);
        ErrorA(result.status, "Failed to open directory %s", dir.c_str());
        return result;
    }
    // Closed when this level ends, also when an exception passes.
    std::shared_ptr<DIR> handle(raw, [](DIR* d) { closedir(d); });

    struct dirent64* entry;
    while ((entry = readdir64(handle.get())) != nullptr) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;

        DirItem item;
        item.fullpath = dir + "/" + entry->d_name;
        item.dir = dir;
        item.name = entry->d_name;
        item.depth = depth + 1;

        char probe[7];
        if (readlink(item.fullpath.c_str(), probe, sizeof(probe)) != -1) item.is_link = true;

        struct stat st;
        if (wa_stat(item.fullpath, &st) != 0) {
            item.stat_failed = true;
        } else {
            item.is_dir = (st.st_mode & 0xF000) == 0x4000;
        }

        int rc = op(item);
        if (rc < 0) {
            result.status = CR_STATUS_FAILED;
            result.path = item.fullpath;
            return result;
        }
        if (recursive && item.is_dir && rc == 0) {
            TraverseResult sub = TraverseDir(item.fullpath, op, recursive, depth + 1);
            if (sub.status != CR_STATUS_OK) return sub;
        }
    }
    return result;
}

#endif  // DCT_FILEUTIL_H_
