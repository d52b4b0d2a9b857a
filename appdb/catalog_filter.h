// catalog_filter: the conditions an operator's search puts on the rows of a
// catalog database, and the one SELECT that applies all of them inside
// SQLite. Each condition is optional; the ones given are combined with AND.
// Values are never written into the statement's text: every value is a
// parameter, bound in the order of `catalog_filter_statement::values`.
//
// Client and policy are not columns (they name the database), so their
// patterns are matched against directory names with catalog_glob_match
// before any database is opened.
#ifndef APPDB_CATALOG_FILTER_H_
#define APPDB_CATALOG_FILTER_H_

#include <stdint.h>

#include <string>
#include <vector>

namespace appdb {

struct catalog_filter {
    bool by_backup_id = false;
    std::string backup_id;  // GLOB pattern on the backup id
    bool by_file_name = false;
    std::string file_name;  // GLOB pattern on the file name
    bool by_owner = false;
    std::string owner;      // exact owner
    bool by_since = false;
    int64_t since = 0;      // backup start time at or after
    bool by_until = false;
    int64_t until = 0;      // backup start time at or before
    bool by_expires_before = false;
    int64_t expires_before = 0;  // an expiry time set (not 0) and before this
};

// One bound value: text, or a signed 64-bit integer.
struct catalog_sql_value {
    bool is_text = false;
    std::string text;
    int64_t number = 0;
};

struct catalog_filter_statement {
    std::string sql;                        // selects every column, like the catalog's own queries
    std::vector<catalog_sql_value> values;  // parameter 1, 2, ... in order
};

// The statement of `filter`: "SELECT * FROM catalog", " WHERE " and the
// conditions joined by " AND " when there are any, then
// " ORDER BY backup_start_time ASC". Conditions, in this order:
//   backup id   "backupid GLOB ?"
//   file name   "name GLOB ?" (the key column, which is indexed)
//   owner       "owner = ?"
//   since       "backup_start_time >= ?"
//   until       "backup_start_time <= ?"
//   expiry      "((backup_app_expire_time > 0 AND backup_app_expire_time < ?) OR
//                 (backup_orvo_expire_time > 0 AND backup_orvo_expire_time < ?))"
// Times are bound as 64-bit integers (whole values, unlike the time_range
// query's 32-bit bounds).
catalog_filter_statement make_filter_statement(const catalog_filter& filter);

// Whether `text` matches the GLOB `pattern` exactly as SQLite's GLOB
// operator decides it ("*", "?", "[...]", "[^...]", case-sensitive).
bool catalog_glob_match(const std::string& pattern, const std::string& text);

// Why `value` cannot be a filter value, or null when it can: a "|" is the
// separator of the line form and of query texts, so no stored client,
// policy, backup id, file name or owner holds one.
const char* catalog_filter_value_refusal(const std::string& value);

}  // namespace appdb

#endif  // APPDB_CATALOG_FILTER_H_
