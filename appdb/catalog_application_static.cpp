// The static members of catalog_application_base: the item checksum, the
// list form and the query entry point. They need no database.
#include "appdb/catalog_application_base.h"

#include "appdb/catalog_fields.h"
#include "dct/log.h"

namespace appdb {

uint32_t catalog_application_base::crc_value(const app_catalog_item& item) {
    return catalog_row_crc(item);
}

std::string catalog_application_base::to_string(const std::vector<app_catalog_item>& items) {
    std::string out = std::to_string(items.size());
    out.push_back('|');
    for (const auto& item : items) out.append(item.to_string());
    return out;
}

cr_status_t catalog_application_base::parse_query(const std::string& query, app_query& q, std::string& sql) {
    if (!q.parse_query(query)) {
        ErrorA(CR_STATUS_FAILED, "%s: failed parse query str %s", "parse_query", query.c_str());
        return CR_STATUS_FAILED;
    }
    if (!q.query_sql(sql)) {
        ErrorA(CR_STATUS_FAILED, "%s: failed to generate sql from %s", "parse_query", query.c_str());
        return CR_STATUS_FAILED;
    }
    return CR_STATUS_OK;
}

}  // namespace appdb
