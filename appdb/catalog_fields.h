// The fields of a catalog item and the columns of the `catalog` table,
// described once. Every form a row takes walks these two tables: the line form
// and the labelled form of an item, the table's schema and insert statement,
// the binding and decoding of a row, the row checksum and the literal INSERT
// text of the journal. Adding a form means walking the tables, never spelling
// out the 28 fields again.
#ifndef APPDB_CATALOG_FIELDS_H_
#define APPDB_CATALOG_FIELDS_H_

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "appdb/app_catalog_item.h"

namespace appdb {

// How a field is held, and so how it is printed, bound and checksummed.
enum class field_kind {
    u32,   // uint32_t; bound as a signed 32-bit integer, checksummed as 4 bytes
    role,  // uint32_t owner role; as u32, but the labelled form shows its word
    u64,   // uint64_t size; bound as a signed 64-bit integer, 8 bytes
    time,  // int64_t seconds; the line form prints it as unsigned 64-bit
    text,  // std::string
};

// One field of app_catalog_item, in declaration (= line form) order. Exactly
// one of the member pointers is set, the one its kind names.
struct catalog_field {
    const char* label;  // the labelled form's label, e.g. "file name:"
    const char* name;   // the member's name, e.g. "file_name": the key of the
                        // machine-readable forms (JSON, CSV, format fields)
    field_kind kind;
    uint32_t app_catalog_item::*u32;
    uint64_t app_catalog_item::*u64;
    int64_t app_catalog_item::*i64;
    std::string app_catalog_item::*text;

    bool is_text() const { return kind == field_kind::text; }
    // The field as the 64-bit value the table binds (u32 and role as the
    // signed 32-bit value, the others as signed 64-bit); text fields give 0.
    int64_t bound_number(const app_catalog_item& item) const;
    // Stores a number read back from a column (or the line form).
    void set_number(app_catalog_item& item, int64_t value) const;
};

constexpr size_t catalog_field_count = 28;
extern const catalog_field catalog_fields[catalog_field_count];

// One column of the `catalog` table, in table order. `field` indexes
// catalog_fields; the crc column has none (-1). `checked` columns are the
// checksum's coverage, in column order: every column but the key (a second
// copy of the file name) and the crc itself. The two fields that are not
// columns, client and policy, name the database, not a row.
struct catalog_column {
    const char* name;
    const char* declaration;  // its type in the CREATE TABLE text
    int field;
    bool checked;
};

constexpr int catalog_column_count = 28;
constexpr int catalog_crc_column = catalog_column_count - 1;
extern const catalog_column catalog_columns[catalog_column_count];

// The field whose member name is `name`, or null.
const catalog_field* catalog_field_named(const std::string& name);

// The item checksum stored in (and verified against) the crc column:
// Adler-32 from 1 over the checked columns in column order, numbers as
// little-endian bytes (4 for 32-bit fields, 8 for the size and the times),
// text without terminator or separator. Existing databases depend on this
// exact coverage.
uint32_t catalog_row_crc(const app_catalog_item& item);

// The literal INSERT of `item` with checksum `crc`, as the journal keeps it:
// "INSERT INTO catalog VALUES (" the columns' values ", " apart ")", numbers
// as the values the prepared insert binds, text as SQL literals ('...' with
// every quote doubled). Replayed, it stores the very row the insert stored.
void append_insert_literal(std::string& out, const app_catalog_item& item, uint32_t crc);

// The SQL literal of a text: quoted, every "'" doubled.
void append_sql_quoted(std::string& out, const std::string& text);

}  // namespace appdb

#endif  // APPDB_CATALOG_FIELDS_H_
