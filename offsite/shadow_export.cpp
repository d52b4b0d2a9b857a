// export_shadow: every database of the pool, each under its directory lock,
// into one directory, then the manifest that names every file.
#include "offsite/shadow_export.h"

#include <dirent.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "catalog_shadow/ConfigFileShadowProxy.h"
#include "catalog_shadow/DirectoryLock.h"
#include "catalog_shadow/ShadowExport.h"
#include "dct/environment.h"
#include "dct/file_io.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"
#include "offsite/shadow_inspect.h"
#include "offsite/shadow_inventory.h"

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

// Removes `path` with everything below it; a failure is logged (the export
// failed already, this is its clean-up).
void remove_tree(const std::string& path) {
    if (wa_deletetree(path) == 0 || errno == ENOENT) return;
    const int e = errno;
    ErrorA(_crMapError("export_shadow", __FILE__, __LINE__), "%s: cannot remove %s: %s", "export_shadow",
           path.c_str(), strerror(e));
}

// Removes what an export wrote below `dir` (and `dir` itself when it made it).
void undo_export(const std::string& dir, bool created) {
    if (created) {
        remove_tree(dir);
        return;
    }
    DIR* d = wa_opendir(dir);
    if (d == nullptr) return;
    std::vector<std::string> names;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    }
    closedir(d);
    for (const std::string& name : names) remove_tree(dir + "/" + name);
}

// The shadow directory below the shadow root ("" when it is the root).
std::string relative_to(const std::string& root, const std::string& path) {
    if (inside(path, root)) {
        return path.size() == root.size() ? std::string() : path.substr(root.size() + 1);
    }
    return path;
}

// Fails the export with errno as the failed step left it.
cr_status_t fail_errno(const char* what, const std::string& path, ExportReport* report) {
    const int e = errno;
    const cr_status_t status = _crMapError("export_shadow", __FILE__, __LINE__);
    report->reason = std::string("cannot ") + what + " " + path + ": " + strerror(e);
    ErrorA(status, "%s: failed to %s %s: %s", "export_shadow", what, path.c_str(), strerror(e));
    return status;
}

// Exports one database (its shadow through the shadow library) and counts
// its live rows, both under its directory lock.
cr_status_t export_database(const Target& t, const std::string& relative, const std::string& dir, bool durable,
                            ExportReport* report) {
    // A directory that is gone has no one working in it.
    CatalogDirectoryLock lock;
    std::unique_ptr<DirectoryLock::ScopedLock> guard;
    if (wa_isdir(t.dir)) {
        guard.reset(new DirectoryLock::ScopedLock(&lock, t.dir));
        if (guard->GetStatus() != CR_STATUS_OK) {
            ErrorA(guard->GetStatus(), "%s: failed to lock %s", "export_shadow", t.dir.c_str());
            report->reason =
                "directory lock of " + t.dir + " not taken (status " + std::to_string(guard->GetStatus()) + ")";
            return guard->GetStatus();
        }
    }
    ShadowExportOptions options;
    options.durable = durable;
    ShadowExport shadow;
    const cr_status_t status =
        export_database_shadow(t.dir, t.shadow_dir, t.type, dir + "/" + relative, options, &shadow);
    for (const ShadowExportProblem& p : shadow.problems) report->problems.push_back(Problem{p.path, p.what});
    report->bytes_linked += shadow.bytes_linked;
    report->bytes_copied += shadow.bytes_copied;
    if (status != CR_STATUS_OK) {
        report->reason = shadow.reason;
        return status;
    }
    if (!shadow.exported) return CR_STATUS_OK;
    ExportedDatabase db;
    db.target = t;
    db.relative = relative;
    db.current = shadow.current;
    db.versions = shadow.versions;
    db.files = shadow.files;
    uint64_t rows = 0;
    db.rows_known =
        dct::probe_readable(t.db_path) == dct::path_state::present && count_rows(t.type, t.db_path, &rows);
    db.rows = db.rows_known ? rows : 0;
    report->databases.push_back(db);
    return CR_STATUS_OK;
}

cr_status_t export_all(CatalogShadowContext& context, const std::string& dir, bool durable, ExportReport* report) {
    std::vector<std::string> unreadable;
    const std::vector<Target> targets = find_all_databases(context, &unreadable);
    // A directory that may not be read may hold databases: the export
    // would silently miss them.
    if (!unreadable.empty()) {
        ErrorA(CR_STATUS_ACCESS_DENIED, "%s: failed to read %s: %s", "export_shadow", unreadable.front().c_str(),
               kNotReadable);
        report->reason = unreadable.front() + ": " + kNotReadable;
        return CR_STATUS_ACCESS_DENIED;
    }
    for (const Target& t : targets) {
        const cr_status_t status =
            export_database(t, relative_to(context.shadow_path, t.shadow_dir), dir, durable, report);
        if (status != CR_STATUS_OK) return status;
    }
    report->finished = static_cast<int64_t>(dct::current_environment().now_ms() / 1000);
    dct::atomic_write_options options;
    options.sync = durable;
    dct::file_failure failure;
    const cr_status_t status =
        dct::write_file_atomic(dir, dir + "/" + kManifestName, manifest_text(*report) + "\n", options, &failure);
    if (status != CR_STATUS_OK) {
        const char* what = failure.step == dct::file_step::create     ? "create"
                           : failure.step == dct::file_step::rename   ? "rename"
                           : failure.step == dct::file_step::sync_dir ? "sync"
                                                                      : "write";
        errno = failure.error;
        report->reason = std::string("cannot ") + what + " " + failure.path + ": " + strerror(failure.error);
        ErrorA(status, "%s: failed to %s %s: %s", "write_file_synced", what, failure.path.c_str(),
               strerror(failure.error));
    }
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
    report->started = static_cast<int64_t>(dct::current_environment().now_ms() / 1000);

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
    if (created && dct::create_private_tree(dir, true) != 0) {
        const cr_status_t status = fail_errno("create", dir, report);
        if (wa_isdir(dir)) remove_tree(dir);
        return status;
    }
    const cr_status_t status = export_all(context, dir, options.durable, report);
    if (status != CR_STATUS_OK) {
        undo_export(dir, created);
        report->databases.clear();
    }
    return status;
}

cr_status_t probe_export_dir(const std::string& dir, std::string* why) {
    switch (dct::probe_readable(dir)) {
        case dct::path_state::missing: *why = dir + " does not exist"; return CR_STATUS_MISSING;
        case dct::path_state::denied: *why = dir + ": " + kNotReadable; return CR_STATUS_ACCESS_DENIED;
        case dct::path_state::present: break;
    }
    if (!wa_isdir(dir)) {
        *why = dir + " is not a directory";
        return CR_STATUS_FAILED;
    }
    return CR_STATUS_OK;
}

}  // namespace kshadow
