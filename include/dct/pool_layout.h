// The pool's layout on disk, spelled once: the names of its directories and
// database files, the type words of the shadow, and the rules that join paths
// from their parts and split them again. Every layer and tool takes its paths
// from here, so a name is never written twice.
//
//   DBROOT/databases/po/DSID/{po.db,ul.db}                    PO and UL databases
//   DBROOT/databases/application/DSID/CLIENT/POLICY/app.db    one catalog per data store, client, policy
//   SHADOW/.catalog_shadow_identity                           marks SHADOW as the pool's shadow root
//   SHADOW/.catalog_shadow_runs                               the last runs of backup and off-site commands
//   SHADOW/<the path below the real root>                     the shadow of one database directory
//
// SHADOW defaults to STORAGE/catalogshadow. A catalog application's database
// root is DBROOT/databases, the directory that holds "application".
//
// Everything here is string work: no file is touched, nothing is logged and
// nothing throws. A caller that refuses a path logs its own record.
#ifndef DCT_POOL_LAYOUT_H_
#define DCT_POOL_LAYOUT_H_

#include <stdint.h>

#include <string>

namespace dct {
namespace pool_layout {

// Directories below DBROOT.
extern const char kDatabasesDir[];    // "databases": holds both real trees
extern const char kPoDir[];           // "po": the PO/UL tree, below kDatabasesDir
extern const char kApplicationDir[];  // "application": the catalog tree, below kDatabasesDir

// Database files.
extern const char kPoDbFile[];   // "po.db"
extern const char kUlDbFile[];   // "ul.db"
extern const char kAppDbFile[];  // "app.db"

// The type words of the databases the shadow keeps; they also name its files.
extern const char kPodbType[];   // "podb": the PO database
extern const char kUldbType[];   // "uldb": the UL database
extern const char kAppdbType[];  // "appdb": a catalog's app.db

// The shadow root.
extern const char kShadowRootName[];  // "catalogshadow": the default root's name below the storage path
extern const char kIdentityFile[];    // ".catalog_shadow_identity": marks a root as this pool's
extern const char kRunRecordFile[];   // ".catalog_shadow_runs": the last runs (offsite/run_record.h)

// The database file of a type word: kPoDbFile, kUlDbFile or kAppDbFile; ""
// for any other word (compared exactly).
const char* db_file_of_type(const std::string& type);

// DIR "/" the database file of `type`.
std::string db_file_in(const std::string& dir, const std::string& type);

// The real trees below DBROOT (given without a trailing "/"):
std::string databases_dir(const std::string& dbroot);     // DBROOT/databases
std::string po_root(const std::string& dbroot);           // DBROOT/databases/po
std::string application_root(const std::string& dbroot);  // DBROOT/databases/application

// DBROOT of an application root that ends in "/databases/application"; any
// other text unchanged.
std::string dbroot_of_application_root(const std::string& app_root);

// A catalog directory, composed. Names are used exactly as given: no case
// folding, no escaping, no check for "/" or ".." (the catalog application
// checks client and policy before it composes).
//   application_store(DATABASES, dsid)                 DATABASES/application/DSID
//   catalog_dir(STORE, client, policy)                 STORE/CLIENT/POLICY
//   catalog_dir(DATABASES, dsid, client, policy)       DATABASES/application/DSID/CLIENT/POLICY
std::string application_store(const std::string& databases, uint32_t dsid);
std::string catalog_dir(const std::string& store, const std::string& client, const std::string& policy);
std::string catalog_dir(const std::string& databases, uint32_t dsid, const std::string& client,
                        const std::string& policy);

// Why split_catalog_dir refused a path, in the order the rule tests them.
enum class catalog_dir_error {
    none,
    no_databases,         // no "/databases/" component
    no_application,       // the last "/databases/" is not followed by "application"
    no_store_below,       // "application" is not followed by "/" and a further character
    no_store_end,         // nothing below the data store's directory
    no_client_end,        // nothing below the client's directory
    below_policy,         // something below the policy's directory
};

// The parts of DATABASES/application/DSID/CLIENT/POLICY. The roots are filled
// as far as the rule got, so that a refusal can name them.
struct catalog_dir_parts {
    std::string databases;    // DBROOT/databases: up to the last "/databases/"
    std::string application;  // DATABASES/application
    uint32_t dsid = 0;        // the leading decimal number of DSID, as atol reads it (0 for none)
    std::string client;       // may be empty
    std::string policy;       // may be empty; holds no "/"
};

// Splits a catalog directory path. The last "/databases/" marks the database
// root; "application", "/", then DSID, CLIENT and POLICY follow, each but the
// last ending in "/". Byte comparisons, case-sensitive, no normalisation.
// `parts` is filled as far as the rule got (client and policy only on success).
catalog_dir_error split_catalog_dir(const std::string& path, catalog_dir_parts* parts);

// STORAGE "/" "catalogshadow".
std::string default_shadow_root(const std::string& storage);

// ROOT "/" ".catalog_shadow_identity", without a second "/" when ROOT ends in one.
std::string identity_file(const std::string& shadow_root);
// The same for ".catalog_shadow_runs".
std::string run_record_file(const std::string& shadow_root);

// Real <-> shadow. A real directory lies in the PO/UL tree when it begins
// with the PO/UL root, else in the application tree when it begins with the
// application root: plain byte prefixes at position 0, case-sensitive, no
// normalisation of slashes or "..", and an empty root matches nothing. Its
// shadow is the shadow root followed by what follows the real root, so the
// shadow tree mirrors both real trees.
enum class real_tree { none, po, application };
real_tree tree_of(const std::string& real, const std::string& po_root, const std::string& app_root);

// The shadow path of `real`; false, `*shadow` untouched, when it lies in
// neither tree.
bool real_to_shadow(const std::string& real, const std::string& po_root, const std::string& app_root,
                    const std::string& shadow_root, std::string* shadow);

// The real path of a shadow path for `type`: the application root for
// "appdb", the PO/UL root for every other word, followed by what follows the
// shadow root. false, `*real` untouched, when the shadow root is empty or
// `shadow` does not begin with it.
bool shadow_to_real(const std::string& shadow, const std::string& type, const std::string& po_root,
                    const std::string& app_root, const std::string& shadow_root, std::string* real);

}  // namespace pool_layout
}  // namespace dct

#endif  // DCT_POOL_LAYOUT_H_
