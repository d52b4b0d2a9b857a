// The catalog item: one application backup item as the catalog stores it, and
// its text forms.
//
// The line form (to_string / from_string) is how items travel between callers
// and the catalog library: the 28 fields in declaration order, each followed by
// "|", written raw. The labelled form (to_json_string) is the verbose listing.
// The item checksum lives in catalog_application_base::crc_value.
#ifndef APPDB_APP_CATALOG_ITEM_H_
#define APPDB_APP_CATALOG_ITEM_H_

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <sstream>
#include <string>

namespace appdb {

// Owner roles of an item (and user roles of the catalog operations).
constexpr uint32_t APP_ROLE_ADMIN = 1;  // administrator, "admin"
constexpr uint32_t APP_ROLE_APP = 4;    // application user, "app"

// "admin" for 1, "app" for 4, "unknown role" for anything else.
const char* owner_role_str(uint32_t role);

// Formats a time (seconds) for the labelled form; an empty function means none.
using time_formatter = std::function<std::string(int64_t)>;

// A plain value type: no base, no virtual members, copied member-wise. The
// checksum is never kept in the record; it is computed when needed. Objects
// share nothing, so different threads may use different items freely.
//
// What a service fills in: `client` and `policy` choose the database the item
// lives in; `file_name` names it (del_catalog, find_by_file_name) and
// `backup_id` groups the items of one backup (queries by backup id, expiry by
// header image); `owner` and `owner_role` decide who may read and remove it
// (authentication_application.h). The other fields are stored and returned as
// given.
class app_catalog_item {
public:
    // version 1, policy_type 4, owner_role APP_ROLE_APP; numbers 0 and text
    // empty otherwise.
    app_catalog_item();
    app_catalog_item(const app_catalog_item& other);
    app_catalog_item& operator=(const app_catalog_item& other);
    // Moves leave `other` valid but unspecified. Declared so that result
    // vectors move their items when they grow instead of copying every string.
    app_catalog_item(app_catalog_item&& other) noexcept;
    app_catalog_item& operator=(app_catalog_item&& other) noexcept;
    ~app_catalog_item();

    // The line form: every field in order followed by "|" (28 separators).
    // 32-bit numbers as unsigned decimal; file_len and the four times as
    // unsigned 64-bit decimal, so a negative time prints as its two's
    // complement. Text is not escaped: a "|" inside a field breaks reading.
    std::string to_string() const;

    // The labelled form: "{\n", one line per field with its label padded to 25
    // columns, then "}" without a newline. Times go through time_display, the
    // owner role is shown as a word.
    std::string to_json_string(std::function<std::string(int64_t)> formatter = nullptr) const;

    // `formatter(t)` when a formatter is given, else `t` as signed decimal.
    static std::string time_display(int64_t t, const time_formatter& formatter);

    uint32_t version;
    std::string file_name;
    uint64_t file_len;
    std::string backup_id;
    std::string policy;
    uint32_t policy_type;
    uint32_t schedule_type;
    uint32_t frag_nums;
    std::string client;
    std::string app_id;
    std::string data_object;
    int64_t app_expire_time;
    int64_t orvo_expire_time;
    int64_t backup_start_time;
    int64_t backup_stop_time;
    std::string owner;
    uint32_t owner_role;
    std::string description;
    // Reserved text, stored and carried but never interpreted ("reserver" is
    // also the column name).
    std::string reserver0;
    std::string reserver1;
    std::string reserver2;
    std::string reserver3;
    std::string reserver4;
    std::string reserver5;
    std::string reserver6;
    std::string reserver7;
    std::string reserver8;
    std::string reserver9;
};

// Reads the line form from `in` into `item`: tokens up to each "|" (a last
// token without "|" runs to the end of the stream). Numbers are converted with
// atol/atoll and never checked, so a bad number reads as 0 or its leading
// digits. Returns true as soon as the 28th field is stored, leaving anything
// after it unread; returns false when the stream ends earlier, with the fields
// read so far already stored. While tracing is on, every token is traced.
bool from_string(std::istringstream& in, app_catalog_item& item);

// The label (as in the labelled form, e.g. "description:") of the first
// stored text field of `item` that holds a NUL byte, or null when none does.
// A NUL is the one byte a row cannot carry back: SQLite takes a bound text and
// the journal's quoted literal up to their first NUL, while the row checksum
// covers the whole field, so such a row would read as corrupt. Every other
// byte (line breaks, quotes, control bytes, bytes that are not UTF-8) is
// stored, journalled and read back unchanged; "|" never reaches a field, as
// it ends the field in the line form.
const char* unstorable_text_field(const app_catalog_item& item);

// Continues the Adler-32 value `adler` over `length` bytes at `data`, exactly
// as zlib's adler32: a null `data` returns 1, a zero length returns `adler`.
uint32_t CRCAppend(uint32_t adler, const unsigned char* data, size_t length);

}  // namespace appdb

#endif  // APPDB_APP_CATALOG_ITEM_H_
