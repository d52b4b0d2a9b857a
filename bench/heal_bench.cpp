// Shadow protection: what it costs and how fast it heals.
//
//   BM_Insert/plain/*      update_catalog of the plain catalog (factory type 1)
//   BM_Insert/shadow/*     the same through the shadow-protected catalog
//                          (type 2): every insert also appends its journal
//                          line, syncs it and rewrites the checksum file
//   BM_Recover/*           find_catalog on a deleted database of 10,000 rows
//                          whose shadow is the empty first copy plus a
//                          10,000-line journal: the time of one recovery
//
// The last argument picks the file system: 0 the temporary directory (a
// disk, every sync waits for it), 1 /dev/shm (memory, syncs are free). The
// "vs_plain" counter of a shadow insert run is its time per insert over the
// plain one's on the same file system, measured in the same run.
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "appdb/catalog_application_base.h"
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"
#include "dct/log.h"

namespace {

namespace fs = std::filesystem;

void quiet_log() {
    dct::set_log_sink([](dct::log_level, cr_status_t, const std::string&) {});
}

std::string make_temp_dir(bool memory) {
    const char* tmp = getenv("TMPDIR");
    std::string base = memory ? "/dev/shm" : (tmp != nullptr && *tmp != '\0' ? tmp : "/tmp");
    std::string templ = base + "/kavrel-heal-bench-XXXXXX";
    if (mkdtemp(&templ[0]) == nullptr) return std::string();
    return templ;
}

// A pool below `dir` with its configuration and identity file.
struct bench_pool {
    explicit bench_pool(const std::string& dir_in) : dir(dir_in) { write_config(); }

    void write_config() const {
        const std::string text = "[Paths]\nStorageDatabase = " + dir + "/db\n[Storage]\nStorage Path = " + dir +
                                 "/storage\n";
        FILE* f = fopen((dir + "/pool.cfg").c_str(), "w");
        if (f != nullptr) {
            fputs(text.c_str(), f);
            fclose(f);
        }
        CatalogShadowIdentity((dir + "/storage/catalogshadow").c_str()).create_identity();
    }

    std::unique_ptr<CatalogShadowContext> context() const {
        std::unique_ptr<CatalogShadowContext> ctx(new CatalogShadowContext(
            new ConfigFileShadowProxy(dir + "/pool.cfg", dir + "/db"), new CatalogDirectoryLock));
        ctx->init();
        return ctx;
    }

    std::unique_ptr<appdb::catalog_application> app(appdb::application_d_t type, CatalogShadowContext* ctx) const {
        return std::unique_ptr<appdb::catalog_application>(
            appdb::catalog_application_factory::create_catalog(1, dir + "/db/databases", type, ctx, 5));
    }

    std::string db_file() const { return dir + "/db/databases/application/1/client/policy/app.db"; }

    std::string dir;
};

appdb::app_catalog_item item(long i) {
    appdb::app_catalog_item it;
    it.client = "client";
    it.policy = "policy";
    it.file_name = "/vol/data/dir" + std::to_string(i % 97) + "/file_" + std::to_string(i);
    it.backup_id = "client_" + std::to_string(1700000000 + i / 100);
    it.file_len = 1048576 + i;
    it.policy_type = 1;
    it.schedule_type = 2;
    it.frag_nums = 4;
    it.app_id = "app";
    it.data_object = "object " + std::to_string(i);
    it.backup_start_time = 1700000000 + i;
    it.backup_stop_time = 1700000100 + i;
    it.app_expire_time = 1800000000;
    it.orvo_expire_time = 1800000000;
    it.owner = "backup";
    it.owner_role = 4;
    it.description = "benchmark record";
    return it;
}

// Seconds per insert of the plain runs, by file system, for vs_plain.
std::map<int, double>& plain_seconds() {
    static std::map<int, double> m;
    return m;
}

void BM_Insert(benchmark::State& state) {
    quiet_log();
    const bool shadow = state.range(0) == 1;
    const bool memory = state.range(1) == 1;
    const std::string dir = make_temp_dir(memory);
    if (dir.empty()) {
        state.SkipWithError("no temporary directory");
        return;
    }
    {
        bench_pool pool(dir);
        std::unique_ptr<CatalogShadowContext> ctx = shadow ? pool.context() : nullptr;
        std::unique_ptr<appdb::catalog_application> app =
            pool.app(shadow ? appdb::APP_D_CATALOG_SHADOW : appdb::APP_D_CATALOG, ctx.get());
        // The database exists (and has its first copy) before timing starts.
        long i = 0;
        app->update_catalog("admin", 1, item(i++).to_string());
        const auto start = std::chrono::steady_clock::now();
        for (auto _ : state) {
            if (app->update_catalog("admin", 1, item(i++).to_string()) != 0) {
                state.SkipWithError("insert failed");
                break;
            }
        }
        const double per_insert =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() /
            static_cast<double>(state.iterations() > 0 ? state.iterations() : 1);
        state.SetItemsProcessed(state.iterations());
        if (!shadow) {
            plain_seconds()[memory ? 1 : 0] = per_insert;
        } else if (plain_seconds().count(memory ? 1 : 0) != 0) {
            state.counters["vs_plain"] = per_insert / plain_seconds()[memory ? 1 : 0];
        }
        state.SetLabel(std::string(shadow ? "shadow" : "plain") + (memory ? " /dev/shm" : " disk"));
    }
    fs::remove_all(dir);
}

void BM_Recover(benchmark::State& state) {
    quiet_log();
    const bool memory = state.range(0) == 1;
    const int rows = 10000;
    // The pool is made in memory (10,000 synced inserts on a disk take
    // minutes) and copied to the file system under test.
    const std::string build_dir = make_temp_dir(true);
    const std::string dir = memory ? build_dir : make_temp_dir(false);
    if (build_dir.empty() || dir.empty()) {
        state.SkipWithError("no temporary directory");
        return;
    }
    {
        bench_pool pool(build_dir);
        std::unique_ptr<CatalogShadowContext> ctx = pool.context();
        std::unique_ptr<appdb::catalog_application> app = pool.app(appdb::APP_D_CATALOG_SHADOW, ctx.get());
        for (long i = 0; i < rows; ++i) app->update_catalog("admin", 1, item(i).to_string());
    }
    if (!memory) {
        fs::copy(build_dir, dir, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
        fs::remove_all(build_dir);
        bench_pool(dir).write_config();  // the configuration names the new place
    }
    bench_pool pool(dir);
    std::unique_ptr<CatalogShadowContext> ctx = pool.context();
    size_t found = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::unique_ptr<appdb::catalog_application> app = pool.app(appdb::APP_D_CATALOG_SHADOW, ctx.get());
        unlink(pool.db_file().c_str());
        state.ResumeTiming();
        std::vector<appdb::app_catalog_item> items;
        if (app->find_catalog("admin", 1, "name|client,policy,/vol/data/dir0/file_0", items) != 0) {
            state.SkipWithError("recovery failed");
            break;
        }
        found = items.size();
    }
    if (found != 1) state.SkipWithError("recovered database lacks its rows");
    state.counters["rows"] = rows;
    state.counters["journal_lines"] = rows;
    state.SetLabel(memory ? "/dev/shm" : "disk");
    ctx.reset();
    fs::remove_all(dir);
}

}  // namespace

// Wall-clock time: an insert on a disk mostly waits for its syncs.
BENCHMARK(BM_Insert)->ArgNames({"shadow", "shm"})->Args({0, 0})->Args({1, 0})->Args({0, 1})->Args({1, 1})
    ->Unit(benchmark::kMicrosecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_Recover)->ArgName("shm")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
