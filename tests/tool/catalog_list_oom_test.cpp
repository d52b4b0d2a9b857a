// OpList::parse_path under allocation failure: this executable replaces the
// global operator new so that one chosen allocation fails. Every failure must
// end in a null result with one "out of memory" record, never in an exception
// leaving parse_path, a crash or a leak.
#include <stdlib.h>

#include <atomic>
#include <memory>
#include <new>
#include <string>

#include "appdb/catalog_application_base.h"
#include "appdb/catalog_list.h"
#include "common/test_util.h"
#include "gtest/gtest.h"

namespace {

// Throwing allocations still allowed before one fails; negative = no failure.
std::atomic<long> g_throw_countdown{-1};
// Number of next nothrow allocations that fail.
std::atomic<int> g_nothrow_failures{0};

// Out of line, so that the compiler does not pair the inlined malloc and free
// with the new and delete expressions of other code and warn about a mismatch.
__attribute__((noinline)) void* allocate(std::size_t n) { return malloc(n == 0 ? 1 : n); }
__attribute__((noinline)) void release(void* p) { free(p); }

}  // namespace

void* operator new(std::size_t n) {
    if (g_throw_countdown.load() >= 0 && g_throw_countdown.fetch_sub(1) == 0) throw std::bad_alloc();
    void* p = allocate(n);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}
void* operator new[](std::size_t n) { return operator new(n); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
    int left = g_nothrow_failures.load();
    while (left > 0) {
        if (g_nothrow_failures.compare_exchange_weak(left, left - 1)) return nullptr;
    }
    return allocate(n);
}
void* operator new[](std::size_t n, const std::nothrow_t& t) noexcept { return operator new(n, t); }
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }
void operator delete[](void* p, std::size_t) noexcept { release(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { release(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { release(p); }

namespace {

// Arms one failing throwing allocation for the scope: the (n+1)-th from now.
class FailAllocation {
public:
    explicit FailAllocation(long n) { g_throw_countdown.store(n); }
    ~FailAllocation() { g_throw_countdown.store(-1); }
};

size_t out_of_memory_records(const kt::LogCapture& log) {
    size_t n = 0;
    for (const kt::LogRecord& r : log.records()) {
        if (r.message.find("out of memory") != std::string::npos) {
            EXPECT_EQ(dct::log_level::error, r.level);
            EXPECT_EQ(CR_STATUS_NOMEM, r.status);
            ++n;
        }
    }
    return n;
}

const char kCatalogPath[] = "/st/databases/application/7/c1/p1";

TEST(OpListOutOfMemory, NullAllocationOfApplication) {
    kt::LogCapture log;
    OpList op("*", false);
    std::string client;
    std::string policy;
    g_nothrow_failures.store(1);
    std::unique_ptr<appdb::catalog_application> app(op.parse_path(kCatalogPath, client, policy));
    g_nothrow_failures.store(0);
    EXPECT_EQ(nullptr, app);
    EXPECT_TRUE(log.contains(dct::log_level::error, CR_STATUS_NOMEM, "parse_path: out of memory")) << log.dump();
    EXPECT_EQ(1u, out_of_memory_records(log)) << log.dump();
}

TEST(OpListOutOfMemory, EveryThrowingAllocationOfParsePath) {
    kt::TraceSwitch on(true);
    OpList op("*", false);
    const std::string path = kCatalogPath;
    bool finished = false;
    int failures = 0;
    for (long n = 0; n < 10000 && !finished; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        kt::LogCapture log;
        std::string client;
        std::string policy;
        std::unique_ptr<appdb::catalog_application> app;
        long left;
        {
            FailAllocation fail(n);
            app.reset(op.parse_path(path, client, policy));
            left = g_throw_countdown.load();
        }
        if (left >= 0) {
            // Every allocation of a full run succeeded: the sweep is done.
            ASSERT_NE(nullptr, app) << log.dump();
            finished = true;
            break;
        }
        ++failures;
        if (app == nullptr) {
            EXPECT_EQ(1u, out_of_memory_records(log)) << log.dump();
            EXPECT_EQ(1u, log.count_message("parse_path: out of memory") +
                              log.count_message("create_catalog: out of memory"))
                << log.dump();
        }
    }
    EXPECT_TRUE(finished);
    EXPECT_GT(failures, 3);
}

}  // namespace
