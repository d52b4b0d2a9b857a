// Catalog query expressions: the short query strings that select catalog items,
// parsed into a typed query that knows its SELECT statement.
//
//   "name|"       CLIENT "," POLICY "," FILE           items of one file name
//   "time_range|" CLIENT "," POLICY "," START "," STOP items started in a range
//   "backup_id|"  CLIENT "," POLICY "," BACKUPID       items of one backup id
//
// CLIENT and POLICY cannot hold ","; the last value is the rest of the string.
// Nothing is trimmed or unescaped. A file name or backup id whose last
// character is "*" is a GLOB pattern (SQLite's: "*" any text, "?" one
// character, "[...]" one of a set, case-sensitive); otherwise it is compared
// exactly.
//
// A service builds query strings with to_query_by_backup_id,
// to_query_by_file_name and to_query_by_time_range and hands them to catalog_application::find_catalog or
// del_catalog; app_query is what the catalog parses them into. Plain values:
// no shared state, nothing to release.
#ifndef APPDB_APP_QUERY_H_
#define APPDB_APP_QUERY_H_

#include <stdint.h>

#include <string>

namespace appdb {

// Query type codes, the index into app_query_type_str.
enum app_query_type : uint32_t {
    APP_QUERY_NONE = 0,
    APP_QUERY_NAME = 1,
    APP_QUERY_TIME_RANGE = 2,
    APP_QUERY_BACKUP_ID = 3,
};

// "none", "name", "time_range", "backup_id".
extern const char* const app_query_type_str[4];

class app_query {
public:
    app_query();
    ~app_query();

    // Parses `query` into the fields below. Returns false, after logging why,
    // for an unknown query name or a missing ","; values read before the
    // failure stay stored. A time_range query leaves `wildcard` as it was.
    bool parse_query(const std::string& query);

    // Sets `sql` to the SELECT statement of this query's type and wildcard and
    // returns true; returns false (sql untouched) for any other type.
    bool query_sql(std::string& sql) const;

    uint32_t type;
    std::string client;
    std::string policy;
    std::string file_name;
    int64_t start_time;
    int64_t stop_time;
    bool wildcard;  // the selecting value ends in "*"
    std::string backup_id;
};

// "backup_id|" + client + "," + policy + "," + backup_id
std::string to_query_by_backup_id(const std::string& client, const std::string& policy,
                                  const std::string& backup_id);

// "name|" + client + "," + policy + "," + file_name
std::string to_query_by_file_name(const std::string& client, const std::string& policy,
                                  const std::string& file_name);

// "time_range|" + client + "," + policy + "," + start + "," + stop: the items
// whose backup started at or after `start` and at or before `stop` (seconds;
// the catalog compares the low 32 bits of each bound).
std::string to_query_by_time_range(const std::string& client, const std::string& policy,
                                   int64_t start, int64_t stop);

}  // namespace appdb

#endif  // APPDB_APP_QUERY_H_
