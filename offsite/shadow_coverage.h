// Whether the shadow covers the live database: the rows a recovery would give
// now against the rows the live database holds. A live database with rows its
// shadow cannot give back (a shadow brought back from an older copy, rows
// written by a program that journals nothing) loses them at the next
// recovery; rows the shadow would give that the live database does not hold
// would come back from the dead. Both are found by carrying the recovery out
// on a scratch copy (as verify rehearses it) and comparing the rows by their
// key, the file name (rows are inserted and removed, never changed; a row
// whose other columns differ is damage, which verify's row checksums report).
#ifndef OFFSITE_SHADOW_COVERAGE_H_
#define OFFSITE_SHADOW_COVERAGE_H_

#include <stdint.h>

#include <string>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "dct/status.h"
#include "offsite/shadow_model.h"

namespace kshadow {

// Compares the `catalog` rows of the live database `live` with those of
// `rehearsed`, a file a recovery plan was carried out into (both closed;
// neither is written). 0 with `out` filled in (known set), or the mapped
// SQLite status (logged) when either cannot be read.
cr_status_t compare_catalog_rows(const std::string& live, const std::string& rehearsed, Coverage* out);

// The coverage of one application database (`target` as the inventory gives
// it) now: takes its directory lock, plans and rehearses the recovery as
// status does and compares. 0 with `out` filled in; 2 when there is no live
// database or no recovery is possible (out->reason says which); 4 for a
// database that holds no catalog rows (PO, UL); 106 when this user may not
// read it; 11 when the lock is not had.
cr_status_t shadow_coverage(const Target& target, Coverage* out);

// What cover_live_database found and did.
struct Cover {
    Coverage before;
    uint64_t version = 0;  // the version taken of the live database (0: none)
    Coverage after;        // once it was taken
};

// Makes the shadow of an application database cover its live file: when a
// recovery would lose live rows or bring back rows the live file does not
// hold (a shadow restored from an older snapshot beside a newer live
// database), takes a version of the live database at once, under its
// directory lock, so that the next recovery starts from it. 0 when the shadow
// covers the live database afterwards (cover->version 0: it did already);
// the backup's status when no version could be taken; 67 when the shadow
// still does not cover it; shadow_coverage's status when it cannot tell.
cr_status_t cover_live_database(CatalogShadowContext& context, const Target& target, Cover* cover);

}  // namespace kshadow

#endif  // OFFSITE_SHADOW_COVERAGE_H_
