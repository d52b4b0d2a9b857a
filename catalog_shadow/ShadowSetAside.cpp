// The set-aside (ShadowSetAside.h): the move of one file and PODBShadow's
// operations built on it. Nothing is ever deleted: files are moved into
// "#corrupt_<type>_<seconds>" below the shadow directory.
#include <dirent.h>
#include <errno.h>
#include <string.h>

#include "catalog_shadow/ShadowSetAside.h"
#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/environment.h"
#include "dct/fileutil.h"
#include "dct/fs.h"
#include "dct/log.h"

namespace {

// `dir` "/" `name`, or with ".1", ".2", ... appended when that is taken (two
// set-asides within one second share a directory).
std::string free_target(const std::string& dir, const std::string& name) {
    std::string target = dir + "/" + name;
    for (unsigned n = 1; wa_access(target, 0) == 0; ++n) target = dir + "/" + name + "." + std::to_string(n);
    return target;
}

std::string base_name(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Walk filter: offers to `op` only the regular files of one type (see
// PODBShadow::is_type_file); never descends.
template <typename Op>
class OpFilterShadowType {
public:
    OpFilterShadowType(const std::string& type, Op& op) : type_(type), op_(op) {}
    int operator()(const DirItem& item) {
        if (item.is_dir || item.stat_failed) return 1;
        if (!PODBShadow::is_type_file(item.name, type_)) return 1;
        int rc = op_(item);
        return rc < 0 ? rc : 1;
    }

private:
    std::string type_;
    Op& op_;
};

}  // namespace

int OpMoveFile::operator()(const DirItem& item) {
    const std::string target = free_target(target_dir_, item.name);
    __TraceA("Move %s to %s", item.fullpath.c_str(), target.c_str());
    if (FileMove(item.fullpath, target) != 0) {
        int e = errno;
        cr_status_t status = _crMapError("operator()", __FILE__, __LINE__);
        ErrorA(status, "%s: could not move %s to %s (%s)", "operator()", item.fullpath.c_str(), target.c_str(),
               strerror(e));
        return -1;
    }
    // What is set aside is as private as the shadow it lies in (a live
    // database's journal comes with SQLite's wider mode).
    if (wa_restrict_mode(target) != 0) {
        int e = errno;
        WarningA(_crMapError("operator()", __FILE__, __LINE__), "%s: could not restrict the mode of %s (%s)",
                 "operator()", target.c_str(), strerror(e));
    }
    return 0;
}

cr_status_t PODBShadow::new_backup_dir(const std::string& type, std::string* dir) {
    // Seconds since the epoch by the clock of the environment at work.
    const unsigned long seconds = dct::current_environment().now_ms() / 1000UL;
    const std::string path = shadow_dir_ + "/" + _corrupt_prefix_ + type + "_" + std::to_string(seconds);
    if (wa_createtree_synced(path, dct::private_dir_mode) != 0) {
        int e = errno;
        cr_status_t status = _crMapError("new_backup_dir", __FILE__, __LINE__);
        ErrorA(status, "Failed to create directory %s (%s)", path.c_str(), strerror(e));
        return status;
    }
    __TraceA("Create directory %s for backup", path.c_str());
    if (dir != nullptr) *dir = path;
    return CR_STATUS_OK;
}

cr_status_t PODBShadow::move_file_as_backup(const std::string& type, const std::string& file) {
    std::string dir;
    cr_status_t status = new_backup_dir(type, &dir);
    if (status != CR_STATUS_OK) return status;
    InfoA(CR_STATUS_OK, "Move file %s to %s", file.c_str(), dir.c_str());
    DirItem item;
    item.fullpath = file;
    item.name = base_name(file);
    OpMoveFile mover(dir);
    if (mover(item) < 0) {
        status = *__cr_errno_location();
        ErrorA(status, "Failed to backup files %s", file.c_str());
        return status;
    }
    return CR_STATUS_OK;
}

cr_status_t PODBShadow::move_all_as_backup(const std::string& type) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    // Nothing of the type there: no empty backup directory either.
    bool any = false;
    if (DIR* d = wa_opendir(shadow_dir_)) {
        while (struct dirent* entry = readdir(d)) {
            if (is_type_file(entry->d_name, type)) {
                any = true;
                break;
            }
        }
        closedir(d);
    }
    if (!any) return CR_STATUS_OK;

    std::string dir;
    cr_status_t status = new_backup_dir(type, &dir);
    if (status != CR_STATUS_OK) return status;
    InfoA(CR_STATUS_OK, "Move all files in %s to %s.", shadow_dir_.c_str(), dir.c_str());
    OpMoveFile mover(dir);
    OpFilterShadowType<OpMoveFile> filter(type, mover);
    TraverseResult result = TraverseDir(shadow_dir_, filter, false, 0);
    if (result.status != CR_STATUS_OK) {
        ErrorA(result.status, "%s: failed to move files in %s to %s.", "move_all_as_backup", shadow_dir_.c_str(),
               dir.c_str());
        return result.status;
    }
    return CR_STATUS_OK;
}
