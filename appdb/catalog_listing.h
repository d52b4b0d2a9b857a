// The listing of kavrel: every catalog below a database root, or the items
// of one backup id, printed to standard output (appdb/catalog_list.cpp says
// in which form). It only reads.
#ifndef APPDB_CATALOG_LISTING_H_
#define APPDB_CATALOG_LISTING_H_

#include <stddef.h>

#include <string>

namespace appdb {

// Bytes of a catalog's printed items held in memory before they go to a
// temporary file.
size_t list_default_memory_limit();

// Lists every catalog directory below `root` (without a trailing "/") whose
// items' backup id matches the GLOB `backup_id_pattern` ("*": all),
// labelled when `verbose`, holding at most `memory_limit` bytes of a
// catalog's items in memory. A catalog another client left in another
// journal mode is read as it is, never switched back (for the whole
// process). Failures are logged and never stop the listing.
void list_catalogs(const std::string& root, const std::string& backup_id_pattern, bool verbose,
                   size_t memory_limit);

}  // namespace appdb

#endif  // APPDB_CATALOG_LISTING_H_
