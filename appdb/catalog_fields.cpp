#include "appdb/catalog_fields.h"

#include <string.h>

#include <charconv>

namespace appdb {

namespace {

using item = app_catalog_item;

constexpr catalog_field number32(const char* label, const char* name, uint32_t item::*m,
                                 field_kind kind = field_kind::u32) {
    return {label, name, kind, m, nullptr, nullptr, nullptr};
}
constexpr catalog_field size64(const char* label, const char* name, uint64_t item::*m) {
    return {label, name, field_kind::u64, nullptr, m, nullptr, nullptr};
}
constexpr catalog_field time64(const char* label, const char* name, int64_t item::*m) {
    return {label, name, field_kind::time, nullptr, nullptr, m, nullptr};
}
constexpr catalog_field text(const char* label, const char* name, std::string item::*m) {
    return {label, name, field_kind::text, nullptr, nullptr, nullptr, m};
}

// Indexes into catalog_fields, for the column table.
enum field_index {
    f_version, f_file_name, f_file_len, f_backup_id, f_policy, f_policy_type, f_schedule_type,
    f_frag_nums, f_client, f_app_id, f_data_object, f_app_expire_time, f_orvo_expire_time,
    f_backup_start_time, f_backup_stop_time, f_owner, f_owner_role, f_description,
    f_reserver0, f_reserver1, f_reserver2, f_reserver3, f_reserver4, f_reserver5, f_reserver6,
    f_reserver7, f_reserver8, f_reserver9,
};

// Gathers the checksummed bytes in a stack buffer so that Adler-32 runs over
// few, long pieces. Integers are written least significant byte first, so the
// stored checksums do not depend on the host.
class checksum_builder {
public:
    void put_number(uint64_t v, size_t bytes) {
        if (sizeof(buf_) - used_ < bytes) flush();
        unsigned char* p = buf_ + used_;
        for (size_t i = 0; i < bytes; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
        used_ += bytes;
    }

    void put_text(const std::string& s) {
        const size_t n = s.size();
        if (n == 0) return;
        if (n <= sizeof(buf_) - used_) {
            memcpy(buf_ + used_, s.data(), n);
            used_ += n;
            return;
        }
        // Does not fit: send what is gathered; a long text goes straight to
        // the checksum instead of being copied piece by piece.
        flush();
        if (n > sizeof(buf_) / 2) {
            adler_ = CRCAppend(adler_, reinterpret_cast<const unsigned char*>(s.data()), n);
        } else {
            memcpy(buf_, s.data(), n);
            used_ = n;
        }
    }

    uint32_t finish() {
        flush();
        return adler_;
    }

private:
    void flush() {
        if (used_ == 0) return;
        adler_ = CRCAppend(adler_, buf_, used_);
        used_ = 0;
    }

    uint32_t adler_ = 1;  // Adler-32 initial value
    size_t used_ = 0;
    unsigned char buf_[1024];
};

template <typename Int>
void append_number(std::string& out, Int v) {
    char buf[24];
    const auto res = std::to_chars(buf, buf + sizeof(buf), v);
    out.append(buf, res.ptr);
}

}  // namespace

const catalog_field catalog_fields[catalog_field_count] = {
    number32("version:", "version", &item::version),
    text("file name:", "file_name", &item::file_name),
    size64("file len:", "file_len", &item::file_len),
    text("backup id:", "backup_id", &item::backup_id),
    text("policy:", "policy", &item::policy),
    number32("policy type:", "policy_type", &item::policy_type),
    number32("schedule type:", "schedule_type", &item::schedule_type),
    number32("fragment numbers:", "frag_nums", &item::frag_nums),
    text("client:", "client", &item::client),
    text("appid:", "app_id", &item::app_id),
    text("data object:", "data_object", &item::data_object),
    time64("app expire time:", "app_expire_time", &item::app_expire_time),
    time64("orvo expire time:", "orvo_expire_time", &item::orvo_expire_time),
    time64("backup start time:", "backup_start_time", &item::backup_start_time),
    time64("backup stop time:", "backup_stop_time", &item::backup_stop_time),
    text("owner:", "owner", &item::owner),
    number32("owner role:", "owner_role", &item::owner_role, field_kind::role),
    text("description:", "description", &item::description),
    text("reserver0:", "reserver0", &item::reserver0),
    text("reserver1:", "reserver1", &item::reserver1),
    text("reserver2:", "reserver2", &item::reserver2),
    text("reserver3:", "reserver3", &item::reserver3),
    text("reserver4:", "reserver4", &item::reserver4),
    text("reserver5:", "reserver5", &item::reserver5),
    text("reserver6:", "reserver6", &item::reserver6),
    text("reserver7:", "reserver7", &item::reserver7),
    text("reserver8:", "reserver8", &item::reserver8),
    text("reserver9:", "reserver9", &item::reserver9),
};

// The column names are part of the on-disk format (and "dataobject",
// "backupid" and the "reserver" spelling with them).
const catalog_column catalog_columns[catalog_column_count] = {
    {"version", "INTEGER", f_version, true},
    {"name", "TEXT PRIMARY KEY", f_file_name, false},
    {"filename", "TEXT", f_file_name, true},
    {"filelen", "INTEGER", f_file_len, true},
    {"backupid", "TEXT", f_backup_id, true},
    {"policy_type", "INTEGER", f_policy_type, true},
    {"schedule_type", "INTEGER", f_schedule_type, true},
    {"frag_nums", "INTEGER", f_frag_nums, true},
    {"app_id", "TEXT", f_app_id, true},
    {"dataobject", "TEXT", f_data_object, true},
    {"backup_app_expire_time", "INTEGER", f_app_expire_time, true},
    {"backup_orvo_expire_time", "INTEGER", f_orvo_expire_time, true},
    {"backup_start_time", "INTEGER", f_backup_start_time, true},
    {"backup_stop_time", "INTEGER", f_backup_stop_time, true},
    {"owner", "TEXT", f_owner, true},
    {"owner_role", "INTEGER", f_owner_role, true},
    {"description", "TEXT", f_description, true},
    {"reserver0", "TEXT", f_reserver0, true},
    {"reserver1", "TEXT", f_reserver1, true},
    {"reserver2", "TEXT", f_reserver2, true},
    {"reserver3", "TEXT", f_reserver3, true},
    {"reserver4", "TEXT", f_reserver4, true},
    {"reserver5", "TEXT", f_reserver5, true},
    {"reserver6", "TEXT", f_reserver6, true},
    {"reserver7", "TEXT", f_reserver7, true},
    {"reserver8", "TEXT", f_reserver8, true},
    {"reserver9", "TEXT", f_reserver9, true},
    {"crc", "INTEGER", -1, false},
};

int64_t catalog_field::bound_number(const app_catalog_item& it) const {
    switch (kind) {
        case field_kind::u32:
        case field_kind::role:
            return static_cast<int32_t>(it.*u32);
        case field_kind::u64:
            return static_cast<int64_t>(it.*u64);
        case field_kind::time:
            return it.*i64;
        case field_kind::text:
            break;
    }
    return 0;
}

void catalog_field::set_number(app_catalog_item& it, int64_t value) const {
    switch (kind) {
        case field_kind::u32:
        case field_kind::role:
            it.*u32 = static_cast<uint32_t>(value);
            break;
        case field_kind::u64:
            it.*u64 = static_cast<uint64_t>(value);
            break;
        case field_kind::time:
            it.*i64 = value;
            break;
        case field_kind::text:
            break;
    }
}

const catalog_field* catalog_field_named(const std::string& name) {
    for (const catalog_field& f : catalog_fields) {
        if (name == f.name) return &f;
    }
    return nullptr;
}

uint32_t catalog_row_crc(const app_catalog_item& it) {
    checksum_builder b;
    for (const catalog_column& column : catalog_columns) {
        if (!column.checked) continue;
        const catalog_field& f = catalog_fields[column.field];
        switch (f.kind) {
            case field_kind::u32:
            case field_kind::role:
                b.put_number(it.*f.u32, 4);
                break;
            case field_kind::u64:
                b.put_number(it.*f.u64, 8);
                break;
            case field_kind::time:
                b.put_number(static_cast<uint64_t>(it.*f.i64), 8);
                break;
            case field_kind::text:
                b.put_text(it.*f.text);
                break;
        }
    }
    return b.finish();
}

void append_sql_quoted(std::string& out, const std::string& text) {
    // As SQLite's own "%Q" of the text's C string: it ends at a first NUL.
    // Items holding one are refused before they reach a statement.
    const size_t n = strlen(text.c_str());
    out.push_back('\'');
    for (size_t i = 0; i < n; ++i) {
        if (text[i] == '\'') out.push_back('\'');
        out.push_back(text[i]);
    }
    out.push_back('\'');
}

void append_insert_literal(std::string& out, const app_catalog_item& it, uint32_t crc) {
    out.append("INSERT INTO catalog VALUES (");
    for (int c = 0; c < catalog_column_count; ++c) {
        if (c != 0) out.append(", ");
        const catalog_column& column = catalog_columns[c];
        if (column.field < 0) {
            append_number(out, static_cast<int32_t>(crc));
            continue;
        }
        const catalog_field& f = catalog_fields[column.field];
        if (f.is_text()) {
            append_sql_quoted(out, it.*f.text);
        } else {
            append_number(out, f.bound_number(it));
        }
    }
    out.push_back(')');
}

}  // namespace appdb
