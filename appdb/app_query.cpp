#include "appdb/app_query.h"

#include <stdlib.h>

#include "dct/log.h"

namespace appdb {

const char* const app_query_type_str[4] = {"none", "name", "time_range", "backup_id"};

namespace {

// A value that ends in "*" selects by pattern; only the last character counts.
bool ends_in_star(const std::string& value) { return !value.empty() && value.back() == '*'; }

}  // namespace

app_query::app_query() : type(APP_QUERY_NONE), start_time(0), stop_time(0), wildcard(false) {}

app_query::~app_query() = default;

bool app_query::parse_query(const std::string& query) {
    const std::string name = query.substr(0, query.find('|'));
    uint32_t parsed_type;
    if (name == app_query_type_str[APP_QUERY_NAME]) {
        parsed_type = APP_QUERY_NAME;
    } else if (name == app_query_type_str[APP_QUERY_TIME_RANGE]) {
        parsed_type = APP_QUERY_TIME_RANGE;
    } else if (name == app_query_type_str[APP_QUERY_BACKUP_ID]) {
        parsed_type = APP_QUERY_BACKUP_ID;
    } else {
        ErrorA(CR_STATUS_NONE, "%s: unsupported query name %s", "parse_query", name.c_str());
        return false;
    }

    const size_t name_pos = query.find(name);
    if (name_pos == std::string::npos) {
        ErrorA(CR_STATUS_NONE, "%s: failed to parse query_name %s", "parse_query", query.c_str());
        return false;
    }
    // Skip the name and the "|" after it; a query that is the bare name has no values.
    size_t pos = name_pos + name.size() + 1;
    if (pos > query.size()) pos = query.size();

    // Every value but the last ends at the next ","; the last runs to the end.
    auto next_value = [&](std::string& out) {
        size_t comma = query.find(',', pos);
        if (comma == std::string::npos) {
            ErrorA(CR_STATUS_NONE, "%s: failed to parse %s", "parse_query", query.c_str());
            return false;
        }
        out.assign(query, pos, comma - pos);
        pos = comma + 1;
        return true;
    };

    if (!next_value(client) || !next_value(policy)) return false;
    switch (parsed_type) {
        case APP_QUERY_NAME:
            file_name.assign(query, pos, std::string::npos);
            wildcard = ends_in_star(file_name);
            break;
        case APP_QUERY_TIME_RANGE: {
            std::string start;
            if (!next_value(start)) return false;
            start_time = atoll(start.c_str());
            stop_time = atoll(query.c_str() + pos);
            break;
        }
        case APP_QUERY_BACKUP_ID:
            backup_id.assign(query, pos, std::string::npos);
            wildcard = ends_in_star(backup_id);
            break;
    }
    type = parsed_type;

    __TraceA("%s: app query %s, client %s, file_name %s, policy %s, start_time %lu, stop_time %lu, backup id %s",
             "parse_query", query.c_str(), client.c_str(), file_name.c_str(), policy.c_str(),
             static_cast<unsigned long>(start_time), static_cast<unsigned long>(stop_time),
             backup_id.c_str());
    return true;
}

bool app_query::query_sql(std::string& sql) const {
    switch (type) {
        case APP_QUERY_NAME:
            sql = wildcard ? "SELECT * FROM catalog WHERE name GLOB ? ORDER BY backup_start_time ASC"
                           : "SELECT * FROM catalog WHERE name = ?";
            return true;
        case APP_QUERY_TIME_RANGE:
            sql = "SELECT * FROM catalog WHERE backup_start_time >= ? and backup_start_time <= ? "
                  "ORDER BY backup_start_time ASC";
            return true;
        case APP_QUERY_BACKUP_ID:
            sql = wildcard ? "SELECT * FROM catalog WHERE backupid GLOB ? ORDER BY backup_start_time ASC"
                           : "SELECT * FROM catalog WHERE backupid = ?";
            return true;
        default:
            return false;
    }
}

std::string to_query_by_backup_id(const std::string& client, const std::string& policy,
                                  const std::string& backup_id) {
    return std::string(app_query_type_str[APP_QUERY_BACKUP_ID]) + "|" + client + "," + policy + "," + backup_id;
}

std::string to_query_by_file_name(const std::string& client, const std::string& policy,
                                  const std::string& file_name) {
    return std::string(app_query_type_str[APP_QUERY_NAME]) + "|" + client + "," + policy + "," + file_name;
}

std::string to_query_by_time_range(const std::string& client, const std::string& policy,
                                   int64_t start, int64_t stop) {
    return std::string(app_query_type_str[APP_QUERY_TIME_RANGE]) + "|" + client + "," + policy + "," +
           std::to_string(start) + "," + std::to_string(stop);
}

}  // namespace appdb
