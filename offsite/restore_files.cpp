// The files of an off-site restore: a damaged shadow set aside, the
// export's files placed into a shadow directory.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "catalog_shadow/PODBShadowPool.h"
#include "dct/environment.h"
#include "dct/file_io.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "offsite/restore_internal.h"

namespace koffsite {

namespace {

const char* const kFn = "kavrel-shadow offsite restore";

// Copies `from` to `to` through `to` ".restore" (private, synced, renamed
// over). 0 or errno.
int copy_synced(const std::string& from, const std::string& to) {
    const std::string tmp = to + ".restore";
    dct::file_failure failure;
    if (dct::copy_file(from, tmp, dct::copy_options(), nullptr, &failure) != CR_STATUS_OK) {
        ErrorA(failure.status, "%s: failed to copy %s: %s", kFn, failure.path.c_str(), strerror(failure.error));
        return failure.error;
    }
    if (wa_rename(tmp, to) != 0) {
        const int e = errno;
        wa_deletefile(tmp);
        return e;
    }
    return 0;
}

// The files of `type` in a shadow directory (its checksum file, versions,
// journals and leftovers), bare names.
std::vector<std::string> shadow_files_of(const std::string& dir, const std::string& type) {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> d(opendir(dir.c_str()), closedir);
    if (!d) return names;
    const std::string chksum = PODBShadow::chksum_file(type);
    while (struct dirent* e = readdir(d.get())) {
        const std::string name = e->d_name;
        if (name.compare(0, chksum.size(), chksum) == 0 || name.compare(0, type.size() + 1, type + ".") == 0) {
            names.push_back(name);
        }
    }
    return names;
}

// Moves `from` to `to` when both lie on one file system (the scratch
// directory is beside the shadow root), else copies it; made private and
// synced either way. 0 or errno.
int move_synced(const std::string& from, const std::string& to) {
    if (wa_rename(from, to) != 0) return errno == EXDEV ? copy_synced(from, to) : errno;
    if (wa_restrict_mode(to) != 0) return errno;
    const int fd = open(to.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    const int e = safe_fsync(fd) != 0 ? errno : 0;
    close(fd);
    return e;
}

}  // namespace

// Moves the files of `type` into "#corrupt_TYPE_SECONDS"; the directory's
// name, or "" with `why` set.
std::string set_aside(const std::string& dir, const std::string& type, std::string* why) {
    const std::vector<std::string> names = shadow_files_of(dir, type);
    if (names.empty()) return "";
    const unsigned long now = dct::current_environment().now_ms() / 1000;
    const std::string aside = dir + "/#corrupt_" + type + "_" + std::to_string(now);
    if (wa_createtree(aside, dct::private_dir_mode) != 0 && !wa_isdir(aside)) {
        *why = "cannot create " + aside + ": " + strerror(errno);
        return "";
    }
    for (const std::string& name : names) {
        if (wa_rename(dir + "/" + name, aside + "/" + name) != 0) {
            *why = "cannot move " + dir + "/" + name + " aside: " + strerror(errno);
            return "";
        }
    }
    if (wa_syncdir(dir) != 0) {
        // Set aside all the same; only the move may not survive a power loss.
        const int e = errno;
        ErrorA(_crMapError(kFn, __FILE__, __LINE__), "%s: cannot sync %s: %s", kFn, dir.c_str(), strerror(e));
    }
    return aside;
}

// Places the export's files of one database into its shadow directory, the
// checksum file last so that a crash leaves no file counting what is absent.
bool place_files(const std::string& from, const std::string& to, const kshadow::ExportedDatabase& db,
                 std::string* why) {
    if (!wa_isdir(to) && wa_createtree_synced(to, dct::private_dir_mode) != 0) {
        *why = "cannot create " + to + ": " + strerror(errno);
        return false;
    }
    const std::string chksum = PODBShadow::chksum_file(db.target.type);
    for (int pass = 0; pass < 2; ++pass) {
        for (const auto& f : db.files) {
            if ((f.name == chksum) != (pass == 1)) continue;
            const int e = move_synced(from + "/" + f.name, to + "/" + f.name);
            if (e != 0) {
                *why = "cannot place " + f.name + " into " + to + ": " + strerror(e);
                return false;
            }
        }
    }
    if (wa_syncdir(to) != 0) {
        *why = "cannot sync " + to + ": " + strerror(errno);
        return false;
    }
    return true;
}

}  // namespace koffsite
