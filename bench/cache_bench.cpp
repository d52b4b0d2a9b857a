// Open-database cache: a cache hit (get_db + return_db) against opening and
// closing the SQLite file for every operation, over 1, 5 and 100 databases.
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include "appdb/appdb_cache.h"
#include "dct/log.h"

namespace {

// A directory of `n` small catalog-like databases, removed at the end.
class bench_dir {
public:
    explicit bench_dir(int n) {
        char templ[] = "/tmp/kavrel-cache-bench-XXXXXX";
        if (mkdtemp(templ) != nullptr) root_ = templ;
        for (int i = 0; i < n; ++i) {
            paths_.push_back(root_ + "/app" + std::to_string(i) + ".db");
            sqlite3* db = nullptr;
            sqlite3_open(paths_.back().c_str(), &db);
            sqlite3_exec(db, "CREATE TABLE catalog(id INTEGER PRIMARY KEY, backup_id TEXT);", nullptr,
                         nullptr, nullptr);
            sqlite3_close(db);
        }
    }
    ~bench_dir() {
        for (const auto& p : paths_) unlink(p.c_str());
        if (!root_.empty()) rmdir(root_.c_str());
    }
    const std::vector<std::string>& paths() const { return paths_; }

private:
    std::string root_;
    std::vector<std::string> paths_;
};

void quiet_log() {
    dct::set_log_sink([](dct::log_level, cr_status_t, const std::string&) {});
}

void BM_CacheHit(benchmark::State& state) {
    quiet_log();
    const int n = static_cast<int>(state.range(0));
    bench_dir dir(n);
    appdb::appdb_cache cache(static_cast<unsigned>(n));
    for (const auto& p : dir.paths()) {
        sqlite3* db = nullptr;
        sqlite3_open(p.c_str(), &db);
        cache.return_db(p, cache.create_db(p, appdb::catalog_store::adopt(db, p)));
    }
    size_t i = 0;
    for (auto _ : state) {
        const std::string& p = dir.paths()[i++ % dir.paths().size()];
        appdb::appdb_value* v = cache.get_db(p);
        benchmark::DoNotOptimize(v);
        if (v == nullptr || !cache.return_db(p, v)) {
            state.SkipWithError("cache miss");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["ops/s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                 benchmark::Counter::kIsRate);
}

void BM_OpenClose(benchmark::State& state) {
    quiet_log();
    const int n = static_cast<int>(state.range(0));
    bench_dir dir(n);
    size_t i = 0;
    for (auto _ : state) {
        const std::string& p = dir.paths()[i++ % dir.paths().size()];
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(p.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
            sqlite3_close(db);
            state.SkipWithError("open failed");
            break;
        }
        sqlite3_busy_timeout(db, 10000);
        sqlite3_extended_result_codes(db, 1);
        sqlite3_close(db);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["ops/s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                 benchmark::Counter::kIsRate);
}

BENCHMARK(BM_CacheHit)->Arg(1)->Arg(5)->Arg(100);
BENCHMARK(BM_OpenClose)->Arg(1)->Arg(5)->Arg(100);

}  // namespace
