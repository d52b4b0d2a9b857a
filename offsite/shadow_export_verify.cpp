// verify_export: an export checked on its own, reading only.
#include <dirent.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/file_io.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"
#include "offsite/shadow_export.h"
#include "offsite/shadow_inspect.h"

namespace kshadow {

namespace {

void add(DatabaseReport* r, const std::string& path, const std::string& what) {
    r->problems.push_back(Problem{path, what});
}

// Each file the manifest names against its size and checksum.
void check_files(const ExportedDatabase& db, DatabaseReport* r) {
    for (const ExportedFile& f : db.files) {
        const std::string path = db.target.shadow_dir + "/" + f.name;
        switch (dct::probe_readable(path)) {
            case dct::path_state::missing: add(r, path, "missing from the export"); continue;
            case dct::path_state::denied: r->problems.push_back(not_readable_problem(path)); continue;
            case dct::path_state::present: break;
        }
        uint64_t size = 0;
        uint32_t sum = 1;
        dct::file_failure failure;
        if (dct::sum_file(path, &size, &sum, &failure) != CR_STATUS_OK) {
            ErrorA(failure.status, "%s: failed to read %s: %s", "file_sum", path.c_str(), strerror(failure.error));
            add(r, path, "cannot read " + path + ": " + strerror(failure.error));
        } else if (size != f.size) {
            add(r, path, std::to_string(size) + " bytes, the manifest says " + std::to_string(f.size));
        } else if (sum != f.adler32) {
            add(r, path, "checksum does not match the manifest");
        }
    }
}

// The export's checksum file against the manifest's versions.
void check_versions(const ExportedDatabase& db, DatabaseReport* r) {
    uint64_t current = 0;
    ShadowVersionList list;
    std::string reason;
    if (PODBShadow::read_chksum(db.target.shadow_dir, db.target.type, &current, &list, &reason) != CR_STATUS_OK) {
        return;  // the inspection names the damage
    }
    bool agree = current == db.current && list.size() == db.versions.size();
    auto v = db.versions.begin();
    for (auto it = list.begin(); agree && it != list.end(); ++it, ++v) {
        agree = it->version == v->version && it->journal_lines == v->journal_lines;
    }
    if (!agree) {
        add(r, db.target.shadow_dir + "/" + PODBShadow::chksum_file(db.target.type),
            "checksum file does not agree with the manifest's versions");
    }
}

// Files below `dir` (recursively), as paths.
void list_files(const std::string& dir, std::vector<std::string>* files) {
    DIR* d = wa_opendir(dir);
    if (d == nullptr) return;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        const std::string path = dir + "/" + e->d_name;
        struct stat st;
        if (lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            list_files(path, files);
        } else {
            files->push_back(path);
        }
    }
    closedir(d);
}

}  // namespace

cr_status_t verify_export(const std::string& dir, ExportReport* manifest, std::vector<DatabaseReport>* reports,
                          Depth depth) {
    reports->clear();
    std::string reason;
    const cr_status_t status = read_manifest(dir, manifest, &reason);
    if (status != CR_STATUS_OK) {
        manifest->reason = reason;
        return status;
    }
    std::set<std::string> named{dir + "/" + kManifestName};
    std::map<std::string, size_t> report_of_dir;
    for (const ExportedDatabase& db : manifest->databases) {
        DatabaseReport r;
        r.target = db.target;
        // No live file in an export: the inspection plans and rehearses a
        // recovery from the export's own versions.
        r.target.db_path = dct::pool_layout::db_file_in(db.target.shadow_dir, db.target.type);
        check_files(db, &r);
        inspect_database(depth, &r);
        r.problems.erase(std::remove_if(r.problems.begin(), r.problems.end(),
                                        [&](const Problem& p) {
                                            return p.path == r.target.db_path && p.what == "live database missing";
                                        }),
                         r.problems.end());
        check_versions(db, &r);
        if (depth != Depth::status && db.rows_known && (!r.recovery.rows_known || r.recovery.rows_after != db.rows)) {
            add(&r, db.target.shadow_dir,
                "the recovery gives " + (r.recovery.rows_known ? std::to_string(r.recovery.rows_after) : "no") +
                    " rows, the manifest says " + std::to_string(db.rows));
        }
        for (const ExportedFile& f : db.files) named.insert(db.target.shadow_dir + "/" + f.name);
        report_of_dir[db.target.shadow_dir] = reports->size();
        reports->push_back(r);
    }
    std::vector<std::string> files;
    list_files(dir, &files);
    std::sort(files.begin(), files.end());
    for (const std::string& path : files) {
        if (named.count(path) != 0) continue;
        const auto owner = report_of_dir.find(path.substr(0, path.rfind('/')));
        const Problem extra{path, "not named in the manifest"};
        if (owner != report_of_dir.end()) {
            (*reports)[owner->second].problems.push_back(extra);
        } else {
            manifest->problems.push_back(extra);
        }
    }
    return CR_STATUS_OK;
}

}  // namespace kshadow
