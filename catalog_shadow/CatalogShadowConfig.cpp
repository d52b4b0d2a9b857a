// CatalogShadowContext::load_configurations: the shadow settings of the
// configuration file named by the proxy.
#include <stdio.h>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "dct/environment.h"
#include "dct/inifile.h"
#include "dct/log.h"
#include "dct/pool_layout.h"

namespace {

const char kPathsSection[] = "Paths";
const char kStorageSection[] = "Storage";
const char kStorageDatabaseKey[] = "StorageDatabase";
const char kStoragePathKey[] = "Storage Path";
const char kCatalogBackupKey[] = "CatalogBackup";
const char kAutoRecoveryKey[] = "CatalogAutoRecovery";
const char kVersionCountKey[] = "CatalogBackupVersionCount";
const char kShadowPathKey[] = "CatalogShadowPath";
const char kShadowPoolSizeKey[] = "CatalogShadowPoolSize";
const char kDisableAutoFixJournalKey[] = "DisableCatalogAutoFixJournal";

const unsigned long kDefaultVersionCount = 5;
const unsigned long kMaxVersionCount = 256;
const uint64_t kDefaultPoolSize = 64;
// A value of up to 4095 characters and its terminator.
const size_t kValueBufferSize = 4096;

// A path value; false when the key is missing or empty.
bool read_path(const std::string& file, const char* section, const char* key, std::string* out) {
    char buf[kValueBufferSize];
    buf[0] = '\0';
    if (InifileGetPathA(file.c_str(), section, key, nullptr, buf, sizeof(buf)) != CR_STATUS_OK) return false;
    if (buf[0] == '\0') return false;
    *out = buf;
    return true;
}

// The layout's default, cut to what a configured value can hold.
std::string default_shadow_root(const std::string& storage) {
    return dct::pool_layout::default_shadow_root(storage).substr(0, kValueBufferSize - 1);
}

}  // namespace

cr_status_t CatalogShadowContext::load_configurations() {
    dct::environment_scope scope(env_);
    const std::string file = proxy ? proxy->get_config_file() : std::string();
    // The file may choose how much the default log sink keeps; the records
    // below already follow it.
    if (!file.empty()) dct::configure_log_level(file);

    // Read before anything can turn the feature off: the journal checks of
    // tools that inspect a shadow follow it too. A missing key, or a value
    // that is no boolean (taken as unset, like the other switches here),
    // leaves the switch as it was.
    bool disable_auto_fix = false;
    if (InifileGetBooleanA(file.c_str(), kPathsSection, kDisableAutoFixJournalKey, false, &disable_auto_fix) ==
        CR_STATUS_OK) {
        env_.disable_auto_fix_journal = disable_auto_fix;
    }

    std::string storage_database;
    if (!read_path(file, kPathsSection, kStorageDatabaseKey, &storage_database)) {
        ErrorA(CR_STATUS_NONE, "can't find StorageDatabase from [%s]", file.c_str());
        WarningA(CR_STATUS_NONE, "Catalog backup is disabled as there is no StorageDatabase configured.");
        enabled = false;
        return CR_STATUS_NONE;
    }
    std::string storage_path;
    if (!read_path(file, kStorageSection, kStoragePathKey, &storage_path)) {
        ErrorA(CR_STATUS_NONE, "can't find Storage Path from [%s]", file.c_str());
        WarningA(CR_STATUS_NONE, "Catalog backup is disabled as there is no Storage Path configured.");
        enabled = false;
        return CR_STATUS_NONE;
    }

    bool backup = true;
    InifileGetBooleanA(file.c_str(), kPathsSection, kCatalogBackupKey, true, &backup);
    if (!backup) {
        WarningA(CR_STATUS_OK, "Catalog backup is turned off in configuration file.");
        enabled = false;
        return CR_STATUS_OK;
    }

    bool recovery = true;
    InifileGetBooleanA(file.c_str(), kPathsSection, kAutoRecoveryKey, true, &recovery);
    auto_recovery = recovery;

    unsigned long count = kDefaultVersionCount;
    InifileGetUIntegerA(file.c_str(), kPathsSection, kVersionCountKey, kDefaultVersionCount, &count);
    if (count == 0) count = 1;
    if (count > kMaxVersionCount) count = kMaxVersionCount;
    max_version_count = static_cast<uint32_t>(count);

    const std::string under_database = default_shadow_root(storage_database);
    const std::string under_storage = default_shadow_root(storage_path);
    std::string configured;
    if (!read_path(file, kPathsSection, kShadowPathKey, &configured)) {
        shadow_path = under_storage;
        WarningA(CR_STATUS_OK, "CatalogShadowPath is not configured. Use %s as the default.", shadow_path.c_str());
    } else {
        shadow_path = configured;
        if (configured != under_database && configured != under_storage) {
            WarningA(CR_STATUS_OK,
                     "The default catalog shadow path is %s, but now it is changed to %s. There will be an impact "
                     "on previous catalog shadow backups.",
                     under_storage.c_str(), configured.c_str());
        }
    }

    uint64_t pool_size = kDefaultPoolSize;
    InifileGetSizeA(file.c_str(), kPathsSection, kShadowPoolSizeKey, kDefaultPoolSize, &pool_size);
    shadow_pool_size = pool_size > static_cast<uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<int64_t>(pool_size);

    if (enabled) {
        InfoA(CR_STATUS_OK, "Catalog auto recovery is %s.", auto_recovery ? "enabled" : "disabled");
        InfoA(CR_STATUS_OK, "Catalog backup version count: %u, shadow pool size: %li", max_version_count,
              static_cast<long>(shadow_pool_size));
        InfoA(CR_STATUS_OK, "Catalog backup shadow path: %s", shadow_path.c_str());
    }
    return CR_STATUS_OK;
}
