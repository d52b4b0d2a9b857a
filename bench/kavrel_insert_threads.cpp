// kavrel_insert_threads TYPE DBROOT COUNT THREADS DBS [GROUP]
//
// Aggregate insert throughput of several threads of one process sharing one
// catalog (and for TYPE 2 one shadow context), as the streams of one backup
// end together: THREADS threads insert COUNT rows between them, COUNT /
// THREADS each, one row per update_catalog call; thread t writes into
// database t % DBS (clients client0000 ...). The databases are created (with
// their first shadow copy) before the clock starts, and every thread has its
// rows ready before it is released; the time is from the release to the end
// of the last thread. GROUP is the most changes one commit takes (the
// catalog's default when left out; 1 commits every row on its own).
//
// After the elapsed_ns line it prints the groups the catalog committed:
// "groups: alone A (T ms each), groups G of C changes (T ms each), largest L,
// given up U, sizes N:K ..." (T: how long the front held the database; a
// group size N seen K times).
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench_item.h"

int main(int argc, char** argv) {
    if (argc != 6 && argc != 7) {
        fprintf(stderr, "usage: kavrel_insert_threads 1|2 DBROOT COUNT THREADS DBS [GROUP]\n");
        return 2;
    }
    const int type = atoi(argv[1]);
    const std::string root = argv[2];
    const long count = atol(argv[3]);
    const long threads = atol(argv[4]);
    const long dbs = atol(argv[5]);
    const long group = argc == 7 ? atol(argv[6]) : 0;
    if (count < 1 || threads < 1 || dbs < 1 || dbs > threads || (argc == 7 && group < 1)) {
        fprintf(stderr, "kavrel_insert_threads: need COUNT >= 1, 1 <= DBS <= THREADS, GROUP >= 1\n");
        return 2;
    }

    std::unique_ptr<CatalogShadowContext> ctx;
    std::unique_ptr<appdb::catalog_application> app = bench_open_catalog(type, root, &ctx);
    if (!app) return 1;
    auto* base = dynamic_cast<appdb::catalog_application_base*>(app.get());
    if (base == nullptr) return 1;
    if (group > 0) base->use_commit_bounds(static_cast<unsigned>(group), std::nullopt);

    if (!bench_make_databases(*app, count, dbs, "kavrel_insert_threads")) return 1;

    std::vector<std::vector<std::string>> lines(threads);
    const long per = count / threads;
    for (long t = 0; t < threads; ++t) {
        const long first = t * per;
        const long part = t == threads - 1 ? count - per * (threads - 1) : per;
        for (long i = first; i < first + part; ++i) {
            bench_row r;
            bench_make_row(i, &r);
            lines[t].push_back(bench_item(r, bench_client_name(t % dbs)).to_string());
        }
    }

    std::mutex mutex;
    std::condition_variable go;
    bool released = false;
    long ready = 0;
    std::atomic<long> failed{0};
    std::vector<std::thread> workers;
    for (long t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            {
                std::unique_lock<std::mutex> lock(mutex);
                ++ready;
                go.notify_all();
                go.wait(lock, [&] { return released; });
            }
            for (const std::string& line : lines[t]) {
                if (app->update_catalog("oracle", appdb::APP_ROLE_APP, line) != CR_STATUS_OK) ++failed;
            }
        });
    }
    int64_t start;
    {
        std::unique_lock<std::mutex> lock(mutex);
        go.wait(lock, [&] { return ready == threads; });
        start = bench_now_ns();
        released = true;
        go.notify_all();
    }
    for (std::thread& w : workers) w.join();
    const int64_t elapsed = bench_now_ns() - start;
    if (failed != 0) {
        fprintf(stderr, "kavrel_insert_threads: %ld inserts failed\n", failed.load());
        return 1;
    }
    bench_report(elapsed, count);

    const appdb::commit_statistics stats = base->group_statistics();
    const auto ms = [](std::chrono::steady_clock::duration d, unsigned long n) {
        return n == 0 ? 0.0 : std::chrono::duration<double, std::milli>(d).count() / static_cast<double>(n);
    };
    printf("groups: alone %lu (%.2f ms each), groups %lu of %lu changes (%.2f ms each), largest %zu, given up %lu, "
           "sizes",
           stats.alone, ms(stats.alone_time, stats.alone), stats.groups, stats.grouped, ms(stats.group_time, stats.groups),
           stats.largest, stats.given_up);
    for (const auto& size : stats.sizes) printf(" %zu:%lu", size.first, size.second);
    printf("\n");
    return 0;
}
