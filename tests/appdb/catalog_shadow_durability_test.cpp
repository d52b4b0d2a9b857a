// Nothing the catalog acknowledged is lost: 2,000 records go in through
// update_catalog, some backups expire, some records are deleted; then the
// database file is deleted, or its header or several of its pages are
// overwritten, and the next find_catalog recovers it with exactly the rows
// acknowledged, as a model kept by the test says.
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "catalog_shadow_fixture.h"

namespace {

using appdb::app_catalog_item;
using dct::log_level;

constexpr int kItems = 2000;

enum class loss { deleted, header, pages };

void PrintTo(loss how, std::ostream* os) {
    *os << (how == loss::deleted ? "deleted" : how == loss::header ? "header damaged" : "pages damaged");
}

class ShadowDurability : public shadowt::shadow_fixture,
                         public ::testing::WithParamInterface<loss> {
protected:
    // 2,000 records in 100 backups of 20; backups 10, 20, ..., 90 expire,
    // and every 13th record is deleted by name.
    void build() {
        std::mt19937 rng(2024);
        for (int i = 0; i < kItems; ++i) {
            const std::string bid = "cl_" + std::to_string(1700000000 + i / 20);
            app_catalog_item item = catt::make_item("cl", "pol", "/vol/data/file_" + std::to_string(i), bid,
                                                    1700000000 + i);
            item.file_len = rng();
            item.description = "record " + std::to_string(i) + " it's";
            backup_of[item.file_name] = bid;
            insert(item);
        }
        for (int b = 10; b < 100; b += 10) {
            const std::string bid = "cl_" + std::to_string(1700000000 + b);
            ASSERT_EQ(0u, app->expire_catalog("admin", 1, "cl", "pol", bid + "_C1_HDR", true)) << log.dump();
            model.erase_backup(backup_of, bid);
        }
        for (int i = 0; i < kItems; i += 13) {
            const std::string name = "/vol/data/file_" + std::to_string(i);
            const cr_status_t status = app->del_catalog("admin", 1, "name|cl,pol," + name);
            if (model.rows().count(name) != 0) {
                ASSERT_EQ(0u, status) << name;
                model.erase(name);
            } else {
                ASSERT_EQ(72u, status) << name;  // expired with its backup already
            }
        }
        ASSERT_LT(model.size(), static_cast<size_t>(kItems));
        ASSERT_GT(model.size(), static_cast<size_t>(kItems) / 2);
    }

    std::map<std::string, std::string> backup_of;
};

TEST_P(ShadowDurability, TheNextFindRecoversExactlyTheAcknowledgedRows) {
    build();
    const std::string file = db_file("cl", "pol");
    ASSERT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "cl", "pol")));

    restart_app();
    std::mt19937 rng(99);
    switch (GetParam()) {
    case loss::deleted:
        shadowt::delete_database(file);
        break;
    case loss::header:
        shadowt::damage_header(file, rng);
        break;
    case loss::pages:
        shadowt::damage_pages(file, rng);
        break;
    }
    log.clear();

    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "cl", "pol"))) << log.dump();
    EXPECT_EQ(1u, log.count_containing("find_catalog: db " + db_dir("cl", "pol") +
                                       " corrupt, to do recover from shadow"));
    EXPECT_EQ("ok", shadowt::integrity(file));
    EXPECT_EQ(static_cast<long>(model.size()), catt::raw_count(file));

    // The recovered database takes new changes, and they are protected too.
    const app_catalog_item more = catt::make_item("cl", "pol", "after", "cl_1");
    insert(more);
    restart_app();
    shadowt::delete_database(file);
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "cl", "pol"))) << log.dump();
}

INSTANTIATE_TEST_SUITE_P(Losses, ShadowDurability,
                         ::testing::Values(loss::deleted, loss::header, loss::pages),
                         [](const ::testing::TestParamInfo<loss>& info) {
                             switch (info.param) {
                             case loss::deleted:
                                 return "Deleted";
                             case loss::header:
                                 return "HeaderDamaged";
                             default:
                                 return "PagesDamaged";
                             }
                         });

}  // namespace
