// appdb::from_string on any bytes. Properties: no crash; an item read whole
// prints (to_string, to_json_string) and reads back to the same line, as
// long as its times are not negative (a negative time prints as its unsigned
// two's complement, which atoll cannot read back).
//
// Round trip: an item that update_catalog accepts reads back unchanged, and
// so does the row rebuilt from its journal statement (the literal INSERT,
// replayed as a recovery replays a journal into a fresh database). An item
// refused for a NUL byte or a bad client or policy name leaves no database.
#include <stdint.h>

#include <sstream>
#include <string>
#include <vector>

#include "appdb/app_catalog_item.h"
#include "appdb/catalog_application_impl.h"
#include "fuzz_common.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace {

// The rows stored for the item's client, policy and file name, read back
// with their checksums verified.
std::vector<appdb::app_catalog_item> read_back(appdb::catalog_application_base& app,
                                               const appdb::app_catalog_item& item) {
    appdb::app_query query;
    query.type = appdb::APP_QUERY_NAME;
    query.client = item.client;
    query.policy = item.policy;
    query.file_name = item.file_name;
    query.wildcard = false;
    std::vector<appdb::app_catalog_item> found;
    FUZZ_CHECK(app.do_db_query(query, found, "") == 0);
    return found;
}

void check_round_trip(const appdb::app_catalog_item& item, const std::string& text) {
    const std::string root = fuzzk::scratch_dir() + "/databases";
    wa_deletetree(root);
    appdb::catalog_application_impl app(1, root, 2);
    const cr_status_t status = app.update_catalog("admin", 1, text);
    const bool bad_name =
        appdb::catalog_application_base::check_db_names("fuzz", item.client, item.policy) != 0;
    if (bad_name || appdb::unstorable_text_field(item) != nullptr) {
        FUZZ_CHECK(status != 0);
        FUZZ_CHECK(wa_access(root, 0) != 0);  // nothing made
        return;
    }
    // Anything else may still fail for the file system (a name too long).
    if (status != 0) return;
    std::vector<appdb::app_catalog_item> found = read_back(app, item);
    FUZZ_CHECK(found.size() == 1);
    FUZZ_CHECK(found[0].to_string() == item.to_string());

    // The journal statement of the same insert, replayed into a fresh
    // database, gives the same row.
    const std::string dir = app.to_db_full_path(item.client, item.policy);
    FUZZ_CHECK(app.close_db(dir, 0, false) == 0);
    FUZZ_CHECK(wa_deletefile(app.to_db_full_name(item.client, item.policy)) == 0);
    FUZZ_CHECK(app.create_db(item.client, item.policy) == 0);
    std::string statement;
    FUZZ_CHECK(app.do_db_insert(item, statement) == 0);
    FUZZ_CHECK(app.close_db(dir, 0, false) == 0);
    FUZZ_CHECK(wa_deletefile(app.to_db_full_name(item.client, item.policy)) == 0);
    FUZZ_CHECK(app.create_db(item.client, item.policy) == 0);
    {
        sqlitedb::sqlite3_wrapper replay(app.to_db_full_name(item.client, item.policy));
        FUZZ_CHECK(replay.open_db() == 0);
        FUZZ_CHECK(replay.exec(statement + ";\n") == 0);
    }
    found = read_back(app, item);
    FUZZ_CHECK(found.size() == 1);
    FUZZ_CHECK(found[0].to_string() == item.to_string());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzk::quiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::istringstream in(text);
    appdb::app_catalog_item item;
    const bool whole = appdb::from_string(in, item);
    (void)item.to_json_string(nullptr);
    (void)appdb::catalog_application_base::crc_value(item);
    if (!whole) return 0;

    const std::string line = item.to_string();
    size_t bars = 0;
    for (char c : line) bars += c == '|' ? 1 : 0;
    FUZZ_CHECK(bars == 28);

    std::istringstream again(line);
    appdb::app_catalog_item copy;
    FUZZ_CHECK(appdb::from_string(again, copy));
    if (item.file_len <= static_cast<uint64_t>(INT64_MAX) && item.app_expire_time >= 0 &&
        item.orvo_expire_time >= 0 && item.backup_start_time >= 0 && item.backup_stop_time >= 0) {
        FUZZ_CHECK(copy.to_string() == line);
        FUZZ_CHECK(appdb::catalog_application_base::crc_value(copy) ==
                   appdb::catalog_application_base::crc_value(item));
    }
    check_round_trip(item, text);
    return 0;
}
