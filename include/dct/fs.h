// File-system calls of the platform layer.
//
// The wa_* calls return 0 on success and a non-zero value with errno set on
// failure, like the POSIX calls they wrap. Each consults the fault seam
// (dct/fault.h) first.
#ifndef DCT_FS_H_
#define DCT_FS_H_

#include <dirent.h>
#include <stddef.h>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

int wa_access(const char* path, int mode);
int wa_access(const std::string& path, int mode);
int wa_stat(const char* path, struct stat* st);
int wa_stat(const std::string& path, struct stat* st);
// Opens a directory; null with errno set on failure.
DIR* wa_opendir(const char* path);
DIR* wa_opendir(const std::string& path);
// Creates `path` and every missing parent with `mode`; an existing directory is
// success, an existing non-directory fails with ENOTDIR/EEXIST.
int wa_createtree(const char* path, mode_t mode);
int wa_createtree(const std::string& path, mode_t mode);
// wa_createtree, then syncs the parent of every directory it created, top
// down, so that the new directories survive a power loss. 0, or -1 with errno
// set by the failed step.
int wa_createtree_synced(const std::string& path, mode_t mode);
// True when `path` is a directory (links followed).
bool wa_isdir(const char* path);
bool wa_isdir(const std::string& path);
// Creates an empty file (dct::private_file_mode) when missing and updates its
// time stamps.
int wa_touch(const char* path);
int wa_touch(const std::string& path);
// A hard link `to` of `from`; the fault seam sees it as a file opened for
// writing (open_write on `to`).
int wa_link(const std::string& from, const std::string& to);
int wa_rename(const char* from, const char* to);
int wa_rename(const std::string& from, const std::string& to);
int wa_deletefile(const char* path);
int wa_deletefile(const std::string& path);
// Removes an empty directory.
int wa_deletedir(const char* path);
int wa_deletedir(const std::string& path);
// Removes a directory with everything below it (links are removed, not followed).
int wa_deletetree(const char* path);
int wa_deletetree(const std::string& path);
// Makes a directory's entries (creations, renames, removals) durable.
int wa_syncdir(const char* path);
int wa_syncdir(const std::string& path);

// Same as wa_createtree.
int CreateTreeA(const char* path, mode_t mode);
int CreateTreeA(const std::string& path, mode_t mode);
// Renames; when source and target lie on different file systems, copies
// (synced to disk) and then deletes the source.
int FileMove(const char* from, const char* to);
int FileMove(const std::string& from, const std::string& to);
// write(2) until all `length` bytes of `data` are written, retried on EINTR.
// 0, or -1 with errno set (EIO when the file takes no more bytes).
int wa_write_all(int fd, const void* data, size_t length);
// fsync, retried on EINTR.
int safe_fsync(int fd);
// ftruncate, retried on EINTR.
int safe_ftruncate(int fd, off_t length);
int dct_access(const char* path, int mode);
// Copies at most size - 1 characters and always NUL-terminates (size > 0).
char* dctstrcpy(char* dst, const char* src, size_t size);
// Whether file names are case-sensitive (true on Linux unless a test overrides it).
bool OSIsCaseSensitive();
// Folds `s` to lower case in place (ASCII letters).
void ConvertStringCase(std::string& s);

namespace dct {
// The most that the catalog and its shadow give away: the owner and the
// owner's group may read, others nothing (a catalog names every client, file
// and owner of the pool). Every directory and file they create is made with
// these modes, so that a umask can only take more away.
const mode_t private_dir_mode = 0750;
const mode_t private_file_mode = 0640;
}  // namespace dct

// Takes from `path` (a link is not followed) every permission bit beyond
// dct::private_dir_mode for a directory, dct::private_file_mode for anything
// else; a mode already within them is left alone. 0, or -1 with errno set.
int wa_restrict_mode(const std::string& path);
// wa_restrict_mode for `path` and, when it is a directory, everything below
// it (links are not followed). Goes on past a failure; 0, or -1 with errno
// set by the first one.
int wa_restrict_tree(const std::string& path);

namespace dct {
// What a reader finds at a path.
enum class path_state {
    present,  // there, and readable by this process
    missing,  // it, or a directory on the way, does not exist
    denied,   // there (or not known to be missing), but the system refuses
              // this process access to it or to a directory on the way
};
// Probes `path` as a reader would use it: a directory is opened and must be
// searchable, any other file is opened for reading. Changes nothing.
path_state probe_readable(const std::string& path);
// The words for a path in the state denied.
constexpr char not_readable_text[] = "not readable (permission denied)";
// "present", "missing" or "denied".
const char* path_state_name(path_state state);

// Test seam: 1 or 0 forces OSIsCaseSensitive(), -1 restores the real answer.
void set_case_sensitive_override(int value);
}  // namespace dct

#endif  // DCT_FS_H_
