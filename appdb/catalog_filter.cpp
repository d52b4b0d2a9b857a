#include "appdb/catalog_filter.h"

#include "appdb/catalog_fields.h"
#include "sqlitedb/sqlite_status.h"

namespace appdb {

namespace {

// The first column that stores the field named `member`: for the file name
// that is the key column "name", whose index serves a GLOB with a fixed
// prefix.
const char* column_of(const char* member) {
    const catalog_field* field = catalog_field_named(member);
    for (const catalog_column& column : catalog_columns) {
        if (column.field >= 0 && &catalog_fields[column.field] == field) return column.name;
    }
    return nullptr;  // not reached: every member used below has a column
}

class statement_builder {
public:
    void text(const std::string& condition, const std::string& value) {
        add(condition);
        catalog_sql_value v;
        v.is_text = true;
        v.text = value;
        out_.values.push_back(v);
    }
    void number(const std::string& condition, int64_t value, int placeholders = 1) {
        add(condition);
        for (int i = 0; i < placeholders; ++i) {
            catalog_sql_value v;
            v.number = value;
            out_.values.push_back(v);
        }
    }
    catalog_filter_statement finish() {
        out_.sql = "SELECT * FROM catalog" + where_ + " ORDER BY " +
                   column_of("backup_start_time") + " ASC";
        return out_;
    }

private:
    void add(const std::string& condition) {
        where_ += where_.empty() ? " WHERE " : " AND ";
        where_ += condition;
    }

    std::string where_;
    catalog_filter_statement out_;
};

}  // namespace

catalog_filter_statement make_filter_statement(const catalog_filter& f) {
    statement_builder b;
    const std::string start = column_of("backup_start_time");
    if (f.by_backup_id) b.text(std::string(column_of("backup_id")) + " GLOB ?", f.backup_id);
    if (f.by_file_name) b.text(std::string(column_of("file_name")) + " GLOB ?", f.file_name);
    if (f.by_owner) b.text(std::string(column_of("owner")) + " = ?", f.owner);
    if (f.by_since) b.number(start + " >= ?", f.since);
    if (f.by_until) b.number(start + " <= ?", f.until);
    if (f.by_expires_before) {
        // An expiry of 0 is one that was never set: it expires nothing.
        const std::string app = column_of("app_expire_time");
        const std::string orvo = column_of("orvo_expire_time");
        b.number("((" + app + " > 0 AND " + app + " < ?) OR (" + orvo + " > 0 AND " + orvo + " < ?))",
                 f.expires_before, 2);
    }
    return b.finish();
}

bool catalog_glob_match(const std::string& pattern, const std::string& text) {
    return sqlitedb::glob_match(pattern.c_str(), text.c_str());
}

const char* catalog_filter_value_refusal(const std::string& value) {
    if (value.find('|') != std::string::npos) {
        return "holds \"|\", which no client, policy, backup id, file name or owner can hold";
    }
    return nullptr;
}

}  // namespace appdb
