// The field and column tables: the texts built from them are the on-disk
// format and the journal format, pinned here character by character; the
// checksum covers exactly the row's own columns.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <stdint.h>

#include <set>
#include <string>

#include "appdb/catalog_fields.h"
#include "appdb/catalog_table.h"
#include "catalog_test_helpers.h"

using appdb::app_catalog_item;
using appdb::catalog_columns;
using appdb::catalog_fields;

namespace {

// The literal INSERT as SQLite's own printf formats it, the way the journal
// has always been written.
std::string printf_literal(const app_catalog_item& i, uint32_t crc) {
    char* text = sqlite3_mprintf(
        "INSERT INTO catalog VALUES (%d, %Q, %Q, %lld, %Q, %d, %d, %d, %Q, %Q, %lld, %lld, %lld, "
        "%lld, %Q, %d, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %Q, %d)",
        static_cast<int>(i.version), i.file_name.c_str(), i.file_name.c_str(),
        static_cast<long long>(i.file_len), i.backup_id.c_str(), static_cast<int>(i.policy_type),
        static_cast<int>(i.schedule_type), static_cast<int>(i.frag_nums), i.app_id.c_str(),
        i.data_object.c_str(), static_cast<long long>(i.app_expire_time),
        static_cast<long long>(i.orvo_expire_time), static_cast<long long>(i.backup_start_time),
        static_cast<long long>(i.backup_stop_time), i.owner.c_str(), static_cast<int>(i.owner_role),
        i.description.c_str(), i.reserver0.c_str(), i.reserver1.c_str(), i.reserver2.c_str(),
        i.reserver3.c_str(), i.reserver4.c_str(), i.reserver5.c_str(), i.reserver6.c_str(),
        i.reserver7.c_str(), i.reserver8.c_str(), i.reserver9.c_str(), static_cast<int>(crc));
    std::string out = text;
    sqlite3_free(text);
    return out;
}

TEST(CatalogFields, SchemaTextIsTheOneExistingDatabasesCarry) {
    EXPECT_STREQ(
        "CREATE TABLE catalog (version INTEGER,     name TEXT PRIMARY KEY,     filename TEXT,     "
        "filelen INTEGER,     backupid TEXT,     policy_type INTEGER,     schedule_type INTEGER,     "
        "frag_nums INTEGER,     app_id TEXT,     dataobject TEXT,     backup_app_expire_time INTEGER,"
        "     backup_orvo_expire_time INTEGER,     backup_start_time INTEGER,     backup_stop_time "
        "INTEGER,     owner TEXT,     owner_role INTEGER,     description TEXT,     reserver0 TEXT,"
        "     reserver1 TEXT,     reserver2 TEXT,     reserver3 TEXT,     reserver4 TEXT,     "
        "reserver5 TEXT,     reserver6 TEXT,     reserver7 TEXT,     reserver8 TEXT,     reserver9 "
        "TEXT,     crc INTEGER)",
        appdb::catalog_create_table_sql());
}

TEST(CatalogFields, InsertHasOneParameterPerColumn) {
    EXPECT_STREQ(
        "INSERT INTO catalog VALUES( ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
        "?, ?, ?, ?, ?, ?)",
        appdb::catalog_insert_sql());
}

TEST(CatalogFields, EveryStoredFieldHasExactlyOneOwnColumn) {
    std::multiset<int> owned;
    for (const auto& column : catalog_columns) {
        if (column.checked) owned.insert(column.field);
    }
    for (size_t f = 0; f < appdb::catalog_field_count; ++f) {
        const std::string label = catalog_fields[f].label;
        const size_t expected = label == "client:" || label == "policy:" ? 0 : 1;
        EXPECT_EQ(expected, owned.count(static_cast<int>(f))) << label;
    }
    EXPECT_STREQ("name", catalog_columns[1].name);
    EXPECT_STREQ("file name:", catalog_fields[catalog_columns[1].field].label);
    EXPECT_STREQ("crc", catalog_columns[appdb::catalog_crc_column].name);
    EXPECT_EQ(-1, catalog_columns[appdb::catalog_crc_column].field);
}

TEST(CatalogFields, LiteralIsWhatSQLitesOwnFormattingGives) {
    app_catalog_item item = catt::make_item("c", "p", "it's \"x\"", "B'1");
    EXPECT_EQ(printf_literal(item, 77), [&] {
        std::string out;
        appdb::append_insert_literal(out, item, 77);
        return out;
    }());
    // Numbers past the signed ranges print as the values bound.
    item.version = 0xFFFFFFFFu;
    item.frag_nums = 0x80000000u;
    item.file_len = 0xFFFFFFFFFFFFFFFFull;
    item.app_expire_time = -5;
    item.backup_start_time = INT64_MIN;
    item.description = "";
    item.reserver4 = "''";
    item.owner = "line\nbreak\t\x01\xff";
    std::string out;
    appdb::append_insert_literal(out, item, 0xFFFFFFF0u);
    EXPECT_EQ(printf_literal(item, 0xFFFFFFF0u), out);
}

TEST(CatalogFields, QuotedTextEndsAtAFirstNulAsSQLitesDoes) {
    std::string out;
    appdb::append_sql_quoted(out, std::string("ab\0'c", 5));
    EXPECT_EQ("'ab'", out);
}

TEST(CatalogFields, ChecksumCoversEveryOwnColumnAndNotTheDatabaseNames) {
    const app_catalog_item base = catt::make_item("c", "p", "f", "B1");
    const uint32_t crc = appdb::catalog_row_crc(base);
    for (size_t f = 0; f < appdb::catalog_field_count; ++f) {
        const appdb::catalog_field& field = catalog_fields[f];
        app_catalog_item changed = base;
        if (field.is_text()) {
            changed.*field.text += "x";
        } else {
            field.set_number(changed, field.bound_number(base) + 1);
        }
        const std::string label = field.label;
        if (label == "client:" || label == "policy:") {
            EXPECT_EQ(crc, appdb::catalog_row_crc(changed)) << label;
        } else {
            EXPECT_NE(crc, appdb::catalog_row_crc(changed)) << label;
        }
    }
}

TEST(CatalogFields, ChecksumOfAKnownItemIsPinned) {
    // Adler-32 of the bytes the coverage names, written out by hand.
    const app_catalog_item item = catt::make_item("c", "p", "f", "B1");
    catt::raw_row row;
    row.version = item.version;
    row.file_name = item.file_name;
    row.file_len = static_cast<int64_t>(item.file_len);
    row.backup_id = item.backup_id;
    row.policy_type = item.policy_type;
    row.schedule_type = item.schedule_type;
    row.frag_nums = item.frag_nums;
    row.app_id = item.app_id;
    row.data_object = item.data_object;
    row.times[0] = item.app_expire_time;
    row.times[1] = item.orvo_expire_time;
    row.times[2] = item.backup_start_time;
    row.times[3] = item.backup_stop_time;
    row.owner = item.owner;
    row.owner_role = item.owner_role;
    row.description = item.description;
    row.reserver[0] = item.reserver0;
    row.reserver[9] = item.reserver9;
    EXPECT_EQ(catt::independent_crc(row), appdb::catalog_row_crc(item));
}

}  // namespace

TEST(CatalogFields, MembersAreNamedInDeclarationOrder) {
    const char* const names[] = {
        "version", "file_name", "file_len", "backup_id", "policy", "policy_type", "schedule_type",
        "frag_nums", "client", "app_id", "data_object", "app_expire_time", "orvo_expire_time",
        "backup_start_time", "backup_stop_time", "owner", "owner_role", "description",
        "reserver0", "reserver1", "reserver2", "reserver3", "reserver4", "reserver5", "reserver6",
        "reserver7", "reserver8", "reserver9"};
    ASSERT_EQ(appdb::catalog_field_count, sizeof(names) / sizeof(names[0]));
    for (size_t f = 0; f < appdb::catalog_field_count; ++f) {
        EXPECT_STREQ(names[f], catalog_fields[f].name);
        EXPECT_EQ(&catalog_fields[f], appdb::catalog_field_named(names[f]));
    }
    EXPECT_EQ(nullptr, appdb::catalog_field_named("dsid"));
    EXPECT_EQ(nullptr, appdb::catalog_field_named("file name:"));
}
