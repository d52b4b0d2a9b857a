// Finding the pool's configuration the way every kavrel command does: the
// registry file names the CR configuration file, which names the database
// root (names in appdb/kavrel_config_names.h).
#ifndef APPDB_KAVREL_CONFIG_H_
#define APPDB_KAVREL_CONFIG_H_

#include <string>

#include "dct/status.h"

namespace appdb {

// The registry file to read: `chosen` when not empty, else the file named by
// the environment variable kRegistryEnv when set and not empty, else
// kRegistryDefaultPath.
std::string registry_path(const std::string& chosen);

// Reads the CR configuration file's path from `registry` into `cr_config`.
// 0 when that file exists; 2 (logged "Failed to locate CR configuration
// file") when the registry, its entry or the file named there is missing.
cr_status_t locate_cr_config(const std::string& registry, std::string* cr_config);

// The database root named by the CR configuration file, as written there
// ("" when absent).
std::string read_database_root(const std::string& cr_config);

}  // namespace appdb

#endif  // APPDB_KAVREL_CONFIG_H_
