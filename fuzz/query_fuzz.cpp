// app_query::parse_query and query_sql on any string, and the statement they
// give run against an empty catalog table. Properties: no crash; a parsed
// query of a known type always yields a statement that SQLite prepares, with
// one parameter (two for a time range) that binds and runs; the static
// catalog_application_base::parse_query agrees with the member one.

#include <string>

#include "appdb/app_query.h"
#include "appdb/catalog_application_base.h"
#include "appdb/catalog_table.h"
#include "fuzz_common.h"
#include "sqlitedb/connection.h"

namespace {

sqlitedb::connection g_db;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzk::quiet();
    FUZZ_CHECK(g_db.open(":memory:", sqlitedb::open_mode::create) == CR_STATUS_OK);
    FUZZ_CHECK(g_db.exec(appdb::catalog_create_table_sql()) == CR_STATUS_OK);
    FUZZ_CHECK(g_db.exec(appdb::catalog_create_index_sql) == CR_STATUS_OK);
    // A few rows, so that GLOB patterns are matched against real text.
    FUZZ_CHECK(g_db.exec("INSERT INTO catalog(name, backupid, backup_start_time) VALUES"
                         "('f1','b*1',1),('f[2]','b?2',2),('x''y','%_',3)") == CR_STATUS_OK);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    appdb::app_query q;
    const bool parsed = q.parse_query(text);

    appdb::app_query q2;
    std::string sql2;
    const cr_status_t status = appdb::catalog_application_base::parse_query(text, q2, sql2);
    if (!parsed) {
        FUZZ_CHECK(status != 0);
        return 0;
    }

    std::string sql;
    const bool known = q.query_sql(sql);
    FUZZ_CHECK(known == (q.type >= appdb::APP_QUERY_NAME && q.type <= appdb::APP_QUERY_BACKUP_ID));
    if (!known) return 0;
    FUZZ_CHECK(status == 0 && sql2 == sql);

    sqlitedb::statement prepared;
    FUZZ_CHECK(g_db.prepare(sql.c_str(), &prepared) == CR_STATUS_OK);
    sqlitedb::statement_ref stmt = prepared.ref();
    const int params = stmt.parameter_count();
    if (q.type == appdb::APP_QUERY_TIME_RANGE) {
        FUZZ_CHECK(params == 2);
        FUZZ_CHECK(stmt.bind_int64(1, q.start_time) == SQLITE_OK);
        FUZZ_CHECK(stmt.bind_int64(2, q.stop_time) == SQLITE_OK);
    } else {
        FUZZ_CHECK(params == 1);
        // `value` lives until the statement's last step below.
        const std::string& value = q.type == appdb::APP_QUERY_NAME ? q.file_name : q.backup_id;
        FUZZ_CHECK(stmt.bind_bytes(1, value) == SQLITE_OK);
    }
    int rc;
    while ((rc = stmt.step()) == SQLITE_ROW) {
    }
    FUZZ_CHECK(rc == SQLITE_DONE);
    return 0;
}
