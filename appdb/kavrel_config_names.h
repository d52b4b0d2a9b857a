// Names under which kavrel finds the pool's configuration: the registry file
// (named by an environment variable, with a fixed default), the entry in it
// that names the CR configuration file, and the entry there that names the
// database root. The tool, its tests and the sample pool all use these, so a
// change here reaches every one of them.
#ifndef APPDB_KAVREL_CONFIG_NAMES_H_
#define APPDB_KAVREL_CONFIG_NAMES_H_

namespace appdb {

// Environment variable naming the registry file; unset or empty selects the
// default below.
inline constexpr char kRegistryEnv[] = "VELKREGISTRY";
inline constexpr char kRegistryDefaultPath[] = "/etc/velkregistry.cfg";

// Registry file: section and key of the CR configuration file's path.
inline constexpr char kRegistrySection[] = "Tamberlode";
inline constexpr char kRegistryConfigFileKey[] = "configfilepath";

// CR configuration file: section and key of the database root.
inline constexpr char kConfigPathsSection[] = "Paths";
inline constexpr char kConfigDatabaseKey[] = "Database";

}  // namespace appdb

#endif  // APPDB_KAVREL_CONFIG_NAMES_H_
