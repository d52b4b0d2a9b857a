// Catalog operations beside plain SQLite doing the same work in the same run:
//  - update_catalog, one record per call, against a C loop of single-row
//    INSERTs through one prepared statement (both commit every row);
//  - find_catalog by exact backup id and by GLOB on a 100,000-row database,
//    against the same prepared SELECT stepped and decoded with plain SQLite.
// The gap is what the catalog adds: parsing, the cache, the checksum check
// and the access rule. Databases live below $TMPDIR (default /tmp); on a disk
// the inserts are bound by fsync, TMPDIR=/dev/shm shows the CPU cost alone.
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include "appdb/catalog_application_impl.h"
#include "appdb/catalog_table.h"
#include "dct/fs.h"
#include "dct/log.h"

namespace {

using appdb::app_catalog_item;
using appdb::catalog_application_base;

constexpr int kRows = 100000;
constexpr int kRowsPerBackup = 100;

void quiet_log() {
    dct::set_log_sink([](dct::log_level, cr_status_t, const std::string&) {});
}

std::string temp_root(const char* tag) {
    const char* base = getenv("TMPDIR");
    std::string templ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                        "/kavrel-catalog-bench-" + tag + "-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) return "";
    return buf.data();
}

// A typical record: about 200 bytes of text.
app_catalog_item record(int i) {
    app_catalog_item it;
    it.client = "dbsrv01";
    it.policy = "daily";
    it.file_name = "/u01/app/oracle/archivelog/o1_mf_1_" + std::to_string(i) + ".arc";
    it.file_len = 268435456;
    it.backup_id = "B" + std::to_string(100000 + i / kRowsPerBackup);
    it.policy_type = 4;
    it.schedule_type = 1;
    it.frag_nums = 2;
    it.app_id = "ORCL";
    it.data_object = "archivelog thread 1";
    it.app_expire_time = 1702592000;
    it.orvo_expire_time = 1702592000;
    it.backup_start_time = 1700000000 + i;
    it.backup_stop_time = 1700000420 + i;
    it.owner = "oracle";
    it.owner_role = 4;
    it.description = "nightly archive log backup, level 0";
    return it;
}

// Binds the 28 columns the way a plain program would.
void bind_record(sqlite3_stmt* s, const app_catalog_item& it) {
    int k = 0;
    sqlite3_bind_int(s, ++k, static_cast<int>(it.version));
    sqlite3_bind_text(s, ++k, it.file_name.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(s, ++k, it.file_name.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int64(s, ++k, static_cast<int64_t>(it.file_len));
    sqlite3_bind_text(s, ++k, it.backup_id.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int(s, ++k, static_cast<int>(it.policy_type));
    sqlite3_bind_int(s, ++k, static_cast<int>(it.schedule_type));
    sqlite3_bind_int(s, ++k, static_cast<int>(it.frag_nums));
    sqlite3_bind_text(s, ++k, it.app_id.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(s, ++k, it.data_object.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int64(s, ++k, it.app_expire_time);
    sqlite3_bind_int64(s, ++k, it.orvo_expire_time);
    sqlite3_bind_int64(s, ++k, it.backup_start_time);
    sqlite3_bind_int64(s, ++k, it.backup_stop_time);
    sqlite3_bind_text(s, ++k, it.owner.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int(s, ++k, static_cast<int>(it.owner_role));
    for (const std::string* t : {&it.description, &it.reserver0, &it.reserver1, &it.reserver2,
                                 &it.reserver3, &it.reserver4, &it.reserver5, &it.reserver6,
                                 &it.reserver7, &it.reserver8, &it.reserver9}) {
        sqlite3_bind_text(s, ++k, t->c_str(), -1, SQLITE_STATIC);
    }
    sqlite3_bind_int(s, ++k, static_cast<int>(catalog_application_base::crc_value(it)));
}

std::string text_of(sqlite3_stmt* s, int i) {
    const unsigned char* t = sqlite3_column_text(s, i);
    return t ? std::string(reinterpret_cast<const char*>(t), sqlite3_column_bytes(s, i)) : std::string();
}

// Decodes a row as a plain program would (no checksum check).
void decode(sqlite3_stmt* s, app_catalog_item& it) {
    it.version = static_cast<uint32_t>(sqlite3_column_int(s, 0));
    it.file_name = text_of(s, 2);
    it.file_len = static_cast<uint64_t>(sqlite3_column_int64(s, 3));
    it.backup_id = text_of(s, 4);
    it.policy_type = static_cast<uint32_t>(sqlite3_column_int(s, 5));
    it.schedule_type = static_cast<uint32_t>(sqlite3_column_int(s, 6));
    it.frag_nums = static_cast<uint32_t>(sqlite3_column_int(s, 7));
    it.app_id = text_of(s, 8);
    it.data_object = text_of(s, 9);
    it.app_expire_time = sqlite3_column_int64(s, 10);
    it.orvo_expire_time = sqlite3_column_int64(s, 11);
    it.backup_start_time = sqlite3_column_int64(s, 12);
    it.backup_stop_time = sqlite3_column_int64(s, 13);
    it.owner = text_of(s, 14);
    it.owner_role = static_cast<uint32_t>(sqlite3_column_int(s, 15));
    it.description = text_of(s, 16);
    std::string* r[] = {&it.reserver0, &it.reserver1, &it.reserver2, &it.reserver3, &it.reserver4,
                        &it.reserver5, &it.reserver6, &it.reserver7, &it.reserver8, &it.reserver9};
    for (int i = 0; i < 10; ++i) *r[i] = text_of(s, 17 + i);
}

// ---- inserts ----

void BM_UpdateCatalog(benchmark::State& state) {
    quiet_log();
    const std::string root = temp_root("update");
    {
        appdb::catalog_application_impl app(1, root, 5);
        app.dir_lock.reset(new CatalogDirectoryLock());
        int i = 0;
        for (auto _ : state) {
            const std::string text = record(i++).to_string();
            if (app.update_catalog("oracle", 4, text) != 0) {
                state.SkipWithError("update_catalog failed");
                break;
            }
        }
        state.SetItemsProcessed(state.iterations());
    }
    wa_deletetree(root);
}

void BM_PlainSqliteInsert(benchmark::State& state) {
    const std::string root = temp_root("plain-insert");
    const std::string file = root + "/app.db";
    sqlite3* db = nullptr;
    sqlite3_open(file.c_str(), &db);
    sqlite3_exec(db, appdb::catalog_create_table_sql(), nullptr, nullptr, nullptr);
    sqlite3_exec(db, appdb::catalog_create_index_sql, nullptr, nullptr, nullptr);
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, appdb::catalog_insert_sql(), -1, &s, nullptr);
    int i = 0;
    for (auto _ : state) {
        const app_catalog_item it = record(i++);
        bind_record(s, it);
        if (sqlite3_step(s) != SQLITE_DONE) {
            state.SkipWithError("insert failed");
            break;
        }
        sqlite3_reset(s);
    }
    state.SetItemsProcessed(state.iterations());
    sqlite3_finalize(s);
    sqlite3_close(db);
    wa_deletetree(root);
}

// ---- queries on 100,000 rows ----

// One database of kRows rows (kRowsPerBackup per backup id), written once
// with plain SQLite in one transaction, in the catalog's own layout.
class query_database {
public:
    static query_database& get() {
        static query_database instance;
        return instance;
    }
    const std::string& root() const { return root_; }
    std::string file() const { return root_ + "/application/1/dbsrv01/daily/app.db"; }
    ~query_database() { wa_deletetree(root_); }

private:
    query_database() : root_(temp_root("query")) {
        quiet_log();
        appdb::catalog_application_impl app(1, root_, 5);
        app.create_db("dbsrv01", "daily");
        sqlite3* db = nullptr;
        sqlite3_open(file().c_str(), &db);
        sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
        sqlite3_stmt* s = nullptr;
        sqlite3_prepare_v2(db, appdb::catalog_insert_sql(), -1, &s, nullptr);
        for (int i = 0; i < kRows; ++i) {
            const app_catalog_item it = record(i);
            bind_record(s, it);
            sqlite3_step(s);
            sqlite3_reset(s);
        }
        sqlite3_finalize(s);
        sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
        sqlite3_close(db);
    }
    std::string root_;
};

// Exact backup id: 100 rows through the index. GLOB: ten backups, 1,000 rows,
// ordered by start time.
const char* const kExactId = "B100500";
const char* const kPattern = "B10050*";

void find_catalog_bench(benchmark::State& state, const std::string& pattern, size_t want) {
    quiet_log();
    query_database& qdb = query_database::get();
    appdb::catalog_application_impl app(1, qdb.root(), 5);
    app.dir_lock.reset(new CatalogDirectoryLock());
    const std::string query = appdb::to_query_by_backup_id("dbsrv01", "daily", pattern);
    std::vector<app_catalog_item> items;
    for (auto _ : state) {
        items.clear();
        if (app.find_catalog("oracle", 4, query, items) != 0 || items.size() != want) {
            state.SkipWithError("find_catalog failed");
            break;
        }
        benchmark::DoNotOptimize(items.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(want));
}

void plain_select_bench(benchmark::State& state, const char* sql, const std::string& pattern,
                        size_t want) {
    query_database& qdb = query_database::get();
    sqlite3* db = nullptr;
    sqlite3_open_v2(qdb.file().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, sql, -1, &s, nullptr);
    std::vector<app_catalog_item> items;
    for (auto _ : state) {
        items.clear();
        sqlite3_bind_text(s, 1, pattern.c_str(), -1, SQLITE_STATIC);
        while (sqlite3_step(s) == SQLITE_ROW) {
            items.emplace_back();
            decode(s, items.back());
        }
        sqlite3_reset(s);
        if (items.size() != want) {
            state.SkipWithError("plain select failed");
            break;
        }
        benchmark::DoNotOptimize(items.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(want));
    sqlite3_finalize(s);
    sqlite3_close(db);
}

void BM_FindCatalogExactBackupId(benchmark::State& state) {
    find_catalog_bench(state, kExactId, kRowsPerBackup);
}

void BM_PlainSqliteSelectExactBackupId(benchmark::State& state) {
    plain_select_bench(state, "SELECT * FROM catalog WHERE backupid = ?", kExactId, kRowsPerBackup);
}

void BM_FindCatalogGlobBackupId(benchmark::State& state) {
    find_catalog_bench(state, kPattern, 10 * kRowsPerBackup);
}

void BM_PlainSqliteSelectGlobBackupId(benchmark::State& state) {
    plain_select_bench(state,
                       "SELECT * FROM catalog WHERE backupid GLOB ? ORDER BY backup_start_time ASC",
                       kPattern, 10 * kRowsPerBackup);
}

BENCHMARK(BM_UpdateCatalog);
BENCHMARK(BM_PlainSqliteInsert);
BENCHMARK(BM_FindCatalogExactBackupId);
BENCHMARK(BM_PlainSqliteSelectExactBackupId);
BENCHMARK(BM_FindCatalogGlobBackupId);
BENCHMARK(BM_PlainSqliteSelectGlobBackupId);

}  // namespace
