// Disaster recovery that holds: a shadow restored beside newer live databases
// is made to cover them, a restore killed part way is marked until a second
// one finishes it, and a repository is never made by a push.
#include <signal.h>
#include <sqlite3.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>

#include "dct/fault.h"
#include "dct/fs.h"
#include "kavrel_shadow_fixture.h"
#include "offsite/repository_id.h"
#include "tool/offsite_command.h"

namespace {

using kshadowt::KavrelShadowTest;

// The file names in a catalog database file.
std::set<std::string> names(const std::string& db_file) {
    std::set<std::string> out;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(db_file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_stmt* st = nullptr;
        if (sqlite3_prepare_v2(db, "SELECT name FROM catalog", -1, &st, nullptr) == SQLITE_OK) {
            while (sqlite3_step(st) == SQLITE_ROW) out.insert(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)));
        }
        sqlite3_finalize(st);
    }
    sqlite3_close(db);
    return out;
}

class DisasterTest : public KavrelShadowTest {
protected:
    void SetUp() override {
        KavrelShadowTest::SetUp();
        repo_ = pool_.dir().file("repo");
        pass_ = pool_.dir().file("offsite.pass");
        kt::write_file(pass_, "correct horse battery staple\n");
        chmod(pass_.c_str(), 0600);
        kt::write_file(pool_.config(), kt::read_file(pool_.config()) + "[Offsite]\nRepository = " + repo_ +
                                           "\nPasswordFile = " + pass_ + "\n");
        marker_ = storage_ + "/.catalogshadow.offsite-restore.unfinished";
    }

    kt::RunResult offsite(std::vector<std::string> args) {
        args.insert(args.begin(), "offsite");
        kt::RunOptions options;
        options.timeout_seconds = 120;
        options.set_env["RESTIC_CACHE_DIR"] = pool_.dir().file("restic-cache");
        return run(args, options);
    }

    // Items [from, to) of c1/p1 acknowledged by a shadow-protected catalog, as
    // a service inserts them.
    void insert(int from, int to) {
        CatalogShadowContext context(new ConfigFileShadowProxy(pool_.config(), pool_.root()),
                                     new CatalogDirectoryLock());
        ASSERT_EQ(CR_STATUS_OK, context.init());
        std::unique_ptr<appdb::catalog_application> catalog(appdb::catalog_application_factory::create_catalog(
            1, pool_.root() + "/databases", appdb::APP_D_CATALOG_SHADOW, &context, 5));
        ASSERT_TRUE(catalog);
        for (int i = from; i < to; ++i) {
            ASSERT_EQ(CR_STATUS_OK, catalog->update_catalog("svc", appdb::APP_ROLE_APP, kst::item("c1", "p1", i).to_string()));
            acknowledged_.insert(kst::item("c1", "p1", i).file_name);
        }
    }

    // Runs `offsite restore latest` in a child process that is killed at its
    // `kill_at`th file operation (0: never). Returns the number of file
    // operations and, in `marked` and `unmarked`, the rename that puts the
    // marker in place first and its removal.
    int restore_killed_at(int kill_at, int* marked = nullptr, int* unmarked = nullptr) {
        const std::string counts = pool_.dir().file("counts");
        const pid_t pid = fork();
        if (pid == 0) {
            freopen("/dev/null", "w", stdout);
            setenv("DCT_LOG", "none", 1);
            setenv("RESTIC_CACHE_DIR", pool_.dir().file("restic-cache").c_str(), 1);
            int n = 0, first_mark = 0, removal = 0;
            dct::set_fault_hook([&](dct::fault_op op, const char* path) {
                ++n;
                const std::string p = path != nullptr ? path : "";
                if (first_mark == 0 && op == dct::fault_op::rename && p.find(marker_) == 0) first_mark = n;
                if (op == dct::fault_op::deletefile && p == marker_) removal = n;
                if (n == kill_at) kill(getpid(), SIGKILL);
                return 0;
            });
            CatalogShadowContext context(new ConfigFileShadowProxy(pool_.config(), pool_.root()),
                                         new CatalogDirectoryLock());
            koffsite::OffsiteOptions o;
            o.command = "restore";
            o.snapshot = "latest";
            const int code = koffsite::run_offsite(context, pool_.config(), pool_.root(), o);
            std::ofstream(counts) << n << " " << first_mark << " " << removal << "\n";
            _exit(code);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        if (kill_at != 0) {
            EXPECT_TRUE(WIFSIGNALED(status)) << "not killed at " << kill_at;
            return 0;
        }
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        int n = 0, m = 0, u = 0;
        std::ifstream(counts) >> n >> m >> u;
        if (marked != nullptr) *marked = m;
        if (unmarked != nullptr) *unmarked = u;
        return n;
    }

    // Kills a restore at points between the marker's writing and its removal,
    // each after `lose` took the pool away; the kill is reported, push refuses,
    // and a second restore finishes the job with every row back.
    void kill_restores(const std::function<void()>& lose, int points) {
        ASSERT_EQ(0, offsite({"init"}).exit_status);
        ASSERT_EQ(0, offsite({"push"}).exit_status);
        const std::set<std::string> rows1 = names(p1_ + "/app.db"), rows2 = names(p2_ + "/app.db");
        ASSERT_EQ(3u, rows1.size());
        lose();
        int marked = 0, unmarked = 0;
        const int total = restore_killed_at(0, &marked, &unmarked);
        ASSERT_GT(marked, 0);
        ASSERT_GT(unmarked, marked + points);
        for (int i = 0; i < points; ++i) {
            const int at = marked + 1 + (unmarked - marked - 1) * i / points;
            SCOPED_TRACE("killed at " + std::to_string(at) + " of " + std::to_string(total));
            lose();
            restore_killed_at(at);
            ASSERT_EQ(0, access(marker_.c_str(), F_OK));
            // Killed before the shadow root had its identity file, every
            // command says that instead (exit 3).
            const bool identity = access((shadow_root_ + "/.catalog_shadow_identity").c_str(), F_OK) == 0;
            for (const char* command : {"status", "verify"}) {
                const kt::RunResult r = run({command});
                EXPECT_EQ(identity ? 1 : 3, r.exit_status) << command << r.err;
                if (identity) {
                    EXPECT_NE(std::string::npos, r.out.find("  problem       " + marker_ + ": a restore of snapshot "))
                        << r.out;
                    EXPECT_NE(std::string::npos, r.out.find("is unfinished; finish it with: kavrel-shadow offsite "
                                                            "restore "))
                        << r.out;
                }
            }
            if (identity && i == points - 1) {
                // A user who may only read is told the same.
                nftw(pool_.dir().path().c_str(), kst::make_read_only, 16, FTW_PHYS);
                kt::RunOptions as_nobody;
                as_nobody.in_child = kst::drop_privileges;
                const kt::RunResult seen = run({"status"}, as_nobody);
                nftw(pool_.dir().path().c_str(), kst::make_writable, 16, FTW_PHYS);
                chmod(pass_.c_str(), 0600);
                EXPECT_EQ(1, seen.exit_status) << seen.err;
                EXPECT_NE(std::string::npos, seen.out.find(marker_ + ": a restore of snapshot ")) << seen.out;
            }
            // The metrics say so too, whether or not the shadow root is back.
            const kt::RunResult metrics = run({"metrics"});
            EXPECT_NE(std::string::npos, metrics.out.find("\nkavrel_restore_unfinished 1\n")) << metrics.out;
            kt::RunResult r = offsite({"push"});
            EXPECT_EQ(3, r.exit_status);
            EXPECT_EQ(identity ? 0u : std::string::npos,
                      r.err.find("kavrel-shadow: a restore is unfinished (" + marker_ +
                                 "); finish it with: kavrel-shadow offsite restore "))
                << r.err;
            EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << r.err;
            r = offsite({"restore", "latest"});
            EXPECT_EQ(0, r.exit_status) << r.out << r.err;
            EXPECT_NE(0, access(marker_.c_str(), F_OK));
            EXPECT_NE(std::string::npos, run({"metrics"}).out.find("\nkavrel_restore_unfinished 0\n"));
            EXPECT_EQ(rows1, names(p1_ + "/app.db"));
            EXPECT_EQ(rows2, names(p2_ + "/app.db"));
            EXPECT_EQ(0, run({"verify"}).exit_status);
        }
        const kt::RunResult r = offsite({"push"});
        EXPECT_EQ(0, r.exit_status) << r.out << r.err;
    }

    std::string repo_, pass_, marker_;
    std::set<std::string> acknowledged_;
};

// The shadow's disk is lost, the live databases are not: the restored shadow
// is older than the live database, so the restore takes a version of it at
// once, and a later loss of the live file gives back every acknowledged row.
TEST_F(DisasterTest, AShadowRestoredBesideNewerLiveDatabasesCoversThem) {
    ASSERT_EQ(0, offsite({"init"}).exit_status);
    for (const std::string& n : names(p1_ + "/app.db")) acknowledged_.insert(n);
    ASSERT_EQ(0, offsite({"push"}).exit_status);
    insert(3, 8);
    ASSERT_EQ(0, wa_deletetree(shadow_root_));
    kt::RunResult r = offsite({"restore", "latest"});
    ASSERT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos,
              r.out.find("  live          kept, 8 rows, integrity ok, row checksums ok\n"
                         "  covered       version 2 taken of the live database (5 rows the shadow could not give "
                         "back)\n"))
        << r.out;
    EXPECT_NE(std::string::npos, r.out.find("2 databases: 2 shadows restored, 0 databases rebuilt, 2 kept, 0 problems"))
        << r.out;
    r = run({"verify"});
    EXPECT_EQ(0, r.exit_status) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("8 rows afterwards")) << r.out;
    insert(8, 10);
    ASSERT_EQ(0, unlink((p1_ + "/app.db").c_str()));
    r = run({"recover", "--missing"});
    ASSERT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_EQ(10u, acknowledged_.size());
    EXPECT_EQ(acknowledged_, names(p1_ + "/app.db"));
}

// Rows the shadow cannot give back (written past the catalog, so never
// journalled) are a problem of status and verify, for root and for a user
// who may only read.
TEST_F(DisasterTest, StatusAndVerifyReportRowsARecoveryWouldLose) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open((p1_ + "/app.db").c_str(), &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "CREATE TEMP TABLE t AS SELECT * FROM catalog WHERE rowid = 1;"
                                          "UPDATE t SET name = 'extra'; INSERT INTO catalog SELECT * FROM t;"
                                          "DELETE FROM catalog WHERE rowid = 2;",
                                      nullptr, nullptr, nullptr));
    sqlite3_close(db);
    const std::string lose = "  problem       " + p1_ + "/app.db: recovery would lose 1 row (the shadow cannot give them back)\n";
    const std::string back = "  problem       " + p1_ + "/app.db: recovery would bring back 1 row the live database does not hold\n";
    for (const char* command : {"status", "verify"}) {
        const kt::RunResult r = run_read_only({command});
        EXPECT_EQ(1, r.exit_status) << command;
        EXPECT_NE(std::string::npos, r.out.find(lose + back)) << r.out;
    }
    const kt::RunResult metrics = run_read_only({"metrics", "--per-database"});
    EXPECT_NE(std::string::npos, metrics.out.find("\nkavrel_shadow_rows_not_recoverable 1\n")) << metrics.out;
    EXPECT_NE(std::string::npos, metrics.out.find("kavrel_problems{kind=\"rows_not_recoverable\"} 1\n")) << metrics.out;
    EXPECT_NE(std::string::npos, metrics.out.find("kavrel_problems{kind=\"rows_brought_back\"} 1\n")) << metrics.out;
    EXPECT_NE(std::string::npos, metrics.out.find("\nkavrel_database_rows_not_recoverable{")) << metrics.out;
    // No repository made yet: none remembered.
    EXPECT_EQ(std::string::npos, metrics.out.find("kavrel_offsite_repository_info{")) << metrics.out;
    ASSERT_EQ(0, offsite({"init"}).exit_status);
    EXPECT_NE(std::string::npos, run_read_only({"metrics"}).out.find("\nkavrel_offsite_repository_info{id=\""));
    nftw(pool_.dir().path().c_str(), kst::make_read_only, 16, FTW_PHYS);
    kt::RunOptions as_nobody;
    as_nobody.in_child = kst::drop_privileges;
    const kt::RunResult r = run({"status", p1_}, as_nobody);
    nftw(pool_.dir().path().c_str(), kst::make_writable, 16, FTW_PHYS);
    EXPECT_EQ(1, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find(lose + back)) << r.out;
}

TEST_F(DisasterTest, ARestoreKilledAfterBothRootsWereLostIsFinishedByTheNext) {
    kill_restores([this]() {
        ASSERT_EQ(0, wa_deletetree(pool_.root()));
        ASSERT_EQ(0, wa_deletetree(shadow_root_));
    }, 3);
}

TEST_F(DisasterTest, ARestoreKilledAfterTheDatabaseRootWasLostIsFinishedByTheNext) {
    kill_restores([this]() { ASSERT_EQ(0, wa_deletetree(pool_.root())); }, 2);
}

// A repository that moved away is never made anew: push, check and restore
// stop with one line and create nothing; another repository is refused too;
// a new server (nothing remembered) restores from the repository it reaches.
TEST_F(DisasterTest, ARepositoryIsNeverMadeByAccident) {
    kt::RunResult r = offsite({"push"});
    EXPECT_EQ(3, r.exit_status);
    EXPECT_EQ("kavrel-shadow: no restic repository at " + repo_ + "; nothing was created (moved or not mounted? a new "
              "one is made only by: kavrel-shadow offsite init) (log records went to nowhere (DCT_LOG=none))\n",
              r.err);
    EXPECT_NE(0, access(repo_.c_str(), F_OK));
    r = offsite({"init"});
    ASSERT_EQ(0, r.exit_status) << r.err;
    std::string id;
    ASSERT_EQ(CR_STATUS_OK, koffsite::remembered_repository_id(shadow_root_, &id));
    EXPECT_EQ("offsite init: " + repo_ + " created, id " + id.substr(0, 8) + ", remembered by the pool\n", r.out);
    ASSERT_EQ(0, offsite({"push"}).exit_status);

    ASSERT_EQ(0, rename(repo_.c_str(), (repo_ + ".moved").c_str()));
    for (const char* command : {"push", "check", "restore"}) {
        r = offsite({command});
        EXPECT_EQ(3, r.exit_status) << command;
        EXPECT_EQ("kavrel-shadow: the repository " + repo_ + " (id " + id.substr(0, 8) + ", remembered in " +
                      shadow_root_ + "/.offsite_repository_id) is not there; nothing was created (log records went "
                      "to nowhere (DCT_LOG=none))\n",
                  r.err)
            << command;
        EXPECT_NE(0, access(repo_.c_str(), F_OK)) << command;
    }

    // Another repository where the pool's was.
    kt::RunOptions env;
    env.set_env["RESTIC_REPOSITORY"] = repo_;
    env.set_env["RESTIC_PASSWORD_FILE"] = pass_;
    ASSERT_EQ(0, kt::run_program("/usr/bin/restic", {"init"}, env).exit_status);
    for (const char* command : {"push", "check", "restore"}) {
        r = offsite({command});
        EXPECT_EQ(3, r.exit_status) << command;
        EXPECT_NE(std::string::npos, r.err.find("kavrel-shadow: the repository at " + repo_ + " has id ")) << r.err;
        EXPECT_NE(std::string::npos, r.err.find(", but this pool's is " + id.substr(0, 8) + " (")) << r.err;
        EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << r.err;
    }
    r = kt::run_program("/usr/bin/restic", {"snapshots", "--json"}, env);
    EXPECT_EQ("[]\n", r.out);

    // The pool's repository back, on a new server that remembers nothing.
    ASSERT_EQ(0, wa_deletetree(repo_));
    ASSERT_EQ(0, rename((repo_ + ".moved").c_str(), repo_.c_str()));
    const std::set<std::string> rows = names(p1_ + "/app.db");
    ASSERT_EQ(0, wa_deletetree(pool_.root()));
    ASSERT_EQ(0, wa_deletetree(shadow_root_));
    r = offsite({"restore", "latest"});
    ASSERT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_EQ(rows, names(p1_ + "/app.db"));
    std::string again;
    ASSERT_EQ(CR_STATUS_OK, koffsite::remembered_repository_id(shadow_root_, &again));
    EXPECT_EQ(id, again);
    EXPECT_EQ(0, offsite({"push"}).exit_status);
}

}  // namespace
