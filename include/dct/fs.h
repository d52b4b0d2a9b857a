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
// Creates an empty file when missing and updates its time stamps.
int wa_touch(const char* path);
int wa_touch(const std::string& path);
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
// Test seam: 1 or 0 forces OSIsCaseSensitive(), -1 restores the real answer.
void set_case_sensitive_override(int value);
}  // namespace dct

#endif  // DCT_FS_H_
