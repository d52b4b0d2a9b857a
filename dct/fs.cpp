#include "dct/fs.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "dct/environment.h"
#include "dct/fault.h"
#include "dct/file_io.h"

namespace {

std::atomic<int> g_case_override{-1};

// Fails with the injected errno, if any; -1 then, like the wrapped call.
#define DCT_FAULT(op, path)                                  \
    do {                                                     \
        if (dct::current_environment().fault_point((op), (path)) != 0) return -1;  \
    } while (0)

// The mode `st` may keep: its permission bits within the private mode of its kind.
mode_t restricted_mode(const struct stat& st) {
    const mode_t limit = S_ISDIR(st.st_mode) ? dct::private_dir_mode : dct::private_file_mode;
    return st.st_mode & 07777 & (limit | ~static_cast<mode_t>(0777));
}

int restrict_stat(const char* path, const struct stat& st) {
    if (S_ISLNK(st.st_mode)) return 0;
    const mode_t wanted = restricted_mode(st);
    if (wanted == (st.st_mode & 07777)) return 0;
    return chmod(path, wanted);
}

// nftw visits one thread at a time, so the first failure can be kept here.
thread_local int t_restrict_errno = 0;

int restrict_entry(const char* path, const struct stat* st, int flag, struct FTW*) {
    if (flag == FTW_NS || flag == FTW_DNR) {
        if (t_restrict_errno == 0) t_restrict_errno = EACCES;
        return 0;
    }
    if (restrict_stat(path, *st) != 0 && t_restrict_errno == 0) t_restrict_errno = errno;
    return 0;
}

int remove_entry(const char* path, const struct stat*, int flag, struct FTW*) {
    if (flag == FTW_DP || flag == FTW_D) return rmdir(path);
    return unlink(path);
}

}  // namespace

int wa_access(const char* path, int mode) { return access(path, mode); }
int wa_access(const std::string& path, int mode) { return wa_access(path.c_str(), mode); }

int wa_stat(const char* path, struct stat* st) { return stat(path, st); }
int wa_stat(const std::string& path, struct stat* st) { return wa_stat(path.c_str(), st); }

DIR* wa_opendir(const char* path) { return opendir(path); }
DIR* wa_opendir(const std::string& path) { return wa_opendir(path.c_str()); }

int wa_createtree(const char* path, mode_t mode) {
    DCT_FAULT(dct::fault_op::createtree, path);
    if (path == nullptr || *path == '\0') {
        errno = ENOENT;
        return -1;
    }
    std::string p(path);
    // Create each missing component from the top down.
    for (size_t pos = 1; pos <= p.size(); ++pos) {
        if (pos != p.size() && p[pos] != '/') continue;
        std::string part = p.substr(0, pos);
        if (part.empty() || part.back() == '/') continue;
        if (mkdir(part.c_str(), mode) != 0) {
            if (errno != EEXIST) return -1;
            struct stat st;
            if (stat(part.c_str(), &st) != 0) return -1;
            if (!S_ISDIR(st.st_mode)) {
                errno = ENOTDIR;
                return -1;
            }
        }
    }
    return 0;
}
int wa_createtree(const std::string& path, mode_t mode) { return wa_createtree(path.c_str(), mode); }

int wa_createtree_synced(const std::string& path, mode_t mode) {
    // The components missing now are the ones whose names must be made
    // durable in their parents once they exist.
    std::vector<std::string> missing;
    for (std::string p = path; !p.empty() && p != "/" && access(p.c_str(), F_OK) != 0;) {
        missing.push_back(p);
        size_t slash = p.find_last_of('/');
        if (slash == std::string::npos) break;
        p = p.substr(0, slash);
    }
    if (wa_createtree(path, mode) != 0) return -1;
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
        size_t slash = it->find_last_of('/');
        const std::string parent = slash == std::string::npos ? "." : slash == 0 ? "/" : it->substr(0, slash);
        if (wa_syncdir(parent) != 0) return -1;
    }
    return 0;
}

bool wa_isdir(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}
bool wa_isdir(const std::string& path) { return wa_isdir(path.c_str()); }

int wa_touch(const char* path) {
    DCT_FAULT(dct::fault_op::touch, path);
    int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, dct::private_file_mode);
    if (fd < 0) return -1;
    int rc = futimens(fd, nullptr);
    int e = errno;
    close(fd);
    errno = e;
    return rc;
}
int wa_touch(const std::string& path) { return wa_touch(path.c_str()); }

int wa_link(const std::string& from, const std::string& to) {
    DCT_FAULT(dct::fault_op::open_write, to.c_str());
    return link(from.c_str(), to.c_str());
}

int wa_rename(const char* from, const char* to) {
    DCT_FAULT(dct::fault_op::rename, from);
    return rename(from, to);
}
int wa_rename(const std::string& from, const std::string& to) { return wa_rename(from.c_str(), to.c_str()); }

int wa_deletefile(const char* path) {
    DCT_FAULT(dct::fault_op::deletefile, path);
    return unlink(path);
}
int wa_deletefile(const std::string& path) { return wa_deletefile(path.c_str()); }

int wa_deletedir(const char* path) {
    DCT_FAULT(dct::fault_op::deletedir, path);
    return rmdir(path);
}
int wa_deletedir(const std::string& path) { return wa_deletedir(path.c_str()); }

int wa_deletetree(const char* path) {
    DCT_FAULT(dct::fault_op::deletetree, path);
    struct stat st;
    if (lstat(path, &st) != 0) return -1;
    if (!S_ISDIR(st.st_mode)) return unlink(path);
    return nftw(path, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}
int wa_deletetree(const std::string& path) { return wa_deletetree(path.c_str()); }

namespace dct {

path_state probe_readable(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        return errno == EACCES || errno == EPERM ? path_state::denied : path_state::missing;
    }
    const bool dir = S_ISDIR(st.st_mode);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | (dir ? O_DIRECTORY : 0));
    if (fd < 0) return errno == EACCES || errno == EPERM ? path_state::denied : path_state::missing;
    close(fd);
    if (dir && faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) != 0) return path_state::denied;
    return path_state::present;
}

const char* path_state_name(path_state state) {
    switch (state) {
        case path_state::present: return "present";
        case path_state::missing: return "missing";
        case path_state::denied: return "denied";
    }
    return "?";
}

}  // namespace dct

int wa_restrict_mode(const std::string& path) {
    DCT_FAULT(dct::fault_op::chmod, path.c_str());
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return -1;
    return restrict_stat(path.c_str(), st);
}

int wa_restrict_tree(const std::string& path) {
    DCT_FAULT(dct::fault_op::chmod, path.c_str());
    t_restrict_errno = 0;
    // Top down (no FTW_DEPTH): a directory is restricted before it is
    // entered, which its owner may still do.
    if (nftw(path.c_str(), restrict_entry, 16, FTW_PHYS) != 0) return -1;
    if (t_restrict_errno != 0) {
        errno = t_restrict_errno;
        return -1;
    }
    return 0;
}

int wa_syncdir(const char* path) {
    DCT_FAULT(dct::fault_op::fsync, path);
    int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -1;
    int rc = safe_fsync(fd);
    int e = errno;
    close(fd);
    errno = e;
    return rc;
}
int wa_syncdir(const std::string& path) { return wa_syncdir(path.c_str()); }

int wa_write_all(int fd, const void* data, size_t length) {
    const char* next = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t n = ::write(fd, next, length);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) {
            errno = EIO;
            return -1;
        }
        next += n;
        length -= static_cast<size_t>(n);
    }
    return 0;
}

int CreateTreeA(const char* path, mode_t mode) { return wa_createtree(path, mode); }
int CreateTreeA(const std::string& path, mode_t mode) { return wa_createtree(path.c_str(), mode); }

int FileMove(const char* from, const char* to) {
    DCT_FAULT(dct::fault_op::filemove, from);
    if (rename(from, to) == 0) return 0;
    if (errno != EXDEV) return -1;
    // Another file system: a copy, synced, with the source's mode as the umask leaves it.
    struct stat st;
    if (stat(from, &st) != 0) return -1;
    dct::copy_options copy;
    copy.mode = st.st_mode & 07777;
    copy.exact_mode = false;
    if (dct::copy_file(from, to, copy, nullptr, nullptr) != CR_STATUS_OK) return -1;
    return unlink(from);
}
int FileMove(const std::string& from, const std::string& to) { return FileMove(from.c_str(), to.c_str()); }

int safe_fsync(int fd) {
    if (dct::current_environment().fault_point(dct::fault_op::fsync, "") != 0) return -1;
    int rc;
    do {
        rc = fsync(fd);
    } while (rc != 0 && errno == EINTR);
    return rc;
}

int safe_ftruncate(int fd, off_t length) {
    if (dct::current_environment().fault_point(dct::fault_op::ftruncate, "") != 0) return -1;
    int rc;
    do {
        rc = ftruncate(fd, length);
    } while (rc != 0 && errno == EINTR);
    return rc;
}

int dct_access(const char* path, int mode) { return access(path, mode); }

char* dctstrcpy(char* dst, const char* src, size_t size) {
    if (dst == nullptr || size == 0) return dst;
    if (src == nullptr) src = "";
    size_t n = strnlen(src, size - 1);
    memcpy(dst, src, n);
    dst[n] = '\0';
    return dst;
}

bool OSIsCaseSensitive() {
    int o = g_case_override.load();
    if (o >= 0) return o != 0;
    return true;
}

void ConvertStringCase(std::string& s) {
    for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
}

namespace dct {
void set_case_sensitive_override(int value) { g_case_override.store(value < 0 ? -1 : (value != 0 ? 1 : 0)); }
}  // namespace dct
