// export_shadow: every database of the pool, each under its directory lock,
// into one directory, then the manifest that names every file.
#include "tool/shadow_export.h"

#include <dirent.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"
#include "catalog_shadow/DirectoryLock.h"
#include "dct/fault.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"
#include "tool/json_text.h"
#include "tool/shadow_export_files.h"
#include "tool/shadow_inspect.h"
#include "tool/shadow_inventory.h"

namespace kshadow {

namespace {

// The pool's database root, from the application root the context was given.
std::string database_root(const CatalogShadowContext& context) {
    return dct::pool_layout::dbroot_of_application_root(context.proxy->app_db_root);
}

// Whether `path` is `root` or lies below it.
bool inside(const std::string& path, const std::string& root) {
    return !root.empty() && path.compare(0, root.size(), root) == 0 &&
           (path.size() == root.size() || path[root.size()] == '/');
}

// Whether the export directory lies in the pool's trees: an export there
// would be walked as part of the pool. Compared as given and with the links
// of its parent resolved.
bool inside_pool(const CatalogShadowContext& context, const std::string& dir) {
    std::vector<std::string> forms{dir};
    const size_t slash = dir.find_last_of('/');
    char* parent = realpath(slash == std::string::npos ? "." : slash == 0 ? "/" : dir.substr(0, slash).c_str(), nullptr);
    if (parent != nullptr) {
        forms.push_back(std::string(parent) + "/" + dir.substr(slash + 1));
        free(parent);
    }
    for (const std::string& form : forms) {
        for (const std::string& root : {context.shadow_path, context.proxy->app_db_root, context.proxy->get_podb_root()}) {
            if (inside(form, root)) return true;
        }
    }
    return false;
}

// Whether `dir` has an entry; false for a missing directory. -1 when it
// cannot be read.
int has_entries(const std::string& dir) {
    DIR* d = wa_opendir(dir);
    if (d == nullptr) return errno == ENOENT ? 0 : -1;
    int found = 0;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) {
            found = 1;
            break;
        }
    }
    closedir(d);
    return found;
}

// Removes what an export wrote below `dir` (and `dir` itself when it made it).
void undo_export(const std::string& dir, bool created) {
    if (created) {
        wa_deletetree(dir);
        return;
    }
    DIR* d = wa_opendir(dir);
    if (d == nullptr) return;
    std::vector<std::string> names;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    }
    closedir(d);
    for (const std::string& name : names) wa_deletetree(dir + "/" + name);
}

// One export: its report, and the first failure that stops it.
class Exporter {
public:
    Exporter(const std::string& dir, ExportReport* report, bool durable)
        : dir_(dir), report_(report), durable_(durable) {}

    bool durable() const { return durable_; }

    bool failed() const { return failure_.status != CR_STATUS_OK; }
    const FileFailure& failure() const { return failure_; }

    // Exports the database of `t` (its directory lock held by the caller).
    void database(const Target& t, const std::string& relative) {
        const std::string chksum = t.shadow_dir + "/" + PODBShadow::chksum_file(t.type);
        if (!readable(chksum)) return;
        uint64_t current = 0;
        ShadowVersionList list;
        std::string reason;
        const cr_status_t status = PODBShadow::read_chksum(t.shadow_dir, t.type, &current, &list, &reason);
        if (status == CR_STATUS_CORRUPT) {
            report_->problems.push_back(Problem{chksum, "checksum file damaged (" + reason + "), not exported"});
            return;
        }
        if (status != CR_STATUS_OK || list.empty()) {
            report_->problems.push_back(Problem{t.shadow_dir, "no version in the shadow, nothing to export"});
            return;
        }
        ExportedDatabase db;
        db.target = t;
        db.relative = relative;
        db.current = current;
        const std::string out = dir_ + "/" + relative;
        if ((durable_ ? wa_createtree_synced(out, dct::private_dir_mode) : wa_createtree(out, dct::private_dir_mode)) !=
                0 ||
            wa_restrict_mode(out) != 0) {
            fail_errno("create", out);
            return;
        }
        if (!copy(t.shadow_dir, PODBShadow::chksum_file(t.type), UINT64_MAX, out, &db)) return;
        for (ShadowVersion& v : list) {
            db.versions.push_back(ExportedVersion{v.version, v.journal_lines});
            if (!version(v, t.shadow_dir, out, &db)) return;
        }
        uint64_t rows = 0;
        db.rows_known = dct::probe_readable(t.db_path) == dct::path_state::present && count_rows(t.type, t.db_path, &rows);
        db.rows = db.rows_known ? rows : 0;
        if (durable_ && wa_syncdir(out) != 0) {
            fail_errno("sync", out);
            return;
        }
        report_->databases.push_back(db);
    }

    // Fails the export for a path that may not be read; true otherwise
    // (there and readable, or missing).
    bool readable(const std::string& path) {
        const dct::path_state state = dct::probe_readable(path);
        if (state == dct::path_state::denied) {
            ErrorA(CR_STATUS_ACCESS_DENIED, "%s: failed to read %s: %s", "export_shadow", path.c_str(), kNotReadable);
            failure_.status = CR_STATUS_ACCESS_DENIED;
            failure_.reason = path + ": " + kNotReadable;
            return false;
        }
        return true;
    }

    void fail_errno(const char* what, const std::string& path) {
        const int e = errno;
        failure_.status = _crMapError("export_shadow", __FILE__, __LINE__);
        failure_.reason = std::string("cannot ") + what + " " + path + ": " + strerror(e);
        ErrorA(failure_.status, "%s: failed to %s %s: %s", "export_shadow", what, path.c_str(), strerror(e));
    }

private:
    // A version's database (linked when it may be) and its journal cut at the
    // recorded line count; a damaged one is exported as it is, with its
    // problem, and the rehearsal of the export passes over it.
    bool version(ShadowVersion& v, const std::string& from_dir, const std::string& out, ExportedDatabase* db) {
        if (!readable(v.db_path) || !readable(v.journal_path)) return false;
        if (wa_access(v.db_path, 0) != 0) {
            report_->problems.push_back(Problem{v.db_path, "version file missing"});
        } else {
            if (!link_or_copy(from_dir, v.db_name, out, db)) return false;
            if (db->files.back().adler32 != v.db_crc) {
                report_->problems.push_back(Problem{v.db_path, "version checksum mismatch"});
            }
        }
        const ShadowVersion::JournalScan scan = v.scan_journal();
        if (!scan.exists) {
            if (v.journal_lines != 0 || v.journal_crc != 1) {
                report_->problems.push_back(Problem{v.journal_path, "journal missing"});
            }
            return true;
        }
        if (scan.effective_crc(v.journal_lines, v.journal_crc) != v.journal_crc) {
            report_->problems.push_back(Problem{v.journal_path, "journal does not match the checksum file"});
        }
        return copy(from_dir, v.journal_name, scan.replayed_bytes(v.journal_lines, v.journal_crc), out, db);
    }

    // The stat of a file to export; false (the export failed) when it has none.
    bool stat_source(const std::string& src, struct stat* st) {
        if (wa_stat(src, st) == 0) return true;
        fail_errno("read", src);
        return false;
    }

    // Copies at most `length` bytes of `from_dir`/`name` to `out`/`name`.
    bool copy(const std::string& from_dir, const std::string& name, uint64_t length, const std::string& out,
              ExportedDatabase* db) {
        const std::string src = from_dir + "/" + name;
        struct stat st;
        if (!stat_source(src, &st)) return false;
        ExportedFile f;
        f.name = name;
        f.size = length < static_cast<uint64_t>(st.st_size) ? length : static_cast<uint64_t>(st.st_size);
        if (copy_prefix(src, st, f.size, out + "/" + name, durable_, &f.adler32, &failure_) != CR_STATUS_OK) {
            return false;
        }
        report_->bytes_copied += f.size;
        db->files.push_back(f);
        return true;
    }

    // Versions never change once in place: a hard link shares the file
    // (when its mode is already the private one), a copy stands in where the
    // file system or the system's link rules refuse one.
    bool link_or_copy(const std::string& from_dir, const std::string& name, const std::string& out,
                      ExportedDatabase* db) {
        const std::string src = from_dir + "/" + name;
        struct stat st;
        if (!stat_source(src, &st)) return false;
        const std::string dst = out + "/" + name;
        if ((st.st_mode & 07777) != dct::private_file_mode) {
            return copy(from_dir, name, UINT64_MAX, out, db);
        }
        if (dct::fault_point(dct::fault_op::open_write, dst.c_str()) != 0 || ::link(src.c_str(), dst.c_str()) != 0) {
            if (errno == EXDEV || errno == EPERM) {
                return copy(from_dir, name, UINT64_MAX, out, db);
            }
            fail_errno("link", dst);
            return false;
        }
        ExportedFile f;
        f.name = name;
        f.linked = true;
        if (file_sum(dst, &f.size, &f.adler32, &failure_) != CR_STATUS_OK) return false;
        report_->bytes_linked += f.size;
        db->files.push_back(f);
        return true;
    }

    std::string dir_;
    ExportReport* report_;
    bool durable_;
    FileFailure failure_;
};

// The shadow directory below the shadow root ("" when it is the root).
std::string relative_to(const std::string& root, const std::string& path) {
    if (inside(path, root)) {
        return path.size() == root.size() ? std::string() : path.substr(root.size() + 1);
    }
    return path;
}

cr_status_t export_all(CatalogShadowContext& context, const std::string& dir, ExportReport* report, Exporter& ex) {
    std::vector<std::string> unreadable;
    const std::vector<Target> targets = find_all_databases(context, &unreadable);
    // A directory that may not be read may hold databases: the export
    // would silently miss them.
    if (!unreadable.empty() && !ex.readable(unreadable.front())) return ex.failure().status;
    for (const Target& t : targets) {
        // A directory that is gone has no one working in it.
        CatalogDirectoryLock lock;
        std::unique_ptr<DirectoryLock::ScopedLock> guard;
        if (wa_isdir(t.dir)) {
            guard.reset(new DirectoryLock::ScopedLock(&lock, t.dir));
            if (guard->GetStatus() != CR_STATUS_OK) {
                ErrorA(guard->GetStatus(), "%s: failed to lock %s", "export_shadow", t.dir.c_str());
                report->reason = "directory lock of " + t.dir + " not taken (status " +
                                 std::to_string(guard->GetStatus()) + ")";
                return guard->GetStatus();
            }
        }
        ex.database(t, relative_to(context.shadow_path, t.shadow_dir));
        if (ex.failed()) return ex.failure().status;
    }
    report->finished = static_cast<int64_t>(time(nullptr));
    FileFailure failure;
    const cr_status_t status =
        write_file_synced(dir, kManifestName, ktool::json_line(manifest_json(*report)) + "\n", ex.durable(), &failure);
    if (status != CR_STATUS_OK) report->reason = failure.reason;
    return status;
}

}  // namespace

cr_status_t export_shadow(CatalogShadowContext& context, const std::string& dir, ExportReport* report,
                          const ExportOptions& options) {
    *report = ExportReport();
    report->dir = dir;
    report->database_root = database_root(context);
    report->pool = report->database_root;
    report->shadow_root = context.shadow_path;
    char host[256] = "";
    if (gethostname(host, sizeof(host) - 1) == 0) report->host = host;
    report->started = static_cast<int64_t>(time(nullptr));

    if (inside_pool(context, dir)) {
        report->reason = dir + " lies inside the pool's database or shadow tree";
        ErrorA(CR_STATUS_FAILED, "%s: %s", "export_shadow", report->reason.c_str());
        return CR_STATUS_FAILED;
    }
    const int entries = has_entries(dir);
    if (entries != 0) {
        const cr_status_t status = entries > 0 ? CR_STATUS_EXISTS : _crMapError("export_shadow", __FILE__, __LINE__);
        report->reason = entries > 0 ? dir + " is not empty" : "cannot read " + dir + ": " + strerror(errno);
        ErrorA(status, "%s: %s", "export_shadow", report->reason.c_str());
        return status;
    }
    const bool created = wa_access(dir, 0) != 0;
    Exporter ex(dir, report, options.durable);
    if (created && (wa_createtree_synced(dir, dct::private_dir_mode) != 0 || wa_restrict_mode(dir) != 0)) {
        ex.fail_errno("create", dir);
        report->reason = ex.failure().reason;
        if (wa_isdir(dir)) wa_deletedir(dir);
        return ex.failure().status;
    }
    cr_status_t status = export_all(context, dir, report, ex);
    if (status != CR_STATUS_OK) {
        if (report->reason.empty()) report->reason = ex.failure().reason;
        undo_export(dir, created);
        report->databases.clear();
    }
    return status;
}

}  // namespace kshadow
