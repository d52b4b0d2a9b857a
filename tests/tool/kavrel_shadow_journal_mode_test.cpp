// kavrel-shadow and kavrel on a catalog that another SQLite client switched to
// write-ahead logging while a service kept it open and inserted: backup keeps
// every acknowledged row, verify's rehearsal and recover --dry-run count all
// of them, recover brings each one back and names the stale files it set
// aside, and the listing reads the file as it is without switching it.
#include <fcntl.h>
#include <ftw.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/app_catalog_item.h"
#include "appdb/catalog_application_base.h"
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"
#include "common/test_util.h"
#include "json_value.h"
#include "shadow_tool_util.h"
#include "tool_test_util.h"

namespace {

// The value of a single-value statement on a connection of its own.
std::string scalar(const std::string& file, const std::string& sql) {
    sqlite3* db = nullptr;
    std::string value = "(error)";
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK && sqlite3_step(stmt) == SQLITE_ROW) {
            value = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
        }
        sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    return value;
}

long file_size(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

class KavrelShadowJournalMode : public ::testing::Test {
protected:
    void SetUp() override {
        chmod(pool_.dir().path().c_str(), 0755);
        const std::string storage = pool_.dir().file("storage");
        kt::write_file(pool_.config(), "[Paths]\nDatabase = " + pool_.root() + "\nStorageDatabase = " + pool_.root() +
                                           "\n[Storage]\nStorage Path = " + storage + "\n");
        dir_ = pool_.catalog_dir(1, "c1", "p1");
        file_ = dir_ + "/app.db";
        context_.reset(new CatalogShadowContext(new ConfigFileShadowProxy(pool_.config(), pool_.root()),
                                                new CatalogDirectoryLock()));
        ASSERT_EQ(CR_STATUS_OK, context_->load_configurations());
        ASSERT_EQ(CR_STATUS_OK, CatalogShadowIdentity(context_->shadow_path.c_str()).create_identity());
        ASSERT_EQ(CR_STATUS_OK, context_->init());
        service_.reset(appdb::catalog_application_factory::create_catalog(
            1, pool_.root() + "/databases", appdb::APP_D_CATALOG_SHADOW, context_.get(), 5));
        ASSERT_TRUE(service_);

        // The service keeps the catalog open and inserts; another client
        // switches it to write-ahead logging in between.
        insert(0, 15);
        ASSERT_EQ("wal", scalar(file_, "PRAGMA journal_mode=WAL;"));
        insert(15, 60);
        ASSERT_GT(file_size(file_ + "-wal"), 0);
    }
    void TearDown() override {
        service_.reset();
        context_.reset();
    }

    void insert(int from, int to) {
        for (int i = from; i < to; ++i) {
            const appdb::app_catalog_item it = kst::item("c1", "p1", i);
            ASSERT_EQ(CR_STATUS_OK, service_->update_catalog("svc", appdb::APP_ROLE_APP, it.to_string()));
            acknowledged_[it.file_name] = it.to_string();
        }
    }

    // Every row of the live catalog, read through a catalog application.
    std::map<std::string, std::string> live_rows() {
        std::unique_ptr<appdb::catalog_application> reader(appdb::catalog_application_factory::create_catalog(
            1, pool_.root() + "/databases", appdb::APP_D_CATALOG, nullptr, 5));
        std::vector<appdb::app_catalog_item> items;
        EXPECT_EQ(CR_STATUS_OK, reader->find_catalog("admin", appdb::APP_ROLE_ADMIN, "backup_id|c1,p1,*", items));
        std::map<std::string, std::string> rows;
        for (const appdb::app_catalog_item& it : items) rows[it.file_name] = it.to_string();
        return rows;
    }

    kt::RunResult run(const std::vector<std::string>& args, kt::RunOptions options = kt::RunOptions()) {
        options.set_env.emplace(appdb::kRegistryEnv, pool_.registry());
        options.set_env["DCT_LOG"] = "none";
        return kt::run_program(kst::shadow_binary(), args, options);
    }

    // kavrel-shadow backup while the service still holds the file open.
    void backup_with_the_tool() {
        kt::RunResult r = run({"backup", dir_});
        ASSERT_EQ(0, r.exit_status) << r.out << r.err;
        EXPECT_NE(std::string::npos, r.out.find("  backup        kept version 2\n")) << r.out;
    }

    kt::TestPool pool_;
    std::string dir_, file_;
    std::unique_ptr<CatalogShadowContext> context_;
    std::unique_ptr<appdb::catalog_application> service_;
    std::map<std::string, std::string> acknowledged_;
};

TEST_F(KavrelShadowJournalMode, BackupVerifyAndRecoverKeepEveryAcknowledgedRow) {
    backup_with_the_tool();
    insert(60, 65);
    // The version holds the 60 rows before the backup, the journal the rest.
    const std::string version = pool_.dir().file("storage") + "/catalogshadow/1/c1/p1/appdb.2";
    EXPECT_EQ("60", scalar(version, "SELECT count(*) FROM catalog"));

    kt::RunResult r = run({"--json", "verify", dir_});
    ASSERT_EQ(0, r.exit_status) << r.out << r.err;
    kt::Json db = kt::JsonParser::parse(r.out)["databases"][0];
    EXPECT_EQ(65, db["live"]["rows"].n);
    EXPECT_EQ(2, db["recovery"]["base_version"].n);
    EXPECT_EQ(65, db["recovery"]["rows_after"].n);

    // The database is lost with everything beside it; the service is gone.
    service_.reset();
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((file_ + suffix).c_str());
    r = run({"recover", "--dry-run", dir_});
    EXPECT_NE(std::string::npos,
              r.out.find("  plan          would use version 2, 5 journal lines, 65 rows afterwards\n"))
        << r.out << r.err;
    r = run({"recover", dir_});
    ASSERT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("  recover       recovered from version 2 (5 journal lines)\n")) << r.out;
    EXPECT_EQ(acknowledged_, live_rows());
    EXPECT_EQ("delete", scalar(file_, "PRAGMA journal_mode;"));
}

TEST_F(KavrelShadowJournalMode, RecoverOfADamagedFileSetsItsStaleLogAsideAndSaysSo) {
    backup_with_the_tool();
    insert(60, 65);
    // The descriptor that damages the file stays open until the end: closing
    // any descriptor of a file drops every lock the process holds on it.
    const int fd = open(file_.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    // Another client holds the log open, so that it outlives the service's
    // connection, as a crashed writer's would.
    sqlite3* other = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(file_.c_str(), &other));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(other, "SELECT count(*) FROM catalog;", nullptr, nullptr, nullptr));
    service_.reset();
    ASSERT_EQ(0, access((file_ + "-wal").c_str(), F_OK));
    char header[100];
    ASSERT_EQ(100, pread(fd, header, sizeof(header), 0));
    for (char& c : header) c = static_cast<char>(~c);
    ASSERT_EQ(100, pwrite(fd, header, sizeof(header), 0));

    kt::RunResult r = run({"recover", "--dry-run", dir_});
    EXPECT_NE(std::string::npos, r.out.find("  plan          would use version 2, 5 journal lines, 65 rows afterwards, "
                                            "replaces the live file, sets aside " +
                                            file_ + "-wal, sets aside " + file_ + "-shm\n"))
        << r.out << r.err;
    r = run({"recover", dir_});
    ASSERT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("  recover       recovered from version 2 (5 journal lines, set aside " +
                                            file_ + "-wal, " + file_ + "-shm)\n"))
        << r.out;
    EXPECT_NE(0, access((file_ + "-wal").c_str(), F_OK));
    EXPECT_EQ(acknowledged_, live_rows());
    sqlite3_close(other);
    close(fd);
}

TEST_F(KavrelShadowJournalMode, TheListingReadsAWalFileAsItIsWithoutSwitchingIt) {
    service_.reset();
    // A file left in the mode by a client that is gone.
    ASSERT_EQ("wal", scalar(file_, "PRAGMA journal_mode;"));
    kt::RunOptions options;
    options.set_env["DCT_LOG"] = "none";
    kt::RunResult r = pool_.run({"-listall"}, options);
    ASSERT_EQ(0, r.exit_status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("total app catalog 60\n")) << r.out;
    EXPECT_EQ("wal", scalar(file_, "PRAGMA journal_mode;"));
}


uid_t g_owner = 0;
int give_to_nobody(const char* path, const struct stat* st, int, struct FTW*) {
    if (lchown(path, g_owner, g_owner) != 0) return 1;
    if (g_owner != 0) chmod(path, S_ISDIR(st->st_mode) ? 0755 : 0644);
    return 0;
}

TEST_F(KavrelShadowJournalMode, AUserWhoMayOnlyReadNeverCopiesTheMainFileAlone) {
    // The 45 commits since the switch wait in the log, which another client
    // keeps open after the service is gone.
    sqlite3* other = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(file_.c_str(), &other));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(other, "SELECT count(*) FROM catalog;", nullptr, nullptr, nullptr));
    service_.reset();
    ASSERT_GT(file_size(file_ + "-wal"), 0);
    const std::string shadow = pool_.dir().file("storage") + "/catalogshadow/1/c1/p1";
    nftw(pool_.dir().path().c_str(), kst::make_read_only, 16, FTW_PHYS);
    chmod(pool_.dir().path().c_str(), 0755);
    // The user may write the shadow, but not the live database.
    g_owner = 65534;
    nftw(shadow.c_str(), give_to_nobody, 16, FTW_PHYS);
    kt::RunOptions o;
    o.in_child = kst::drop_privileges;

    // The log cannot be emptied without write access to the database: no
    // version is taken.
    kt::RunResult r = run({"backup", dir_}, o);
    ASSERT_LT(r.exit_status, 120) << "could not drop privileges";
    EXPECT_EQ(1, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("  backup        failed (log records went to nowhere (DCT_LOG=none))"))
        << r.out;
    EXPECT_NE(0, access((shadow + "/appdb.2").c_str(), F_OK));

    // The rehearsal replays every journal line onto the first version.
    r = run({"--json", "verify", dir_}, o);
    kt::Json db = kt::JsonParser::parse(r.out)["databases"][0];
    EXPECT_EQ(1, db["recovery"]["base_version"].n) << r.out << r.err;
    EXPECT_EQ(60, db["recovery"]["rows_after"].n) << r.out;
    r = run({"recover", "--dry-run", dir_}, o);
    EXPECT_NE(std::string::npos, r.out.find("  plan          would use version 1, 60 journal lines, 60 rows afterwards"))
        << r.out << r.err;

    g_owner = 0;
    nftw(shadow.c_str(), give_to_nobody, 16, FTW_PHYS);
    nftw(pool_.dir().path().c_str(), kst::make_writable, 16, FTW_PHYS | FTW_DEPTH);
    sqlite3_close(other);
    EXPECT_EQ(acknowledged_, live_rows());
}

}  // namespace
