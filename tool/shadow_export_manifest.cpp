// The manifest of an export: written by export_shadow, read back by
// read_manifest (and so by verify_export), both by the layout documented in
// tool/shadow_export.h.
#include <stdint.h>

#include <algorithm>
#include <string>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "tool/json_text.h"
#include "tool/shadow_export.h"

namespace kshadow {

const char* const kManifestName = "MANIFEST.json";

namespace {

using ktool::json;
using ktool::json_text;

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

}  // namespace

json manifest_json(const ExportReport& r) {
    json m = json::object();
    m["format"] = 1;
    m["pool"] = json_text(r.pool);
    m["host"] = json_text(r.host);
    m["database_root"] = json_text(r.database_root);
    m["shadow_root"] = json_text(r.shadow_root);
    m["started"] = r.started;
    m["finished"] = r.finished;
    json databases = json::array();
    uint64_t rows = 0, files = 0, bytes = 0;
    for (const ExportedDatabase& db : r.databases) {
        json d = json::object();
        d["type"] = json_text(db.target.type);
        d["dir"] = json_text(db.target.dir);
        d["shadow"] = json_text(db.relative);
        d["database"] = json_text(db.target.db_path);
        d["current"] = db.current;
        json versions = json::array();
        for (const ExportedVersion& v : db.versions) {
            versions.push_back(json{{"version", v.version}, {"journal_lines", v.journal_lines}});
        }
        d["versions"] = versions;
        json list = json::array();
        for (const ExportedFile& f : db.files) {
            list.push_back(json{{"name", json_text(f.name)}, {"size", f.size}, {"adler32", f.adler32}});
            ++files;
            bytes += f.size;
        }
        d["files"] = list;
        d["rows"] = db.rows_known ? json(db.rows) : json();
        rows += db.rows;
        databases.push_back(d);
    }
    m["databases"] = databases;
    m["summary"] = json{{"databases", r.databases.size()}, {"rows", rows}, {"files", files}, {"bytes", bytes}};
    return m;
}

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

}  // namespace kshadow
