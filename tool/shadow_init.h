// kavrel-shadow init: the one command that makes a shadow root belong to the
// pool. It creates the root (dct::private_dir_mode) and its identity file and
// prints the configuration the shadow will run with. It refuses a root that
// holds anything but its identity file: a root that lost its identity file is
// never adopted again without a person deciding so (see
// CatalogShadowIdentity).
#ifndef TOOL_SHADOW_INIT_H_
#define TOOL_SHADOW_INIT_H_

#include <string>

#include "catalog_shadow/CatalogShadowCtx.h"

namespace kshadow {

// What init found and did.
struct InitReport {
    std::string config_file;
    std::string app_db_root;
    std::string podb_root;
    std::string shadow_root;
    std::string identity_file;
    bool backup = false;         // CatalogBackup
    bool auto_recovery = false;  // CatalogAutoRecovery
    uint32_t versions = 0;       // CatalogBackupVersionCount
    int64_t pool_size = 0;       // CatalogShadowPoolSize
    // "created", "exists" (nothing done), or "refused" with the reason.
    std::string result;
    std::string reason;
};

// Reads the shadow settings of `context` (its proxy set, init() not called)
// and creates the identity file when the root is new or empty. 0 when the
// identity file exists afterwards; 4 when the root holds other files or the
// configuration turns the shadow off (result "refused"); the status of a
// failed creation; CR_STATUS_NONE when the configuration names no storage
// paths. report->reason says why in each case.
cr_status_t init_shadow_root(CatalogShadowContext& context, InitReport* report);

// The report as text (label column as the other commands) or one JSON document
// ({"schema":1,"command":"init","init":{...}}), ended by a newline.
std::string init_text(const InitReport& report);
std::string init_json(const InitReport& report);

}  // namespace kshadow

#endif  // TOOL_SHADOW_INIT_H_
