// Several processes on one pool, each with its own shadow context and its own
// shadow-protected catalog: writers inserting at once, backups taken by
// different processes, the database damaged in place by one of them, a writer
// killed with SIGKILL. Every acknowledged row is found afterwards, and again
// after the database file is removed and recovered. Also: two threads of one
// process on one database wait for each other, and a query writes nothing.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "catalog_shadow_fixture.h"
#include "dct/sleep.h"

namespace {

using shadowt::pool_layout;

// Names a child acknowledged, one per line, in its own file; appended with
// write(2) so that what was written survives a SIGKILL.
void acknowledge(int fd, const std::string& name) {
    const std::string line = name + "\n";
    if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(90);
}

std::set<std::string> acknowledged(const std::string& file) {
    std::set<std::string> names;
    std::istringstream in(kt::read_file(file));
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty()) names.insert(line);
    }
    return names;
}

// What one writer process does besides inserting.
struct writer_role {
    bool backups = false;   // a backup of the database after every fifth insert
    int damage_at = -1;     // damages the database header in place before this insert
};

// The body of one writer process: its own context and catalog, `rows`
// inserts into client "c", policy "p" of data store 2. Returns the exit code.
int run_writer(const pool_layout& pool, int id, int rows, const writer_role& role,
               const std::string& ack_file, unsigned seed) {
    // Records go to a file of their own beside the acknowledgements.
    const int log_fd = open((ack_file + ".log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (log_fd < 0) return 79;
    dct::set_log_sink([log_fd](dct::log_level level, cr_status_t status, const std::string& message) {
        const std::string line = std::string(dct::log_level_name(level)) + " [" + std::to_string(status) + "] " +
                                 message + "\n";
        if (write(log_fd, line.data(), line.size()) < 0) _exit(91);
    });
    dct::set_sleep_function([](unsigned) {});
    const int ack = open(ack_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (ack < 0) return 80;
    std::unique_ptr<CatalogShadowContext> ctx = pool.context();
    if (!ctx->enabled.load()) return 81;
    std::unique_ptr<appdb::catalog_application> app = shadowt::make_shadow_app(pool, ctx.get());
    if (!app) return 82;
    std::mt19937 rng(seed);
    const std::string dir = pool.db_dir(2, "c", "p");
    int failures = 0;
    for (int k = 0; k < rows; ++k) {
        if (k == role.damage_at) {
            // In place and under the lock, as a failing disk under a running
            // service would do it between two operations.
            CatalogDirectoryLock lock;
            DirectoryLock::ScopedLock held(&lock, dir);
            if (held.GetStatus() != CR_STATUS_OK) return 83;
            shadowt::damage_header(pool.db_file(2, "c", "p"), rng);
        }
        const std::string name = "w" + std::to_string(id) + "_" + std::to_string(k);
        const appdb::app_catalog_item item = catt::make_item("c", "p", name, "b" + std::to_string(id));
        if (app->update_catalog("admin", 1, item.to_string()) == CR_STATUS_OK) {
            acknowledge(ack, name);
        } else {
            ++failures;
        }
        if (role.backups && k % 5 == 4 && ctx->backup(dir, "appdb") != CR_STATUS_OK) ++failures;
    }
    app.reset();
    ctx.reset();
    close(ack);
    return failures == 0 ? 0 : 70;
}

class CatalogProcesses : public ::testing::Test {
protected:
    CatalogProcesses() : pool(tmp.path()) {}
    void SetUp() override { pool.prepare(); }

    std::string ack_file(int id) const { return tmp.file("ack." + std::to_string(id)); }

    // Records of the writers 0 .. last whose message contains `fragment`.
    size_t writer_records(int last, const std::string& fragment) const {
        size_t n = 0;
        for (int id = 0; id <= last; ++id) {
            std::istringstream in(kt::read_file(ack_file(id) + ".log"));
            std::string line;
            while (std::getline(in, line)) n += line.find(fragment) != std::string::npos ? 1 : 0;
        }
        return n;
    }

    pid_t start_writer(int id, int rows, const writer_role& role, unsigned seed) {
        const pid_t pid = fork();
        if (pid == 0) _exit(run_writer(pool, id, rows, role, ack_file(id), seed));
        return pid;
    }

    static int wait_exit(pid_t pid) {
        int status = 0;
        if (waitpid(pid, &status, 0) != pid) return -1000;
        if (WIFSIGNALED(status)) return -WTERMSIG(status);
        return WEXITSTATUS(status);
    }

    // Every name in `expected` is a row of the database, read through a new
    // context and catalog of this process.
    void expect_rows(const std::set<std::string>& expected, const char* when) {
        std::unique_ptr<CatalogShadowContext> ctx = pool.context();
        std::unique_ptr<appdb::catalog_application> app = shadowt::make_shadow_app(pool, ctx.get());
        cr_status_t status = CR_STATUS_FAILED;
        const std::map<std::string, std::string> rows = shadowt::read_back(*app, "c", "p", &status);
        ASSERT_EQ(CR_STATUS_OK, status) << when << "\n" << log.dump();
        size_t missing = 0;
        for (const std::string& name : expected) {
            if (rows.count(name) == 0 && ++missing <= 5) ADD_FAILURE() << when << ": missing " << name;
        }
        EXPECT_EQ(0u, missing) << when;
    }

    // Removes the database and recovers it from the shadow alone.
    void lose_and_recover() {
        std::unique_ptr<CatalogShadowContext> ctx = pool.context();
        shadowt::delete_database(pool.db_file(2, "c", "p"));
        ASSERT_EQ(CR_STATUS_OK, ctx->recover(pool.db_dir(2, "c", "p"), "appdb", 0)) << log.dump();
    }

    kt::TempDir tmp;
    pool_layout pool;
    kt::LogCapture log;
    kt::SleepCounter sleeps;
};

TEST_F(CatalogProcesses, FourWritersAtOnceLoseNoAcknowledgedRow) {
    const int kWriters = 4;
    const int kRows = 100;
    std::vector<pid_t> pids;
    for (int id = 0; id < kWriters; ++id) pids.push_back(start_writer(id, kRows, writer_role(), 100 + id));
    for (pid_t pid : pids) EXPECT_EQ(0, wait_exit(pid));
    EXPECT_EQ(0u, writer_records(kWriters - 1, "ERROR"));
    std::set<std::string> acked;
    for (int id = 0; id < kWriters; ++id) {
        const std::set<std::string> mine = acknowledged(ack_file(id));
        EXPECT_EQ(static_cast<size_t>(kRows), mine.size()) << id;
        acked.insert(mine.begin(), mine.end());
    }
    expect_rows(acked, "after the writers");
    lose_and_recover();
    expect_rows(acked, "after recovery");
}

TEST_F(CatalogProcesses, BackupsDamageAndAKilledWriterLoseNoAcknowledgedRow) {
    const int kRows = 40;
    std::vector<pid_t> pids;
    writer_role backups;
    backups.backups = true;
    writer_role damages;
    damages.damage_at = kRows / 2;
    writer_role second_backups = backups;
    pids.push_back(start_writer(0, kRows, backups, 7));
    pids.push_back(start_writer(1, kRows, damages, 11));
    pids.push_back(start_writer(2, kRows, second_backups, 13));
    pids.push_back(start_writer(3, kRows, writer_role(), 17));
    // The victim: killed once it has acknowledged a few rows, wherever it is.
    const pid_t victim = start_writer(4, 1000, writer_role(), 19);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (acknowledged(ack_file(4)).size() < 10 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    kill(victim, SIGKILL);
    EXPECT_EQ(-SIGKILL, wait_exit(victim));
    for (pid_t pid : pids) EXPECT_EQ(0, wait_exit(pid));

    std::set<std::string> acked;
    for (int id = 0; id <= 4; ++id) {
        const std::set<std::string> mine = acknowledged(ack_file(id));
        if (id < 4) {
            EXPECT_EQ(static_cast<size_t>(kRows), mine.size()) << id;
        }
        acked.insert(mine.begin(), mine.end());
    }
    EXPECT_GE(acked.size(), static_cast<size_t>(4 * kRows + 10));
    // One damage, one recovery: the other writers found the rebuilt database.
    EXPECT_EQ(1u, writer_records(4, "corrupt, to do recover from shadow"));
    EXPECT_EQ(1u, writer_records(4, "recover_unlocked: Recover database " + pool.db_file(2, "c", "p") +
                                        " succeeded."));
    EXPECT_EQ(0u, writer_records(4, "Remove unexpected journal file"));
    EXPECT_EQ(0u, writer_records(4, "Detected CRC mismatch"));
    expect_rows(acked, "after the writers");
    lose_and_recover();
    expect_rows(acked, "after recovery");
}

TEST_F(CatalogProcesses, TwoThreadsOnOneDatabaseWaitInsteadOfBeingRefused) {
    std::unique_ptr<CatalogShadowContext> ctx = pool.context();
    std::unique_ptr<appdb::catalog_application> app = shadowt::make_shadow_app(pool, ctx.get());
    const int kRows = 30;
    std::atomic<int> refused{0};
    auto work = [&](int id) {
        for (int k = 0; k < kRows; ++k) {
            const std::string name = "t" + std::to_string(id) + "_" + std::to_string(k);
            const appdb::app_catalog_item item = catt::make_item("c", "p", name, "b");
            if (app->update_catalog("admin", 1, item.to_string()) != CR_STATUS_OK) ++refused;
        }
    };
    std::thread a(work, 0);
    std::thread b(work, 1);
    a.join();
    b.join();
    EXPECT_EQ(0, refused.load()) << log.dump();
    std::set<std::string> expected;
    for (int id = 0; id < 2; ++id) {
        for (int k = 0; k < kRows; ++k) expected.insert("t" + std::to_string(id) + "_" + std::to_string(k));
    }
    app.reset();
    ctx.reset();
    expect_rows(expected, "after the threads");
}

TEST_F(CatalogProcesses, AQueryCreatesNothingInTheShadowTreeOrTheDatabaseTree) {
    std::unique_ptr<CatalogShadowContext> ctx = pool.context();
    std::unique_ptr<appdb::catalog_application> app = shadowt::make_shadow_app(pool, ctx.get());
    std::vector<appdb::app_catalog_item> items;
    app->find_catalog("admin", 1, "backup_id|c,p,*", items);
    EXPECT_TRUE(items.empty());
    EXPECT_FALSE(ctx->has_shadow_copy(pool.db_dir(2, "c", "p"), "appdb"));
    EXPECT_EQ(std::vector<std::string>{CatalogShadowIdentity::the_file_name()}, kt::list_dir(pool.shadow));
    EXPECT_FALSE(kt::file_exists(pool.db_dir(2, "c", "p")));
}

TEST_F(CatalogProcesses, AQueryOnAnUnprotectedDatabaseCreatesNoShadow) {
    // A database made without protection, then read through a shadow catalog.
    {
        std::unique_ptr<appdb::catalog_application> plain(appdb::catalog_application_factory::create_catalog(
            2, pool.database_root(), appdb::APP_D_CATALOG, nullptr, 5));
        for (const char* name : {"a", "b", "c"}) {
            ASSERT_EQ(CR_STATUS_OK,
                      plain->update_catalog("admin", 1, catt::make_item("c", "p", name, "b").to_string()));
        }
    }
    std::unique_ptr<CatalogShadowContext> ctx = pool.context();
    std::unique_ptr<appdb::catalog_application> app = shadowt::make_shadow_app(pool, ctx.get());
    cr_status_t status = CR_STATUS_FAILED;
    EXPECT_EQ(3u, shadowt::read_back(*app, "c", "p", &status).size());
    EXPECT_EQ(CR_STATUS_OK, status);
    EXPECT_EQ(std::vector<std::string>{CatalogShadowIdentity::the_file_name()}, kt::list_dir(pool.shadow));
}

}  // namespace
