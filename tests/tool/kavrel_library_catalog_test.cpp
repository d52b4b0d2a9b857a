// kavrel lists what the catalog library itself wrote: items stored with
// update_catalog come back in the listing exactly as their text forms.
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "appdb/app_catalog_item.h"
#include "appdb/catalog_application_base.h"
#include "gtest/gtest.h"
#include "tool_test_util.h"

namespace {

class KavrelLibraryCatalogTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(kt::kavrel_binary().empty()) << "KAVREL_BINARY_DIR is not set";
        ASSERT_EQ(0, access(kt::kavrel_binary().c_str(), X_OK)) << kt::kavrel_binary() << " is not built";
    }

    static appdb::app_catalog_item item(const std::string& client, const std::string& policy, int n) {
        appdb::app_catalog_item it;
        it.client = client;
        it.policy = policy;
        it.backup_id = client + "_" + std::to_string(1700000000 + 86400 * (n / 2));
        it.file_name = it.backup_id + "_C1_F" + std::to_string(n % 2 + 1);
        it.file_len = 4096u * (n + 1);
        it.frag_nums = 1;
        it.app_id = "orcl";
        it.data_object = "obj" + std::to_string(n);
        it.backup_start_time = 1700000000 + 86400 * (n / 2);
        it.backup_stop_time = it.backup_start_time + 600;
        it.owner = "svc";
        it.owner_role = n == 3 ? 1 : 4;
        it.description = "item " + std::to_string(n);
        it.reserver4 = "r4";
        return it;
    }

    // Stores `items` for data store `dsid` through the factory's plain kind.
    void store(unsigned dsid, const std::vector<appdb::app_catalog_item>& items) {
        kt::LogCapture quiet;  // keep the library's records off the test output
        std::unique_ptr<appdb::catalog_application> app(appdb::catalog_application_factory::create_catalog(
            dsid, pool_.root() + "/databases", appdb::APP_D_CATALOG, nullptr, 5));
        ASSERT_NE(nullptr, app);
        for (const auto& it : items) {
            ASSERT_EQ(CR_STATUS_OK, app->update_catalog("svc", 4, it.to_string())) << quiet.dump();
        }
    }

    kt::TestPool pool_;
};

TEST_F(KavrelLibraryCatalogTest, ListsItemsStoredThroughUpdateCatalog) {
    std::multiset<std::string> lines;
    std::multiset<std::string> verbose;
    std::multiset<std::string> expected_dirs;
    for (unsigned dsid : {3u, 4u}) {
        for (const std::string client : {"cA", "cB"}) {
            for (const std::string policy : {"daily", "weekly"}) {
                std::vector<appdb::app_catalog_item> items;
                for (int n = 0; n < 4; ++n) items.push_back(item(client, policy, n));
                store(dsid, items);
                std::string block = "[" + pool_.catalog_dir(dsid, client, policy) + "]\n";
                std::string vblock = block;
                for (const auto& it : items) {
                    block += it.to_string() + "\n";
                    vblock += it.to_json_string(nullptr) + "\n";
                }
                lines.insert(block + "total app catalog 4\n\n");
                verbose.insert(vblock + "total app catalog 4\n\n");
            }
        }
    }

    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(lines, kt::listing_block_set(r.out));
    EXPECT_EQ(std::string::npos, r.err.find("ERROR")) << r.err;

    kt::RunResult v = pool_.run({"-listall", "-v"});
    EXPECT_EQ(0, v.exit_status) << v.err;
    EXPECT_EQ(verbose, kt::listing_block_set(v.out));
}

TEST_F(KavrelLibraryCatalogTest, BackupIdPatternSelectsItems) {
    std::vector<appdb::app_catalog_item> items;
    for (int n = 0; n < 6; ++n) items.push_back(item("cA", "daily", n));
    store(1, items);
    kt::RunResult r = pool_.run({"-listbybackupid", "cA_1700086400"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ("[" + pool_.catalog_dir(1, "cA", "daily") + "]\n" + items[2].to_string() + "\n" +
                  items[3].to_string() + "\ntotal app catalog 2\n\n",
              r.out);
}

}  // namespace
