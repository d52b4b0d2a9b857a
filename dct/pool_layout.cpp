#include "dct/pool_layout.h"

#include <stdlib.h>

namespace dct {
namespace pool_layout {

const char kDatabasesDir[] = "databases";
const char kPoDir[] = "po";
const char kApplicationDir[] = "application";

const char kPoDbFile[] = "po.db";
const char kUlDbFile[] = "ul.db";
const char kAppDbFile[] = "app.db";

const char kPodbType[] = "podb";
const char kUldbType[] = "uldb";
const char kAppdbType[] = "appdb";

const char kShadowRootName[] = "catalogshadow";
const char kIdentityFile[] = ".catalog_shadow_identity";
const char kRunRecordFile[] = ".catalog_shadow_runs";

namespace {

bool starts_with(const std::string& text, const std::string& prefix) {
    return !prefix.empty() && text.compare(0, prefix.size(), prefix) == 0;
}

// "/" NAME "/" NAME ...: the tail below DBROOT of one of the real trees.
std::string below(const char* first, const char* second) { return std::string("/") + first + "/" + second; }

}  // namespace

const char* db_file_of_type(const std::string& type) {
    if (type == kPodbType) return kPoDbFile;
    if (type == kUldbType) return kUlDbFile;
    if (type == kAppdbType) return kAppDbFile;
    return "";
}

std::string db_file_in(const std::string& dir, const std::string& type) {
    return dir + "/" + db_file_of_type(type);
}

std::string databases_dir(const std::string& dbroot) { return dbroot + "/" + kDatabasesDir; }

std::string po_root(const std::string& dbroot) { return dbroot + below(kDatabasesDir, kPoDir); }

std::string application_root(const std::string& dbroot) { return dbroot + below(kDatabasesDir, kApplicationDir); }

std::string dbroot_of_application_root(const std::string& app_root) {
    const std::string tail = below(kDatabasesDir, kApplicationDir);
    if (app_root.size() >= tail.size() && app_root.compare(app_root.size() - tail.size(), tail.size(), tail) == 0) {
        return app_root.substr(0, app_root.size() - tail.size());
    }
    return app_root;
}

std::string application_store(const std::string& databases, uint32_t dsid) {
    return databases + "/" + kApplicationDir + "/" + std::to_string(dsid);
}

std::string catalog_dir(const std::string& store, const std::string& client, const std::string& policy) {
    return store + "/" + client + "/" + policy;
}

std::string catalog_dir(const std::string& databases, uint32_t dsid, const std::string& client,
                        const std::string& policy) {
    return catalog_dir(application_store(databases, dsid), client, policy);
}

catalog_dir_error split_catalog_dir(const std::string& path, catalog_dir_parts* parts) {
    const std::string databases_mark = std::string("/") + kDatabasesDir + "/";
    const size_t mark = path.rfind(databases_mark);
    if (mark == std::string::npos) return catalog_dir_error::no_databases;

    // DBROOT/databases, without the slash after it.
    parts->databases = path.substr(0, mark + databases_mark.size() - 1);
    parts->application = parts->databases + "/" + kApplicationDir;
    if (path.rfind(parts->application) == std::string::npos) return catalog_dir_error::no_application;

    // The application root is a prefix of the path by construction, so the
    // data-store id starts one past its end, after a "/".
    const size_t start = parts->application.size() + 1;
    if (start >= path.size() || path[start - 1] != '/') return catalog_dir_error::no_store_below;

    parts->dsid = static_cast<uint32_t>(atol(path.c_str() + start));

    const size_t dsid_end = path.find('/', start);
    if (dsid_end == std::string::npos) return catalog_dir_error::no_store_end;
    const size_t client_end = path.find('/', dsid_end + 1);
    if (client_end == std::string::npos) return catalog_dir_error::no_client_end;
    if (path.find('/', client_end + 1) != std::string::npos) return catalog_dir_error::below_policy;

    parts->client = path.substr(dsid_end + 1, client_end - dsid_end - 1);
    parts->policy = path.substr(client_end + 1);
    return catalog_dir_error::none;
}

std::string default_shadow_root(const std::string& storage) { return storage + "/" + kShadowRootName; }

namespace {

// ROOT "/" NAME, without a second "/" when ROOT ends in one.
std::string file_in_root(const std::string& root, const char* name) {
    std::string file = root;
    if (file.empty() || file[file.size() - 1] != '/') file += "/";
    return file + name;
}

}  // namespace

std::string identity_file(const std::string& shadow_root) { return file_in_root(shadow_root, kIdentityFile); }

std::string run_record_file(const std::string& shadow_root) { return file_in_root(shadow_root, kRunRecordFile); }

real_tree tree_of(const std::string& real, const std::string& po_root, const std::string& app_root) {
    if (starts_with(real, po_root)) return real_tree::po;
    if (starts_with(real, app_root)) return real_tree::application;
    return real_tree::none;
}

bool real_to_shadow(const std::string& real, const std::string& po_root, const std::string& app_root,
                    const std::string& shadow_root, std::string* shadow) {
    const real_tree tree = tree_of(real, po_root, app_root);
    if (tree == real_tree::none) return false;
    const std::string& root = tree == real_tree::po ? po_root : app_root;
    *shadow = shadow_root + real.substr(root.size());
    return true;
}

bool shadow_to_real(const std::string& shadow, const std::string& type, const std::string& po_root,
                    const std::string& app_root, const std::string& shadow_root, std::string* real) {
    if (!starts_with(shadow, shadow_root)) return false;
    const std::string& root = type == kAppdbType ? app_root : po_root;
    *real = root + shadow.substr(shadow_root.size());
    return true;
}

}  // namespace pool_layout
}  // namespace dct
