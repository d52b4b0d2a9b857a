// Shadow backup and recovery on databases of a realistic size.
//
//   BM_RecoverAppDb     rebuilds a lost application database of N rows from its
//                       version and a journal of N statements (default
//                       100,000; KAVREL_BENCH_RECOVER_ROWS overrides).
//   BM_BackupLargeDb    backs up a database of M MiB (default 100;
//                       KAVREL_BENCH_BACKUP_MB overrides), one row changed
//                       before each backup so that none is skipped.
//
// The pool lives in a temporary directory below $TMPDIR (or /tmp), removed at
// exit. Log records are dropped.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"
#include "catalog_shadow/PODBShadowPool.h"
#include "dct/fs.h"
#include "dct/log.h"

namespace {

long env_number(const char* name, long fallback) {
    const char* value = getenv(name);
    if (value == nullptr || *value == '\0') return fallback;
    long n = strtol(value, nullptr, 10);
    return n > 0 ? n : fallback;
}

void exec(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) throw std::runtime_error("cannot open " + path);
    char* err = nullptr;
    int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
    std::string text = err != nullptr ? err : "";
    sqlite3_free(err);
    sqlite3_close(db);
    if (rc != SQLITE_OK) throw std::runtime_error(sql.substr(0, 80) + ": " + text);
}

std::string insert_row(long id, int blob_bytes) {
    return "INSERT INTO catalog (id, backup_id, name, size, data) VALUES (" + std::to_string(id) + ", 'bk-" +
           std::to_string(id % 97) + "', 'name-" + std::to_string(id) + "', " + std::to_string(id * 1000) +
           ", zeroblob(" + std::to_string(blob_bytes) + "))";
}

const char kSchema[] =
    "CREATE TABLE catalog (id INTEGER PRIMARY KEY, backup_id TEXT, name TEXT, size INTEGER, data BLOB);"
    "CREATE INDEX catalog_name ON catalog(name);";

// A pool with its configuration, identity file and shadow context, in a
// temporary directory.
class Pool {
public:
    Pool() {
        dct::set_log_sink([](dct::log_level, cr_status_t, const std::string&) {});
        const char* base = getenv("TMPDIR");
        std::string templ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kavrel-bench-XXXXXX";
        if (mkdtemp(&templ[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
        root_ = templ;
        const std::string config = root_ + "/pool.cfg";
        std::ofstream(config) << "[Paths]\nStorageDatabase = " << root_ << "/db\n[Storage]\nStorage Path = " << root_
                              << "/storage\n";
        CatalogShadowIdentity identity((root_ + "/storage/catalogshadow").c_str());
        identity.create_identity();
        ctx_.reset(new CatalogShadowContext(new ConfigFileShadowProxy(config, root_ + "/db"),
                                            new CatalogDirectoryLock));
        if (ctx_->init() != CR_STATUS_OK) throw std::runtime_error("shadow context init failed");
    }
    ~Pool() {
        ctx_.reset();
        wa_deletetree(root_);
    }

    CatalogShadowContext& ctx() { return *ctx_; }
    std::string app_dir(const std::string& rel) const { return root_ + "/db/databases/application/" + rel; }

private:
    std::string root_;
    std::unique_ptr<CatalogShadowContext> ctx_;
};

Pool& pool() {
    static Pool p;
    return p;
}

// An application database of `rows` rows, backed up, then `rows` more rows
// inserted and journalled (one flush at the end, as a long run of catalog
// changes leaves it).
std::string recover_setup(long rows) {
    Pool& p = pool();
    const std::string dir = p.app_dir("1/client/recover");
    wa_createtree(dir, 0755);
    const std::string db = dir + "/app.db";
    std::string sql = std::string(kSchema) + "BEGIN;";
    for (long id = 1; id <= rows; ++id) sql += insert_row(id, 64) + ";";
    exec(db, sql + "COMMIT;");
    if (p.ctx().backup_unlocked(dir, "appdb", 0) != CR_STATUS_OK) throw std::runtime_error("backup failed");

    boost::shared_ptr<PODBShadow> shadow = p.ctx().pool->get(dir);
    sql = "BEGIN;";
    for (long id = rows + 1; id <= 2 * rows; ++id) {
        const std::string statement = insert_row(id, 64);
        sql += statement + ";";
        if (shadow->write_journal("appdb", statement) != CR_STATUS_OK) throw std::runtime_error("journal failed");
    }
    exec(db, sql + "COMMIT;");
    if (shadow->flush_journal("appdb") != CR_STATUS_OK) throw std::runtime_error("flush failed");
    return dir;
}

void BM_RecoverAppDb(benchmark::State& state) {
    const long rows = env_number("KAVREL_BENCH_RECOVER_ROWS", 100000);
    static const std::string dir = recover_setup(rows);
    const std::string db = dir + "/app.db";
    for (auto _ : state) {
        state.PauseTiming();
        unlink(db.c_str());
        state.ResumeTiming();
        if (pool().ctx().recover_unlocked(dir, "appdb", 0) != CR_STATUS_OK) {
            state.SkipWithError("recovery failed");
            break;
        }
    }
    state.counters["rows"] = static_cast<double>(2 * rows);
    state.counters["journal_lines"] = static_cast<double>(rows);
}
BENCHMARK(BM_RecoverAppDb)->Unit(benchmark::kMillisecond)->Iterations(3);

// A database of about `mib` MiB: rows of 1 KiB.
std::string backup_setup(long mib) {
    Pool& p = pool();
    const std::string dir = p.app_dir("1/client/backup");
    wa_createtree(dir, 0755);
    const std::string db = dir + "/app.db";
    exec(db, kSchema);
    const long rows = mib * 1024 * 1024 / 1100;
    for (long first = 1; first <= rows; first += 10000) {
        std::string sql = "BEGIN;";
        for (long id = first; id < first + 10000 && id <= rows; ++id) sql += insert_row(id, 1024) + ";";
        exec(db, sql + "COMMIT;");
    }
    return dir;
}

void BM_BackupLargeDb(benchmark::State& state) {
    const long mib = env_number("KAVREL_BENCH_BACKUP_MB", 100);
    static const std::string dir = backup_setup(mib);
    const std::string db = dir + "/app.db";
    long round = 0;
    int64_t bytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        exec(db, "UPDATE catalog SET size = " + std::to_string(++round) + " WHERE id = 1;");
        std::ifstream in(db, std::ios::binary | std::ios::ate);
        bytes += static_cast<int64_t>(in.tellg());
        state.ResumeTiming();
        if (pool().ctx().backup_unlocked(dir, "appdb", 0) != CR_STATUS_OK) {
            state.SkipWithError("backup failed");
            break;
        }
    }
    state.SetBytesProcessed(bytes);
    state.counters["MiB"] = static_cast<double>(mib);
}
BENCHMARK(BM_BackupLargeDb)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
