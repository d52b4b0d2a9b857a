// Fault sweeps: the Nth call of the platform's file operations (fault seam)
// or of SQLite's reads, writes, syncs and locks (test file layer) fails, for
// every N an operation reaches: a shadow-protected insert, a group of inserts
// committed together, a backup, a recovery and an in-process kavrel listing. For every N: no crash, no
// exception, a status (0 or not); afterwards, with faults off, every
// acknowledged row is readable, the catalog keeps working, and a recovery
// restores every acknowledged row: a change whose journal line failed is
// acknowledged only once a new shadow copy holds it.
#include <errno.h>
#include <sqlite3.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_group_helpers.h"
#include "common/fault_countdown.h"
#include "common/sqlite_test_vfs.h"
#include "reliability_fixture.h"

namespace {

using appdb::app_catalog_item;
using shadowt::pool_layout;

// One run of a scenario: a fresh pool, set up with faults off; then the
// operation under a fault; then the checks with faults off.
class scenario {
public:
    virtual ~scenario() = default;
    virtual void setup() = 0;
    virtual void operation() = 0;
    virtual void verify() = 0;

protected:
    scenario() : pool(tmp.path()) { kt::SqliteTestVfs::install(); }

    // Inserts through the protected catalog; remembers what was tried, what
    // was acknowledged.
    cr_status_t insert(const std::string& client, const std::string& name) {
        const app_catalog_item item = catt::make_item(client, "pol", name, "bid");
        attempted.insert(name);
        cr_status_t status = CR_STATUS_FAILED;
        EXPECT_NO_THROW(status = app->update_catalog("alice", 4, item.to_string())) << name;
        if (status == 0) acked.insert(name);
        return status;
    }

    std::map<std::string, std::string> rows(const std::string& client) {
        cr_status_t status = 0;
        auto found = shadowt::read_back(*app, client, "pol", &status);
        EXPECT_EQ(0u, status) << client << "\n" << log.dump();
        return found;
    }

    std::set<std::string> only(const std::set<std::string>& names, char client_tag) {
        std::set<std::string> out;
        for (const std::string& n : names) {
            if (n[0] == client_tag) out.insert(n);
        }
        return out;
    }

    // Faults off: the rows of both databases are readable, one more insert
    // into each works, and after a restart of the service and the loss of
    // both database files, recovery brings back every acknowledged row.
    void verify_rows_and_recovery(const std::vector<std::string>& clients) {
        for (const std::string& c : clients) {
            // A creation that failed half-way leaves the file without its
            // table, deliberately (it is neither deleted nor repaired); every
            // operation on it fails until it is removed. Remove it as an
            // operator would, and count the case.
            const std::string file = pool.db_file(2, c, "pol");
            if (only(acked, c[0]).empty() && kt::file_exists(file) && !has_catalog_table(file)) {
                ++half_created;
                app->close_db(pool.db_dir(2, c, "pol"), 0, true);
                shadowt::delete_database(file);
            }
        }
        for (const std::string& c : clients) {
            EXPECT_TRUE(relt::rows_between(only(acked, c[0]), rows(c), only(attempted, c[0]))) << log.dump();
        }
        for (const std::string& c : clients) {
            EXPECT_EQ(0u, insert(c, c.substr(0, 1) + "after")) << log.dump();
        }
        app.reset();
        ctx = pool.context();
        app = shadowt::make_shadow_app(pool, ctx.get());
        for (const std::string& c : clients) {
            const std::string dir = pool.db_dir(2, c, "pol");
            shadowt::delete_database(dir + "/app.db");
            EXPECT_EQ(0u, ctx->recover(dir, "appdb", 0)) << c << "\n" << log.dump();
            EXPECT_TRUE(relt::rows_between(only(acked, c[0]), rows(c), only(attempted, c[0]))) << log.dump();
        }
    }

    static bool has_catalog_table(const std::string& file) {
        sqlite3* db = nullptr;
        bool found = false;
        if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
            sqlite3_stmt* stmt = nullptr;
            if (sqlite3_prepare_v2(db, "SELECT 1 FROM sqlite_master WHERE name = 'catalog'", -1, &stmt, nullptr) ==
                    SQLITE_OK &&
                sqlite3_step(stmt) == SQLITE_ROW) {
                found = true;
            }
            sqlite3_finalize(stmt);
        }
        sqlite3_close(db);
        return found;
    }

public:
    // Runs in which a database creation failed half-way (see above).
    static long half_created;

protected:
    kt::TempDir tmp;
    kt::LogCapture log;
    kt::SleepCounter sleeps;
    pool_layout pool;
    std::unique_ptr<CatalogShadowContext> ctx;
    std::unique_ptr<appdb::catalog_application> app;
    std::set<std::string> attempted, acked;
};

long scenario::half_created = 0;

// Rows go to two databases: "a..." to client "alpha" (created in setup),
// "b..." to client "beta" (created by the operation).
class insert_scenario : public scenario {
public:
    void setup() override {
        pool.prepare();
        ctx = pool.context();
        app = shadowt::make_shadow_app(pool, ctx.get());
        for (const char* n : {"a1", "a2", "a3"}) ASSERT_EQ(0u, insert("alpha", n)) << log.dump();
    }
    void operation() override {
        insert("alpha", "a4");
        insert("beta", "b1");
    }
    void verify() override { verify_rows_and_recovery({"alpha", "beta"}); }
};

// Threads insert at once into "alpha" and are committed as one group; one of
// them inserts the name of an existing row again (refused: its row and line
// must never be kept). A fault anywhere in the group's work (its commit, its
// one journal append, sync and checksum file) leaves each change
// acknowledged only when it is durable.
class group_scenario : public insert_scenario {
public:
    void operation() override {
        const std::vector<std::string> names = {"a4", "a5", "a6", "a7"};
        std::vector<std::function<cr_status_t()>> calls;
        for (const std::string& name : names) {
            attempted.insert(name);
            const std::string text = catt::make_item("alpha", "pol", name, "bid").to_string();
            calls.push_back([this, text] { return app->update_catalog("alice", 4, text); });
        }
        const std::string again = catt::make_item("alpha", "pol", "a1", "dupbid").to_string();
        calls.push_back([this, again] { return app->update_catalog("alice", 4, again); });
        std::vector<cr_status_t> statuses;
        EXPECT_NO_THROW(statuses = groupt::one_group(dynamic_cast<appdb::catalog_application_base&>(*app),
                                                     pool.db_dir(2, "alpha", "pol"), calls));
        for (size_t i = 0; i < names.size() && i < statuses.size(); ++i) {
            if (statuses[i] == 0) acked.insert(names[i]);
        }
        if (statuses.size() == calls.size()) {
            EXPECT_NE(0u, statuses.back());
        }
    }
    void verify() override {
        verify_rows_and_recovery({"alpha"});
        // The refused row never replaced the first one, in the database or
        // through a journal line.
        EXPECT_EQ(catt::make_item("alpha", "pol", "a1", "bid").to_string(), rows("alpha")["a1"]);
    }
};

class backup_scenario : public scenario {
public:
    void setup() override {
        pool.prepare();
        ctx = pool.context();
        app = shadowt::make_shadow_app(pool, ctx.get());
        for (const char* n : {"a1", "a2", "a3"}) ASSERT_EQ(0u, insert("alpha", n)) << log.dump();
    }
    void operation() override {
        EXPECT_NO_THROW(ctx->backup(pool.db_dir(2, "alpha", "pol"), "appdb"));
    }
    void verify() override {
        // A backup that failed leaves the history as it was: the next one works.
        EXPECT_EQ(0u, ctx->backup(pool.db_dir(2, "alpha", "pol"), "appdb")) << log.dump();
        verify_rows_and_recovery({"alpha"});
    }
};

class recovery_scenario : public scenario {
public:
    void setup() override {
        pool.prepare();
        ctx = pool.context();
        app = shadowt::make_shadow_app(pool, ctx.get());
        for (const char* n : {"a1", "a2", "a3"}) ASSERT_EQ(0u, insert("alpha", n)) << log.dump();
        ASSERT_EQ(0u, ctx->backup(pool.db_dir(2, "alpha", "pol"), "appdb")) << log.dump();
        for (const char* n : {"a4", "a5"}) ASSERT_EQ(0u, insert("alpha", n)) << log.dump();
        app.reset();
        shadowt::delete_database(pool.db_file(2, "alpha", "pol"));
    }
    void operation() override {
        EXPECT_NO_THROW(status_ = ctx->recover(pool.db_dir(2, "alpha", "pol"), "appdb", 0));
    }
    void verify() override {
        if (status_ != 0) {
            // Whatever the failed attempt did, the shadow still rebuilds the database.
            EXPECT_EQ(0u, ctx->recover(pool.db_dir(2, "alpha", "pol"), "appdb", 0)) << log.dump();
        }
        app = shadowt::make_shadow_app(pool, ctx.get());
        EXPECT_TRUE(relt::rows_between(acked, rows("alpha"), acked)) << log.dump();
        verify_rows_and_recovery({"alpha"});
    }

private:
    cr_status_t status_ = CR_STATUS_FAILED;
};

// Two databases of the plain catalog, listed as kavrel lists them.
class listing_scenario : public scenario {
public:
    void setup() override {
        appdb::catalog_application_impl plain(2, pool.database_root(), 5);
        for (const char* c : {"alpha", "beta"}) {
            for (const char* n : {"1", "2"}) {
                const app_catalog_item item = catt::make_item(c, "pol", std::string(c, 1) + n, "bid");
                ASSERT_EQ(0u, plain.update_catalog("alice", 4, item.to_string())) << log.dump();
                lines.insert(item.to_string());
            }
        }
    }
    void operation() override {
        cr_status_t status = CR_STATUS_FAILED;
        EXPECT_NO_THROW(relt::list_pool(pool.dbroot, tmp.file("out.txt"), "*", &status));
        EXPECT_EQ(0u, status);
    }
    void verify() override {
        const std::string out = relt::list_pool(pool.dbroot, tmp.file("out.txt"));
        for (const std::string& line : lines) EXPECT_NE(std::string::npos, out.find(line + "\n")) << out;
        EXPECT_EQ(2u, static_cast<size_t>(std::count(out.begin(), out.end(), '[')));
    }

private:
    std::set<std::string> lines;
};

using factory = std::function<std::unique_ptr<scenario>()>;

template <typename T>
factory make() {
    return [] { return std::unique_ptr<scenario>(new T); };
}

// Runs the scenario for N = 1, 2, ... until the fault no longer fires.
// Returns the number of fault points covered.
long sweep_dct(const factory& make_scenario, const char* name) {
    long n = 1;
    for (;; ++n) {
        std::unique_ptr<scenario> s = make_scenario();
        s->setup();
        if (::testing::Test::HasFatalFailure()) return n - 1;
        bool fired;
        std::string where;
        {
            kt::FaultCountdown fault(n, n % 2 != 0 ? EIO : ENOSPC);
            s->operation();
            fired = fault.fired();
            where = fault.fired_at();
        }
        SCOPED_TRACE(std::string(name) + ": platform fault " + std::to_string(n) + " at " + where);
        s->verify();
        if (!fired || ::testing::Test::HasFailure()) break;
    }
    printf("[ sweep ] %s: %ld platform fault points, %ld left a database without its table\n", name, n - 1,
           scenario::half_created);
    scenario::half_created = 0;
    return n - 1;
}

long sweep_sqlite(const factory& make_scenario, const char* name, int rc, const char* rc_name) {
    long n = 1;
    for (;; ++n) {
        std::unique_ptr<scenario> s = make_scenario();
        s->setup();
        if (::testing::Test::HasFatalFailure()) return n - 1;
        bool fired;
        std::string where;
        {
            kt::SqliteFaultCountdown fault(
                n, rc, {kt::vfs_op::read, kt::vfs_op::write, kt::vfs_op::sync, kt::vfs_op::lock});
            s->operation();
            fired = fault.fired();
            where = fault.fired_at();
        }
        SCOPED_TRACE(std::string(name) + ": SQLite " + rc_name + " at call " + std::to_string(n) + " (" + where + ")");
        s->verify();
        if (!fired || ::testing::Test::HasFailure()) break;
    }
    printf("[ sweep ] %s: %ld SQLite fault points (%s), %ld left a database without its table\n", name, n - 1,
           rc_name, scenario::half_created);
    scenario::half_created = 0;
    return n - 1;
}

void sweep_all(const factory& f, const char* name, bool expect_platform_points) {
    const long platform = sweep_dct(f, name);
    if (expect_platform_points) {
        EXPECT_GT(platform, 0);
    }
    EXPECT_GT(sweep_sqlite(f, name, SQLITE_IOERR_WRITE, "SQLITE_IOERR"), 0);
    EXPECT_GT(sweep_sqlite(f, name, SQLITE_FULL, "SQLITE_FULL"), 0);
    EXPECT_GT(sweep_sqlite(f, name, SQLITE_BUSY, "SQLITE_BUSY"), 0);
}

TEST(FaultSweep, ProtectedInsert) { sweep_all(make<insert_scenario>(), "protected insert", true); }
TEST(FaultSweep, GroupOfInserts) { sweep_all(make<group_scenario>(), "group of inserts", true); }
TEST(FaultSweep, Backup) { sweep_all(make<backup_scenario>(), "backup", true); }
TEST(FaultSweep, Recovery) { sweep_all(make<recovery_scenario>(), "recovery", true); }
// The listing writes nothing, so the platform sweep may find no point.
TEST(FaultSweep, Listing) { sweep_all(make<listing_scenario>(), "listing", false); }

}  // namespace
