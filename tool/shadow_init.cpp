#include "tool/shadow_init.h"

#include <dirent.h>
#include <string.h>

#include "dct/fs.h"
#include "tool/json_text.h"
#include "tool/shadow_report.h"

namespace kshadow {

namespace {

// The first entry of `dir` other than "." , ".." and `allowed`; "" when none
// (or when `dir` cannot be listed: the creation will say why).
std::string first_other_entry(const std::string& dir, const std::string& allowed) {
    std::string found;
    DIR* d = wa_opendir(dir);
    if (d == nullptr) return found;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0 || allowed == e->d_name) continue;
        found = e->d_name;
        break;
    }
    closedir(d);
    return found;
}

const char* on_off(bool on) { return on ? "on" : "off"; }

}  // namespace

cr_status_t init_shadow_root(CatalogShadowContext& context, InitReport* r) {
    r->config_file = context.proxy ? context.proxy->get_config_file() : std::string();
    r->app_db_root = context.proxy ? context.proxy->app_db_root : std::string();
    r->podb_root = context.proxy ? context.proxy->get_podb_root() : std::string();
    if (context.load_configurations() != CR_STATUS_OK) {
        r->result = "refused";
        r->reason = "the configuration names no [Paths] StorageDatabase or no [Storage] Storage Path";
        return CR_STATUS_NONE;
    }
    if (!context.enabled) {
        r->result = "refused";
        r->reason = "the configuration turns the catalog shadow off ([Paths] CatalogBackup)";
        return CR_STATUS_FAILED;
    }
    r->shadow_root = context.shadow_path;
    r->backup = true;
    r->auto_recovery = context.auto_recovery;
    r->versions = context.max_version_count;
    r->pool_size = context.shadow_pool_size;
    CatalogShadowIdentity identity(r->shadow_root.c_str());
    r->identity_file = identity.get_identity_file();
    if (identity.identity_exist()) {
        r->result = "exists";
        return CR_STATUS_OK;
    }
    const std::string other = first_other_entry(r->shadow_root, CatalogShadowIdentity::the_file_name());
    if (!other.empty()) {
        r->result = "refused";
        r->reason = r->shadow_root + " holds " + other + " but no identity file; only a new or empty root is "
                    "made the shadow of this pool";
        return CR_STATUS_FAILED;
    }
    const cr_status_t status = identity.create_identity();
    if (status != CR_STATUS_OK) {
        r->result = "refused";
        r->reason = "the identity file could not be created (status " + std::to_string(status) + ")";
        return status;
    }
    // A root that existed empty keeps its mode otherwise.
    wa_restrict_mode(r->shadow_root);
    r->result = "created";
    return CR_STATUS_OK;
}

std::string init_text(const InitReport& r) {
    std::string out = "init " + r.shadow_root + "\n";
    out += labelled_line("configuration", r.config_file);
    out += labelled_line("app databases", r.app_db_root);
    out += labelled_line("PO/UL dbs", r.podb_root);
    if (!r.shadow_root.empty()) {
        out += labelled_line("shadow root", r.shadow_root);
        out += labelled_line("backup", on_off(r.backup));
        out += labelled_line("auto recovery", on_off(r.auto_recovery));
        out += labelled_line("versions kept", std::to_string(r.versions));
        out += labelled_line("pool size", std::to_string(r.pool_size));
    }
    std::string result = r.result;
    if (!r.identity_file.empty()) result += " " + r.identity_file;
    if (!r.reason.empty()) result += " (" + r.reason + ")";
    out += labelled_line("identity", result);
    return out;
}

std::string init_json(const InitReport& r) {
    using ktool::json;
    using ktool::json_text;
    json init = json::object();
    init["config_file"] = json_text(r.config_file);
    init["app_db_root"] = json_text(r.app_db_root);
    init["podb_root"] = json_text(r.podb_root);
    init["shadow_root"] = r.shadow_root.empty() ? json() : json_text(r.shadow_root);
    init["identity_file"] = r.identity_file.empty() ? json() : json_text(r.identity_file);
    init["backup"] = r.backup;
    init["auto_recovery"] = r.auto_recovery;
    init["versions"] = static_cast<uint64_t>(r.versions);
    init["pool_size"] = r.pool_size;
    init["result"] = r.result;
    init["reason"] = r.reason.empty() ? json() : json_text(r.reason);
    json doc = json::object();
    doc["schema"] = static_cast<int64_t>(kJsonSchema);
    doc["command"] = "init";
    doc["init"] = init;
    return ktool::json_line(doc) + "\n";
}

}  // namespace kshadow
