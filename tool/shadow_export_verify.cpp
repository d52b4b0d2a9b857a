// read_manifest and verify_export: an export checked on its own, reading only.
#include <dirent.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "tool/json_text.h"
#include "tool/shadow_export.h"
#include "tool/shadow_export_files.h"
#include "tool/shadow_inspect.h"

namespace kshadow {

namespace {

using ktool::json;

// Throws the reason a manifest cannot be read.
struct BadManifest {
    std::string reason;
};

const json& member(const json& object, const char* name) {
    if (!object.is_object() || !object.contains(name)) throw BadManifest{std::string("no \"") + name + "\""};
    return object[name];
}

std::string text_of(const json& object, const char* name) {
    std::string bytes;
    if (!ktool::json_text_bytes(member(object, name), &bytes)) throw BadManifest{std::string("bad \"") + name + "\""};
    return bytes;
}

uint64_t number_of(const json& object, const char* name) {
    const json& value = member(object, name);
    if (!value.is_number_unsigned()) throw BadManifest{std::string("bad \"") + name + "\""};
    return value.get<uint64_t>();
}

int64_t signed_of(const json& object, const char* name) {
    const json& value = member(object, name);
    if (!value.is_number_integer()) throw BadManifest{std::string("bad \"") + name + "\""};
    return value.get<int64_t>();
}

const json& array_of(const json& object, const char* name) {
    const json& value = member(object, name);
    if (!value.is_array()) throw BadManifest{std::string("bad \"") + name + "\""};
    return value;
}

// A path below the export that stays below it: relative, no "." or ".."
// component (a bare name when `bare`).
void check_below(const std::string& path, bool bare) {
    bool ok = !path.empty() && path[0] != '/' && (!bare || path.find('/') == std::string::npos);
    for (size_t start = 0; ok && start <= path.size();) {
        const size_t end = std::min(path.find('/', start), path.size());
        const std::string part = path.substr(start, end - start);
        ok = !part.empty() && part != "." && part != "..";
        start = end + 1;
    }
    if (!ok) throw BadManifest{"path " + path + " leads out of the export"};
}

ExportedDatabase database_of(const std::string& dir, const json& d) {
    ExportedDatabase db;
    db.target.type = text_of(d, "type");
    if (!PODBShadow::is_valid_type(db.target.type)) throw BadManifest{"unknown type " + db.target.type};
    db.target.dir = text_of(d, "dir");
    db.relative = text_of(d, "shadow");
    check_below(db.relative, false);
    db.target.shadow_dir = dir + "/" + db.relative;
    db.target.db_path = text_of(d, "database");
    db.current = number_of(d, "current");
    for (const json& v : array_of(d, "versions")) {
        const uint64_t lines = number_of(v, "journal_lines");
        if (lines > UINT32_MAX) throw BadManifest{"bad \"journal_lines\""};
        db.versions.push_back(ExportedVersion{number_of(v, "version"), static_cast<uint32_t>(lines)});
    }
    for (const json& f : array_of(d, "files")) {
        ExportedFile file;
        file.name = text_of(f, "name");
        check_below(file.name, true);
        file.size = number_of(f, "size");
        const uint64_t sum = number_of(f, "adler32");
        if (sum > UINT32_MAX) throw BadManifest{"bad \"adler32\""};
        file.adler32 = static_cast<uint32_t>(sum);
        db.files.push_back(file);
    }
    const json& rows = member(d, "rows");
    db.rows_known = !rows.is_null();
    if (db.rows_known) db.rows = number_of(d, "rows");
    return db;
}

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
        FileFailure failure;
        if (file_sum(path, &size, &sum, &failure) != CR_STATUS_OK) {
            add(r, path, failure.reason);
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

cr_status_t read_manifest(const std::string& dir, ExportReport* manifest, std::string* reason) {
    *manifest = ExportReport();
    manifest->dir = dir;
    const std::string path = dir + "/" + kManifestName;
    switch (dct::probe_readable(path)) {
        case dct::path_state::missing:
            *reason = "missing: not an export, or an unfinished one";
            InfoA(CR_STATUS_MISSING, "%s: %s %s", "read_manifest", path.c_str(), reason->c_str());
            return CR_STATUS_MISSING;
        case dct::path_state::denied:
            *reason = kNotReadable;
            ErrorA(CR_STATUS_ACCESS_DENIED, "%s: %s %s", "read_manifest", path.c_str(), reason->c_str());
            return CR_STATUS_ACCESS_DENIED;
        case dct::path_state::present: break;
    }
    std::string text;
    reason->clear();
    try {
        if (!read_small_file(path, &text)) throw BadManifest{"cannot be read"};
        const json m = json::parse(text);
        if (number_of(m, "format") != 1) throw BadManifest{"unknown format"};
        manifest->pool = text_of(m, "pool");
        manifest->host = text_of(m, "host");
        manifest->database_root = text_of(m, "database_root");
        manifest->shadow_root = text_of(m, "shadow_root");
        manifest->started = signed_of(m, "started");
        manifest->finished = signed_of(m, "finished");
        for (const json& d : array_of(m, "databases")) manifest->databases.push_back(database_of(dir, d));
    } catch (const BadManifest& bad) {
        *reason = "damaged: " + bad.reason;
    } catch (const json::exception&) {
        *reason = "damaged: not JSON";
    }
    if (!reason->empty()) {
        ErrorA(CR_STATUS_CORRUPT, "%s: %s %s", "read_manifest", path.c_str(), reason->c_str());
        manifest->databases.clear();
        return CR_STATUS_CORRUPT;
    }
    return CR_STATUS_OK;
}

cr_status_t verify_export(const std::string& dir, ExportReport* manifest, std::vector<DatabaseReport>* reports) {
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
        r.target.db_path = db.target.shadow_dir + "/" + PODBShadow::db_file_name(db.target.type);
        check_files(db, &r);
        inspect_database(Depth::verify, &r);
        r.problems.erase(std::remove_if(r.problems.begin(), r.problems.end(),
                                        [&](const Problem& p) {
                                            return p.path == r.target.db_path && p.what == "live database missing";
                                        }),
                         r.problems.end());
        check_versions(db, &r);
        if (db.rows_known && (!r.recovery.rows_known || r.recovery.rows_after != db.rows)) {
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
