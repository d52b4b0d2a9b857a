// The manifest of an export: written by export_shadow, read back by
// read_manifest (and so by verify_export), both by the layout documented in
// offsite/shadow_export.h. Nothing here throws: a damaged manifest is a
// status with its reason.
#include <stdint.h>

#include <algorithm>
#include <string>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "offsite/json_text.h"
#include "offsite/shadow_export.h"

namespace kshadow {

const char* const kManifestName = "MANIFEST.json";

namespace {

using ktool::json;
using ktool::json_text;

// Reads the members of a manifest, remembering the first that is missing or
// of the wrong kind: after it every read gives an empty value, and status()
// and reason() say what was wrong.
class ManifestReader {
public:
    cr_status_t status() const { return reason_.empty() ? CR_STATUS_OK : CR_STATUS_CORRUPT; }
    const std::string& reason() const { return reason_; }

    // Marks the manifest damaged (the first reason counts).
    void bad(const std::string& reason) {
        if (reason_.empty()) reason_ = reason;
    }

    const json& member(const json& object, const char* name) {
        if (!object.is_object() || !object.contains(name)) {
            bad(std::string("no \"") + name + "\"");
            return null_;
        }
        return object[name];
    }

    std::string text_of(const json& object, const char* name) {
        std::string bytes;
        const json& value = member(object, name);
        if (status() == CR_STATUS_OK && !ktool::json_text_bytes(value, &bytes)) bad(bad_member(name));
        return bytes;
    }

    uint64_t number_of(const json& object, const char* name, uint64_t limit = UINT64_MAX) {
        const json& value = member(object, name);
        if (status() != CR_STATUS_OK) return 0;
        if (!value.is_number_unsigned() || value.get<uint64_t>() > limit) {
            bad(bad_member(name));
            return 0;
        }
        return value.get<uint64_t>();
    }

    int64_t signed_of(const json& object, const char* name) {
        const json& value = member(object, name);
        if (status() != CR_STATUS_OK) return 0;
        if (!value.is_number_integer()) {
            bad(bad_member(name));
            return 0;
        }
        return value.get<int64_t>();
    }

    const json& array_of(const json& object, const char* name) {
        const json& value = member(object, name);
        if (status() == CR_STATUS_OK && value.is_array()) return value;
        bad(bad_member(name));
        return empty_;
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
        if (!ok && status() == CR_STATUS_OK) bad("path " + path + " leads out of the export");
    }

private:
    static std::string bad_member(const char* name) { return std::string("bad \"") + name + "\""; }

    std::string reason_;
    const json null_;
    const json empty_ = json::array();
};

ExportedDatabase database_of(const std::string& dir, const json& d, ManifestReader& in) {
    ExportedDatabase db;
    db.target.type = in.text_of(d, "type");
    if (in.status() == CR_STATUS_OK && !PODBShadow::is_valid_type(db.target.type)) {
        in.bad("unknown type " + db.target.type);
    }
    db.target.dir = in.text_of(d, "dir");
    db.relative = in.text_of(d, "shadow");
    if (in.status() == CR_STATUS_OK) in.check_below(db.relative, false);
    db.target.shadow_dir = dir + "/" + db.relative;
    db.target.db_path = in.text_of(d, "database");
    db.current = in.number_of(d, "current");
    for (const json& v : in.array_of(d, "versions")) {
        const uint64_t lines = in.number_of(v, "journal_lines", UINT32_MAX);
        db.versions.push_back(ExportedVersion{in.number_of(v, "version"), static_cast<uint32_t>(lines)});
    }
    for (const json& f : in.array_of(d, "files")) {
        ExportedFile file;
        file.name = in.text_of(f, "name");
        if (in.status() == CR_STATUS_OK) in.check_below(file.name, true);
        file.size = in.number_of(f, "size");
        file.adler32 = static_cast<uint32_t>(in.number_of(f, "adler32", UINT32_MAX));
        db.files.push_back(file);
    }
    const json& rows = in.member(d, "rows");
    db.rows_known = in.status() == CR_STATUS_OK && !rows.is_null();
    if (db.rows_known) db.rows = in.number_of(d, "rows");
    return db;
}

}  // namespace

std::string manifest_text(const ExportReport& r) {
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
    return ktool::json_line(m);
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
    ManifestReader in;
    json m;
    if (!read_small_file(path, &text)) {
        in.bad("cannot be read");
    } else {
        m = json::parse(text, nullptr, false);
        if (m.is_discarded()) in.bad("not JSON");
    }
    if (in.number_of(m, "format") != 1) in.bad("unknown format");
    manifest->pool = in.text_of(m, "pool");
    manifest->host = in.text_of(m, "host");
    manifest->database_root = in.text_of(m, "database_root");
    manifest->shadow_root = in.text_of(m, "shadow_root");
    manifest->started = in.signed_of(m, "started");
    manifest->finished = in.signed_of(m, "finished");
    for (const json& d : in.array_of(m, "databases")) {
        if (in.status() != CR_STATUS_OK) break;
        manifest->databases.push_back(database_of(dir, d, in));
    }
    if (in.status() != CR_STATUS_OK) *reason = "damaged: " + in.reason();
    if (!reason->empty()) {
        ErrorA(CR_STATUS_CORRUPT, "%s: %s %s", "read_manifest", path.c_str(), reason->c_str());
        manifest->databases.clear();
        return CR_STATUS_CORRUPT;
    }
    return CR_STATUS_OK;
}

}  // namespace kshadow
