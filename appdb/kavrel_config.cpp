#include "appdb/kavrel_config.h"

#include <stdlib.h>

#include <vector>

#include "appdb/kavrel_config_names.h"
#include "dct/fs.h"
#include "dct/inifile.h"
#include "dct/log.h"

namespace appdb {

namespace {

// Room for a path read from a configuration file: 4095 characters and the
// terminator.
const size_t kPathBufferSize = 4096;

// One path value of an ini file; "" when the file, section or key is missing.
std::string read_path(const std::string& file, const char* section, const char* key) {
    std::vector<char> buffer(kPathBufferSize, '\0');
    InifileGetPathA(file.c_str(), section, key, nullptr, buffer.data(), kPathBufferSize);
    return std::string(buffer.data());
}

}  // namespace

std::string registry_path(const std::string& chosen) {
    if (!chosen.empty()) return chosen;
    const char* env = getenv(kRegistryEnv);
    return (env != nullptr && *env != '\0') ? env : kRegistryDefaultPath;
}

cr_status_t locate_cr_config(const std::string& registry, std::string* cr_config) {
    *cr_config = read_path(registry, kRegistrySection, kRegistryConfigFileKey);
    if (wa_access(cr_config->c_str(), 0) != 0) {
        ErrorA(CR_STATUS_MISSING, "Failed to locate CR configuration file");
        return CR_STATUS_MISSING;
    }
    return CR_STATUS_OK;
}

std::string read_database_root(const std::string& cr_config) {
    return read_path(cr_config, kConfigPathsSection, kConfigDatabaseKey);
}

}  // namespace appdb
