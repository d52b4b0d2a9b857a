// The catalog application: the service that names, opens, queries and changes
// the catalog databases of one data store under the access rule.
#ifndef APPDB_CATALOG_APPLICATION_H_
#define APPDB_CATALOG_APPLICATION_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "appdb/app_catalog_item.h"
#include "appdb/app_query.h"
#include "dct/status.h"

namespace appdb {

class catalog_application_base {
public:
    // The item checksum stored in (and verified against) the row's crc column:
    // Adler-32 from 1 over version, file_name, file_len, backup_id,
    // policy_type, schedule_type, frag_nums, app_id, data_object, the four
    // times, owner, owner_role, description and reserver0..9, numbers as
    // little-endian bytes, text without terminator or separator. client and
    // policy are not covered: they are the database's identity, not row data.
    // Existing databases depend on this exact coverage.
    static uint32_t crc_value(const app_catalog_item& item);

    // The list form: the item count in decimal, "|", then each item's line
    // form back to back ("0|" for no items).
    static std::string to_string(const std::vector<app_catalog_item>& items);

    // Parses `query` into `q` and chooses its SELECT statement into `sql`.
    // Returns 0, or 4 (logged) when the query does not parse or has no
    // statement.
    static cr_status_t parse_query(const std::string& query, app_query& q, std::string& sql);

    // ---- rest of the class follows ----
};

}  // namespace appdb

#endif  // APPDB_CATALOG_APPLICATION_H_
