// The open-database cache: hand-out and return, eviction order, refusals,
// closes, and the messages of each.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

#include "appdb/appdb_cache.h"
#include "appdb/catalog_guards.h"
#include "cache_fixtures.h"
#include "common/test_util.h"
#include "dct/log.h"

using appdb::appdb_cache;
using appdb::appdb_value;
using dct::log_level;

namespace {

class CacheTest : public ::testing::Test {
protected:
    std::string db(const std::string& name) const { return dir_.file(name); }

    // Opens `path` and registers it as handed out.
    appdb_value* create(appdb_cache& cache, const std::string& path) {
        appdb_value* v = cache.create_db(path, store(path));
        EXPECT_TRUE(cache.check_invariant());
        return v;
    }
    // A store of a connection whose close the counter sees.
    std::unique_ptr<appdb::catalog_store> store(const std::string& path) {
        return appdb::catalog_store::adopt(conns_.open(path), path);
    }
    void give_back(appdb_cache& cache, const std::string& path, appdb_value* v) {
        EXPECT_TRUE(cache.return_db(path, v));
        EXPECT_TRUE(cache.check_invariant());
    }

    kt::TempDir dir_;
    kt::LogCapture log_;
    cachet::connection_counter conns_;
};

TEST_F(CacheTest, CapacityIsAtLeastTwo) {
    EXPECT_EQ(2u, appdb_cache(0).capacity());
    EXPECT_EQ(2u, appdb_cache(1).capacity());
    EXPECT_EQ(2u, appdb_cache(2).capacity());
    EXPECT_EQ(5u, appdb_cache(5).capacity());
    EXPECT_EQ(3u, log_.count(log_level::info, 0, "appdb_cache: app db use cache size 2"));
    EXPECT_EQ(1u, log_.count(log_level::info, 0, "appdb_cache: app db use cache size 5"));
}

TEST_F(CacheTest, CreateReturnAndGetAgain) {
    kt::TraceSwitch trace(true);
    cachet::fake_clock clock(1000);
    appdb_cache cache(5);
    const std::string a = db("a.db");
    EXPECT_EQ(nullptr, cache.get_db(a));  // nothing cached yet, nothing wrong
    EXPECT_EQ(0u, log_.count_containing("no_return_cache"));

    appdb_value* v = create(cache, a);
    ASSERT_NE(nullptr, v);
    EXPECT_EQ(1000ul, v->time_visit);
    EXPECT_EQ(1u, cache.handed_out_count());
    EXPECT_EQ(0u, cache.idle_count());
    EXPECT_TRUE(log_.contains(log_level::info, 0, "create_db: create app db cache value for " + a));
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE, "create_db: create db " + a));

    clock.set(2000);
    give_back(cache, a, v);
    EXPECT_EQ(2000ul, v->time_visit);
    EXPECT_EQ(0u, cache.handed_out_count());
    EXPECT_EQ(1u, cache.idle_count());
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE, "return_db: return db " + a));
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE,
                              "add_priority: create priority cache for time_visit_ 2000"));

    clock.set(3000);
    appdb_value* again = cache.get_db(a);
    EXPECT_EQ(v, again);
    EXPECT_EQ(3000ul, again->time_visit);
    EXPECT_TRUE(cache.check_invariant());
    EXPECT_EQ(1u, cache.handed_out_count());
    EXPECT_EQ(0u, cache.idle_count());
    EXPECT_EQ(0u, cache.priority_time_count());
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE, "get_db: get db " + a));
    give_back(cache, a, again);
    EXPECT_EQ(1, conns_.opened());
    EXPECT_EQ(0, conns_.closed());
}

// Capacity 2; A, B and C are each handed out and returned in turn. Registering
// C makes three connections, so the least recently visited idle one, A, is
// closed; once C is back, B and C are cached and A is gone.
TEST_F(CacheTest, ThirdDatabaseThroughCapacityTwoClosesTheFirst) {
    cachet::fake_clock clock(100);
    appdb_cache cache(2);
    const std::string a = db("a.db"), b = db("b.db"), c = db("c.db");
    give_back(cache, a, create(cache, a));
    clock.advance();
    give_back(cache, b, create(cache, b));
    clock.advance();
    EXPECT_EQ(0, conns_.closed());
    appdb_value* vc = create(cache, c);
    clock.advance();
    give_back(cache, c, vc);
    EXPECT_EQ(0, conns_.live(a));
    EXPECT_EQ(1, conns_.live(b));
    EXPECT_EQ(1, conns_.live(c));
    EXPECT_EQ(2u, cache.idle_count());
    EXPECT_EQ(nullptr, cache.get_db(a));
    EXPECT_TRUE(log_.contains(log_level::info, 0,
                              "reclaim: succeed to reclaim appdb cache, app db path " + a +
                                  ", min visit time 100"))
        << log_.dump();
}

// All three out at once: returning A goes over the limit with A the only idle
// connection, so A goes; then B and C come back and fit.
TEST_F(CacheTest, ReturningOverCapacityEvictsTheOnlyIdle) {
    cachet::fake_clock clock(100);
    appdb_cache cache(2);
    const std::string a = db("a.db"), b = db("b.db"), c = db("c.db");
    appdb_value* va = create(cache, a);
    appdb_value* vb = create(cache, b);
    appdb_value* vc = create(cache, c);
    give_back(cache, a, va);
    EXPECT_EQ(0, conns_.live(a));
    give_back(cache, b, vb);
    give_back(cache, c, vc);
    EXPECT_EQ(1, conns_.live(b));
    EXPECT_EQ(1, conns_.live(c));
    EXPECT_EQ(1, conns_.closed());
}

TEST_F(CacheTest, EvictionFollowsTheLeastRecentVisit) {
    cachet::fake_clock clock(10);
    appdb_cache cache(3);
    const std::string a = db("a.db"), b = db("b.db"), c = db("c.db"), d = db("d.db");
    appdb_value* va = create(cache, a);
    appdb_value* vb = create(cache, b);
    appdb_value* vc = create(cache, c);
    clock.set(20);
    give_back(cache, b, vb);
    clock.set(30);
    give_back(cache, a, va);
    clock.set(40);
    give_back(cache, c, vc);
    // Visiting B makes A the least recent.
    clock.set(50);
    vb = cache.get_db(b);
    ASSERT_NE(nullptr, vb);
    clock.set(60);
    give_back(cache, b, vb);
    clock.set(70);
    appdb_value* vd = create(cache, d);
    EXPECT_EQ(0, conns_.live(a));
    EXPECT_EQ(1, conns_.live(b));
    EXPECT_EQ(1, conns_.live(c));
    clock.set(80);
    give_back(cache, d, vd);
    EXPECT_EQ(3u, cache.idle_count());
    // Next to go is C (40), then B (60).
    vd = cache.get_db(d);
    appdb_value* ve = create(cache, db("e.db"));
    EXPECT_EQ(0, conns_.live(c));
    EXPECT_EQ(1, conns_.live(b));
    clock.set(90);
    give_back(cache, db("e.db"), ve);
    clock.set(100);
    give_back(cache, d, vd);
    appdb_value* vf = create(cache, db("f.db"));
    EXPECT_EQ(0, conns_.live(b));
    EXPECT_EQ(1, conns_.live(d));
    EXPECT_EQ(1, conns_.live(db("e.db")));
    give_back(cache, db("f.db"), vf);
}

TEST_F(CacheTest, SameMillisecondReturnsShareOneEntryFirstReturnedGoesFirst) {
    kt::TraceSwitch trace(true);
    cachet::fake_clock clock(5000);
    appdb_cache cache(2);
    const std::string a = db("a.db"), b = db("b.db"), c = db("c.db");
    appdb_value* va = create(cache, a);
    appdb_value* vb = create(cache, b);
    give_back(cache, a, va);
    give_back(cache, b, vb);
    EXPECT_EQ(1u, cache.priority_time_count());
    EXPECT_EQ(2u, cache.idle_count());
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE,
                              "add_priority: append app db name " + b +
                                  " under time_visit_ 5000, cur size 2"))
        << log_.dump();
    clock.advance();
    appdb_value* vc = create(cache, c);
    EXPECT_EQ(0, conns_.live(a));
    EXPECT_EQ(1, conns_.live(b));
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE,
                              "reclaim: begin to reclaim appdb cache, min visit time 5000, cached size 2"));
    give_back(cache, c, vc);
}

TEST_F(CacheTest, SameMillisecondTieFollowsReturnOrderNotName) {
    cachet::fake_clock clock(5000);
    appdb_cache cache(2);
    const std::string a = db("a.db"), b = db("b.db"), c = db("c.db");
    appdb_value* va = create(cache, a);
    appdb_value* vb = create(cache, b);
    give_back(cache, b, vb);
    give_back(cache, a, va);
    clock.advance();
    appdb_value* vc = create(cache, c);
    EXPECT_EQ(1, conns_.live(a));
    EXPECT_EQ(0, conns_.live(b));
    give_back(cache, c, vc);
}

TEST_F(CacheTest, AllHandedOutStaysOverCapacity) {
    appdb_cache cache(2);
    const std::string a = db("a.db"), b = db("b.db"), c = db("c.db");
    appdb_value* va = create(cache, a);
    appdb_value* vb = create(cache, b);
    EXPECT_EQ(0u, log_.count_containing("system is busy"));
    appdb_value* vc = create(cache, c);
    ASSERT_NE(nullptr, vc);
    EXPECT_EQ(3u, cache.handed_out_count());
    EXPECT_EQ(0, conns_.closed());
    EXPECT_TRUE(log_.contains(log_level::info, 0,
                              "reclaim: cache_priority_ size is 0, no return cache 3, system is busy"))
        << log_.dump();
    give_back(cache, a, va);
    give_back(cache, b, vb);
    give_back(cache, c, vc);
}

TEST_F(CacheTest, GetOfHandedOutPathIsRefused) {
    appdb_cache cache(5);
    const std::string a = db("a.db");
    appdb_value* va = create(cache, a);
    EXPECT_EQ(nullptr, cache.get_db(a));
    EXPECT_TRUE(log_.contains(log_level::error, CR_STATUS_NONE,
                              "get_db: dup app db 2 path " + a + " in no_return_cache"))
        << log_.dump();
    EXPECT_TRUE(cache.check_invariant());
    EXPECT_EQ(1u, cache.handed_out_count());
    give_back(cache, a, va);
}

TEST_F(CacheTest, CloseOfHandedOutPathClosesNothing) {
    appdb_cache cache(5);
    const std::string a = db("a.db");
    appdb_value* va = create(cache, a);
    cache.close_db(a);
    EXPECT_EQ(0, conns_.closed());
    EXPECT_EQ(1u, cache.handed_out_count());
    EXPECT_TRUE(log_.contains(log_level::info, 0,
                              "close_db: request to close app db " + a + ", but still in use"));
    give_back(cache, a, va);
    EXPECT_EQ(1u, cache.idle_count());
}

TEST_F(CacheTest, CloseOfIdlePathClosesIt) {
    kt::SleepCounter sleeps;
    appdb_cache cache(5);
    const std::string a = db("a.db"), b = db("b.db");
    give_back(cache, a, create(cache, a));
    give_back(cache, b, create(cache, b));
    cache.close_db(a);
    EXPECT_TRUE(cache.check_invariant());
    EXPECT_EQ(0, conns_.live(a));
    EXPECT_EQ(1, conns_.live(b));
    EXPECT_EQ(1u, cache.idle_count());
    EXPECT_EQ(0, sleeps.calls());
    EXPECT_TRUE(log_.contains(log_level::info, 0, "close_db: close app db " + a));
    cache.close_db(a);
    EXPECT_TRUE(log_.contains(log_level::info, 0,
                              "close_db: no app db found for " + a + ", no return size 0"));
}

TEST_F(CacheTest, CreateRefusesNullAndDuplicates) {
    appdb_cache cache(5);
    const std::string a = db("a.db");
    EXPECT_EQ(nullptr, cache.create_db(a, nullptr));
    EXPECT_TRUE(log_.contains(log_level::error, CR_STATUS_NONE, "create_db: null db"));
    EXPECT_EQ(0u, cache.handed_out_count());

    appdb_value* va = create(cache, a);
    ASSERT_NE(nullptr, va);
    // A second connection while the first is out: closed by the cache.
    EXPECT_EQ(nullptr, create(cache, a));
    EXPECT_EQ(1, conns_.closed());
    EXPECT_TRUE(log_.contains(log_level::error, CR_STATUS_NONE,
                              "create_db: dup db path " + a + " in no_return_cache_"));
    give_back(cache, a, va);
    // A second connection while the first is idle: closed as well.
    EXPECT_EQ(nullptr, create(cache, a));
    EXPECT_EQ(2, conns_.closed());
    EXPECT_TRUE(log_.contains(log_level::error, CR_STATUS_NONE,
                              "create_db: duplicate app db found for " + a));
    EXPECT_EQ(1, conns_.live(a));
    EXPECT_EQ(1u, cache.idle_count());
}

TEST_F(CacheTest, ReturnRefusesWhatWasNotHandedOut) {
    appdb_cache cache(5);
    const std::string a = db("a.db"), b = db("b.db");
    appdb_value stray{store(b), 0};
    EXPECT_FALSE(cache.return_db(b, &stray));
    EXPECT_TRUE(log_.contains(log_level::error, CR_STATUS_NONE,
                              "return_db: don't find app db path " + b + " in no_return_cache"));
    give_back(cache, a, create(cache, a));
    appdb_value twin{store(a), 0};
    EXPECT_FALSE(cache.return_db(a, &twin));
    EXPECT_TRUE(log_.contains(log_level::error, CR_STATUS_NONE, "return_db: dup db path " + a));
    EXPECT_TRUE(cache.check_invariant());
    // Refused values stay the caller's: the cache closed neither.
    EXPECT_EQ(0, conns_.closed());
}

// An unfinalized statement makes sqlite3_close answer BUSY every time.
TEST_F(CacheTest, BusyCloseTriesThreeTimesThenLeavesTheConnection) {
    kt::SleepCounter sleeps;
    appdb_cache cache(5);
    const std::string a = db("a.db");
    appdb_value* va = create(cache, a);
    sqlite3* raw = va->store->connection();
    sqlite3_stmt* stmt = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(raw, "SELECT 1", -1, &stmt, nullptr));
    give_back(cache, a, va);
    cache.close_db(a);
    EXPECT_EQ(3, sleeps.calls());
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(log_.contains(log_level::warning, 11,
                                  "close_sqlite3_db: " + std::to_string(i) +
                                      " busy when close app db " + a))
            << log_.dump();
    }
    EXPECT_EQ(0u, log_.count_containing("failed to close db"));
    EXPECT_EQ(0u, cache.idle_count());
    EXPECT_TRUE(cache.check_invariant());
    EXPECT_EQ(1, conns_.live(a));  // left behind, still open
    sqlite3_finalize(stmt);
    EXPECT_EQ(SQLITE_OK, sqlite3_close(raw));
    EXPECT_EQ(0, conns_.live(a));
}

TEST_F(CacheTest, BusyCloseSucceedsWhenReleased) {
    kt::SleepCounter sleeps;
    sqlite3* conn = conns_.open(db("a.db"));
    sqlite3_stmt* stmt = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(conn, "SELECT 1", -1, &stmt, nullptr));
    sleeps.on_sleep = [&](int call) {
        if (call == 1) sqlite3_finalize(stmt);
    };
    appdb::catalog_store::adopt(conn, db("a.db")).reset();
    EXPECT_EQ(1, sleeps.calls());
    EXPECT_EQ(1, conns_.closed());
    EXPECT_EQ(1u, log_.count_containing("busy when close app db"));
}

TEST_F(CacheTest, EvictionOfABusyConnectionAlsoRetries) {
    kt::SleepCounter sleeps;
    cachet::fake_clock clock(1);
    appdb_cache cache(2);
    const std::string a = db("a.db"), b = db("b.db"), c = db("c.db");
    appdb_value* va = create(cache, a);
    sqlite3* raw = va->store->connection();
    sqlite3_stmt* stmt = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(raw, "SELECT 1", -1, &stmt, nullptr));
    sleeps.on_sleep = [&](int call) {
        if (call == 2) sqlite3_finalize(stmt);
    };
    give_back(cache, a, va);
    clock.advance();
    give_back(cache, b, create(cache, b));
    clock.advance();
    appdb_value* vc = create(cache, c);
    EXPECT_EQ(2, sleeps.calls());
    EXPECT_EQ(0, conns_.live(a));
    give_back(cache, c, vc);
}

TEST_F(CacheTest, CloseAllClosesIdleAndKeepsBorrowedOnes) {
    kt::TraceSwitch trace(true);
    cachet::fake_clock clock(700);
    appdb_cache cache(5);
    const std::string a = db("a.db"), b = db("b.db"), c = db("c.db");
    give_back(cache, a, create(cache, a));
    give_back(cache, b, create(cache, b));
    appdb_value* vc = create(cache, c);
    log_.clear();
    cache.close_all_db();
    EXPECT_TRUE(cache.check_invariant());
    EXPECT_EQ(0, conns_.live(a));
    EXPECT_EQ(0, conns_.live(b));
    EXPECT_EQ(1, conns_.live(c));
    EXPECT_EQ(0u, cache.idle_count());
    EXPECT_EQ(0u, cache.priority_time_count());
    // The handed-out connection is forgotten, not closed.
    EXPECT_EQ(0u, cache.handed_out_count());
    EXPECT_FALSE(cache.is_handed_out(c));
    EXPECT_TRUE(log_.contains(log_level::info, 0, "close_all_db: cache app db size 2"));
    EXPECT_TRUE(log_.contains(log_level::info, 0, "close_all_db: no_return_cache_ size 1"));
    EXPECT_EQ(0u, log_.count_containing("lock status"));
    // log_state ran first, with the state before the closes.
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE, "log_state: cache size 2"));
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE,
                              "log_state: cache db name " + a + " time 700"));
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE, "log_state: priority cache size 1"));
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE, "log_state: cache priority time 700"));
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE,
                              "log_state: \t\tcache priority name " + b));
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE, "log_state: no return cache size 1"));
    EXPECT_TRUE(log_.contains(log_level::trace, CR_STATUS_NONE,
                              "log_state: \t\tno return cache file path " + c));
    // A late return of the forgotten connection is refused and it stays the
    // borrower's.
    log_.clear();
    EXPECT_FALSE(cache.return_db(c, vc));
    EXPECT_TRUE(log_.contains(log_level::error, CR_STATUS_NONE,
                              "return_db: don't find app db path " + c + " in no_return_cache"));
    EXPECT_EQ(0u, cache.idle_count());
    EXPECT_EQ(1, conns_.live(c));
    // The path is no longer reserved: a new connection to it is registered.
    appdb_value* again = create(cache, c);
    ASSERT_NE(nullptr, again);
    EXPECT_EQ(0u, log_.count_containing("dup app db 2"));
    give_back(cache, c, again);
    delete vc;  // the borrower's to close
}

TEST_F(CacheTest, CloseAllWithNothingHandedOutLogsAnEmptyNoReturnCache) {
    appdb_cache cache(5);
    give_back(cache, db("a.db"), create(cache, db("a.db")));
    cache.close_all_db();
    EXPECT_TRUE(log_.contains(log_level::info, 0, "close_all_db: no_return_cache_ size 0"));
    EXPECT_EQ(0, conns_.live());
}

TEST_F(CacheTest, ForgottenBorrowIsClosedByItsGuard) {
    appdb_cache cache(5);
    const std::string a = db("a.db");
    {
        appdb::Auto_Return_DB guard(&cache, a, create(cache, a));
        cache.close_all_db();
    }
    EXPECT_EQ(0, conns_.live(a));
    EXPECT_EQ(0u, cache.idle_count());
    EXPECT_TRUE(log_.contains(log_level::error, CR_STATUS_NONE,
                              "return_db: don't find app db path " + a + " in no_return_cache"));
}

TEST_F(CacheTest, DestructorClosesEveryIdleConnection) {
    {
        appdb_cache cache(3);
        for (const char* n : {"a.db", "b.db", "c.db"}) give_back(cache, db(n), create(cache, db(n)));
        EXPECT_EQ(3, conns_.live());
    }
    EXPECT_EQ(3, conns_.opened());
    EXPECT_EQ(3, conns_.closed());
}

TEST_F(CacheTest, DestructorLeavesBorrowedConnectionsToTheirOwner) {
    appdb_value* v = nullptr;
    {
        appdb_cache cache(3);
        v = create(cache, db("a.db"));
    }
    EXPECT_EQ(1, conns_.live());
    delete v;  // the borrower owns the value once the cache is gone
    EXPECT_EQ(0, conns_.live());
}

}  // namespace
