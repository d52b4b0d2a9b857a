// A round trip through the public interface only: the factory builds the
// catalog, 1,000 records go in over 3 clients and 2 policies, are found back
// in every query form, expired and deleted. What lands on disk is checked with
// plain SQLite, the row checksums recomputed with zlib.
#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_base.h"
#include "catalog_test_helpers.h"
#include "common/test_util.h"

namespace {

using appdb::app_catalog_item;
using appdb::catalog_application;
using dct::log_level;

constexpr int kItems = 1000;
constexpr int64_t kBaseTime = 1700000000;

// Record i: client i%3, policy (i/3)%2; every 60 records share a backup
// (per client), whose id is CLIENT_TIME; owners alternate alice, bob and an
// administrator.
app_catalog_item record(int i) {
    const std::string client = "client" + std::to_string(i % 3);
    const std::string policy = "policy" + std::to_string((i / 3) % 2);
    const int group = i / 60;
    const int64_t backup_time = kBaseTime + group * 1000;
    static const char* const owners[] = {"alice", "bob", "root"};
    app_catalog_item item = catt::make_item(client, policy, "/data/dir " + std::to_string(i % 7) + "/file_" + std::to_string(i),
                                            client + "_" + std::to_string(backup_time),
                                            backup_time + (i % 60), owners[i % 3 == 0 ? (i / 3) % 3 : i % 2],
                                            (i % 11 == 0) ? 1 : 4);
    item.file_len = 1000003ULL * static_cast<uint64_t>(i);
    item.description = "record's " + std::to_string(i);  // a quote inside
    item.reserver4 = std::string(static_cast<size_t>(i % 5), 'x');
    return item;
}

std::string key_of(const app_catalog_item& item) { return item.client + "/" + item.policy; }

std::multiset<std::string> lines(const std::vector<app_catalog_item>& items) {
    std::multiset<std::string> out;
    for (const auto& i : items) out.insert(i.to_string());
    return out;
}

class CatalogEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        db_root = tmp.path() + "/databases";
        app.reset(appdb::catalog_application_factory::create_catalog(9, db_root, appdb::APP_D_CATALOG,
                                                                     nullptr, 4));
        ASSERT_NE(nullptr, app);
        for (int i = 0; i < kItems; ++i) {
            const app_catalog_item item = record(i);
            expected[key_of(item)].push_back(item);
            ASSERT_EQ(0u, app->update_catalog("loader", 4, item.to_string())) << i << log.dump();
        }
    }
    std::string app_root() const { return db_root + "/application/9"; }
    std::string file(const std::string& client, const std::string& policy) const {
        return app_root() + "/" + client + "/" + policy + "/app.db";
    }
    std::vector<app_catalog_item> expected_where(bool (*pred)(const app_catalog_item&, const void*),
                                                 const void* arg) const {
        std::vector<app_catalog_item> out;
        for (const auto& kv : expected)
            for (const auto& i : kv.second)
                if (pred(i, arg)) out.push_back(i);
        return out;
    }

    kt::TempDir tmp;
    kt::LogCapture log;
    kt::SleepCounter sleeps;
    std::string db_root;
    std::unique_ptr<catalog_application> app;
    std::map<std::string, std::vector<app_catalog_item>> expected;
};

TEST_F(CatalogEndToEnd, DatabasesOnDiskHoldEveryRowWithItsChecksum) {
    EXPECT_EQ((std::vector<std::string>{"application"}), kt::list_dir(db_root));
    EXPECT_EQ((std::vector<std::string>{"9"}), kt::list_dir(db_root + "/application"));
    EXPECT_EQ((std::vector<std::string>{"client0", "client1", "client2"}), kt::list_dir(app_root()));
    long total = 0;
    for (int c = 0; c < 3; ++c) {
        const std::string client = "client" + std::to_string(c);
        EXPECT_EQ((std::vector<std::string>{"policy0", "policy1"}), kt::list_dir(app_root() + "/" + client));
        for (int p = 0; p < 2; ++p) {
            const std::string policy = "policy" + std::to_string(p);
            EXPECT_EQ((std::vector<std::string>{"app.db"}),
                      kt::list_dir(app_root() + "/" + client + "/" + policy));
            const auto& want = expected[client + "/" + policy];
            const auto rows = catt::raw_rows(file(client, policy), "backup_start_time, name");
            ASSERT_EQ(want.size(), rows.size());
            total += static_cast<long>(rows.size());
            std::map<std::string, app_catalog_item> by_name;
            for (const auto& i : want) by_name[i.file_name] = i;
            for (const auto& r : rows) {
                ASSERT_EQ(1u, by_name.count(r.name)) << r.name;
                const app_catalog_item& i = by_name[r.name];
                EXPECT_EQ(r.name, r.file_name);
                EXPECT_EQ(i.backup_id, r.backup_id);
                EXPECT_EQ(static_cast<int64_t>(i.file_len), r.file_len);
                EXPECT_EQ(i.backup_start_time, r.times[2]);
                EXPECT_EQ(i.owner, r.owner);
                EXPECT_EQ(i.owner_role, r.owner_role);
                EXPECT_EQ(i.description, r.description);
                EXPECT_EQ(i.reserver4, r.reserver[4]);
                // The stored checksum is the documented Adler-32 of the row,
                // kept as a 32-bit integer.
                EXPECT_EQ(catt::independent_crc(r), static_cast<uint32_t>(r.crc)) << r.name;
                EXPECT_GE(r.crc, INT32_MIN);
                EXPECT_LE(r.crc, INT32_MAX);
            }
            EXPECT_EQ("ok", catt::raw_scalar(file(client, policy), "PRAGMA integrity_check"));
            EXPECT_EQ("1", catt::raw_scalar(file(client, policy),
                                            "SELECT count(*) FROM sqlite_master WHERE type='index' AND "
                                            "name='catalog_backupid'"));
        }
    }
    EXPECT_EQ(kItems, total);
    EXPECT_EQ(0, sleeps.calls());
}

TEST_F(CatalogEndToEnd, FindByExactBackupIdInBothForms) {
    const app_catalog_item probe = record(123);  // client0, policy1, group 2
    const std::string bid = probe.backup_id;
    const std::string query = appdb::to_query_by_backup_id(probe.client, probe.policy, bid);
    std::vector<app_catalog_item> want;
    for (const auto& i : expected[key_of(probe)])
        if (i.backup_id == bid) want.push_back(i);
    ASSERT_GT(want.size(), 5u);

    std::vector<app_catalog_item> got;
    ASSERT_EQ(0u, app->find_catalog("admin", 1, query, got));
    EXPECT_EQ(lines(want), lines(got));

    std::string text;
    ASSERT_EQ(0u, app->find_catalog("admin", 1, query, text));
    EXPECT_EQ(std::to_string(want.size()) + "|", text.substr(0, text.find('|') + 1));
    // The list form reads back into the same records.
    std::istringstream in(text.substr(text.find('|') + 1));
    std::vector<app_catalog_item> back;
    app_catalog_item one;
    while (appdb::from_string(in, one)) back.push_back(one);
    EXPECT_EQ(lines(want), lines(back));

    // An application user gets its own non-administrator records only.
    ASSERT_EQ(0u, app->find_catalog("alice", 4, query, got));
    std::vector<app_catalog_item> alices;
    for (const auto& i : want)
        if (i.owner == "alice" && i.owner_role != 1) alices.push_back(i);
    EXPECT_EQ(lines(alices), lines(got));
}

TEST_F(CatalogEndToEnd, FindByGlobIsOrderedByStartTime) {
    // Every backup of client1/policy0 from the first ten groups' times:
    // CLIENT_17000?0000 patterns.
    const std::string pattern = "client1_170000*";
    std::vector<app_catalog_item> got;
    ASSERT_EQ(0u, app->find_catalog("admin", 1,
                                    appdb::to_query_by_backup_id("client1", "policy0", pattern), got));
    std::vector<app_catalog_item> want;
    for (const auto& i : expected["client1/policy0"])
        if (i.backup_id.compare(0, 14, "client1_170000") == 0) want.push_back(i);
    ASSERT_FALSE(want.empty());
    EXPECT_EQ(lines(want), lines(got));
    EXPECT_TRUE(std::is_sorted(got.begin(), got.end(), [](const app_catalog_item& a, const app_catalog_item& b) {
        return a.backup_start_time < b.backup_start_time;
    }));
    // "*" alone: the whole database.
    ASSERT_EQ(0u, app->find_catalog("admin", 1, appdb::to_query_by_backup_id("client2", "policy1", "*"), got));
    EXPECT_EQ(expected["client2/policy1"].size(), got.size());
}

TEST_F(CatalogEndToEnd, FindByFileName) {
    const app_catalog_item probe = record(500);
    std::vector<app_catalog_item> got;
    ASSERT_EQ(0u, app->find_catalog("admin", 1,
                                    appdb::to_query_by_file_name(probe.client, probe.policy, probe.file_name), got));
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(probe.to_string(), got[0].to_string());
    // The same name under another policy is not there.
    const std::string other = probe.policy == "policy0" ? "policy1" : "policy0";
    ASSERT_EQ(0u, app->find_catalog("admin", 1,
                                    appdb::to_query_by_file_name(probe.client, other, probe.file_name), got));
    EXPECT_TRUE(got.empty());
    // A name pattern (containing a blank and a "/").
    ASSERT_EQ(0u, app->find_catalog("admin", 1,
                                    appdb::to_query_by_file_name("client0", "policy0", "/data/dir 3/*"), got));
    std::vector<app_catalog_item> want;
    for (const auto& i : expected["client0/policy0"])
        if (i.file_name.compare(0, 11, "/data/dir 3") == 0) want.push_back(i);
    EXPECT_EQ(lines(want), lines(got));
}

TEST_F(CatalogEndToEnd, FindByTimeRange) {
    const int64_t from = kBaseTime + 3000 + 10, to = kBaseTime + 5000 + 20;
    std::vector<app_catalog_item> got;
    ASSERT_EQ(0u, app->find_catalog("admin", 1,
                                    "time_range|client2,policy1," + std::to_string(from) + "," + std::to_string(to),
                                    got));
    std::vector<app_catalog_item> want;
    for (const auto& i : expected["client2/policy1"])
        if (i.backup_start_time >= from && i.backup_start_time <= to) want.push_back(i);
    ASSERT_FALSE(want.empty());
    EXPECT_EQ(lines(want), lines(got));
    EXPECT_TRUE(std::is_sorted(got.begin(), got.end(), [](const app_catalog_item& a, const app_catalog_item& b) {
        return a.backup_start_time < b.backup_start_time;
    }));
}

TEST_F(CatalogEndToEnd, ExpireAHeaderImageThenDeleteByName) {
    const app_catalog_item probe = record(301);  // client1
    const std::string db = file(probe.client, probe.policy);
    const long before = catt::raw_count(db);
    const long of_backup = catt::raw_count(db, "backupid = '" + probe.backup_id + "'");
    ASSERT_GT(of_backup, 1);
    // A data image of the backup expires nothing; its header image expires
    // every record of the backup.
    ASSERT_EQ(0u, app->expire_catalog("admin", 1, probe.client, probe.policy, probe.backup_id + "_C1_F1", true));
    EXPECT_EQ(before, catt::raw_count(db));
    ASSERT_EQ(0u, app->expire_catalog("admin", 1, probe.client, probe.policy, probe.backup_id + "_C1_HDR", true));
    EXPECT_EQ(before - of_backup, catt::raw_count(db));
    EXPECT_EQ(0, catt::raw_count(db, "backupid = '" + probe.backup_id + "'"));
    std::vector<app_catalog_item> got;
    ASSERT_EQ(0u, app->find_catalog("admin", 1,
                                    appdb::to_query_by_backup_id(probe.client, probe.policy, probe.backup_id), got));
    EXPECT_TRUE(got.empty());
    // Other databases are untouched.
    long total = 0;
    for (const auto& kv : expected) {
        const auto slash = kv.first.find('/');
        total += catt::raw_count(file(kv.first.substr(0, slash), kv.first.substr(slash + 1)));
    }
    EXPECT_EQ(kItems - of_backup, total);

    // Delete one record by name.
    const app_catalog_item victim = record(302);
    const std::string vdb = file(victim.client, victim.policy);
    const long vbefore = catt::raw_count(vdb);
    ASSERT_EQ(0u, app->del_catalog("admin", 1, appdb::to_query_by_file_name(victim.client, victim.policy, victim.file_name)));
    EXPECT_EQ(vbefore - 1, catt::raw_count(vdb));
    EXPECT_EQ(0, catt::raw_count(vdb, "name = '" + victim.file_name + "'"));
    EXPECT_EQ(72u, app->del_catalog("admin", 1, appdb::to_query_by_file_name(victim.client, victim.policy, victim.file_name)));
}

TEST_F(CatalogEndToEnd, ChangedChecksumMakesTheQueryFailAsCorrupt) {
    const app_catalog_item probe = record(77);
    sqlite3* raw = catt::raw_open(file(probe.client, probe.policy));
    catt::raw_exec(raw, "UPDATE catalog SET crc = 12345 WHERE name = '" + probe.file_name + "'");
    sqlite3_close(raw);
    log.clear();
    std::vector<app_catalog_item> got;
    EXPECT_EQ(67u, app->find_catalog("admin", 1,
                                     appdb::to_query_by_backup_id(probe.client, probe.policy, probe.backup_id), got));
    app_catalog_item shown = probe;
    shown.client.clear();
    shown.policy.clear();
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE,
                            "try_do_db_query: crc mismatch for app cat item " + shown.to_string()))
        << log.dump();
    std::string text;
    EXPECT_EQ(67u, app->find_catalog("admin", 1,
                                     appdb::to_query_by_file_name(probe.client, probe.policy, probe.file_name), text));
    // The other databases are still readable.
    EXPECT_EQ(0u, app->find_catalog("admin", 1, appdb::to_query_by_backup_id("client1", "policy0", "*"), got));
}

}  // namespace
