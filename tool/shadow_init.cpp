#include "tool/shadow_init.h"

#include "offsite/json_text.h"
#include "tool/shadow_report.h"

namespace kshadow {

namespace {

const char* on_off(bool on) { return on ? "on" : "off"; }

}  // namespace

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
