// Which catalog databases the shadow command works on: every database of the
// pool (the PO/UL and application database files below the real roots, and
// every database whose shadow lists a version, present or not), or those of
// one real directory. Only reads directories.
#ifndef OFFSITE_SHADOW_INVENTORY_H_
#define OFFSITE_SHADOW_INVENTORY_H_

#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "dct/status.h"
#include "offsite/shadow_model.h"

namespace kshadow {

// Every database of the pool, ordered by directory, then type word. A shadow
// whose checksum file is damaged or may not be read counts as listing a
// version. The directories this user may not read, where databases may lie
// unseen, go to `unreadable` (sorted) when it is given.
std::vector<Target> find_all_databases(CatalogShadowContext& context, std::vector<std::string>* unreadable);

// The databases of real directory `dir` (a trailing "/" is dropped): each type
// of the directory's tree whose database file exists or whose shadow holds a
// checksum file that is damaged, may not be read or lists a version (a
// database file this user may not see counts as there). 0, or 4 (logged "%s: %s is
// not a catalog database directory") when `dir` lies below neither real root,
// or below the application root but is no DSID/CLIENT/POLICY directory.
cr_status_t find_databases_in(CatalogShadowContext& context, const std::string& dir,
                              std::vector<Target>* targets);

// Whether the live database file of `t` is there (for this user).
bool has_live_file(const Target& t);

}  // namespace kshadow

#endif  // OFFSITE_SHADOW_INVENTORY_H_
