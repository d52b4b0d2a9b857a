// The pool of the kavrel-shadow end-to-end tests: two shadow-protected
// catalogs made through the library (factory type 2), the built binary run on
// them, snapshots of the tree to show that a command changed nothing, and ways
// to run as a user without write access.
#ifndef KAVREL_TESTS_TOOL_KAVREL_SHADOW_FIXTURE_H_
#define KAVREL_TESTS_TOOL_KAVREL_SHADOW_FIXTURE_H_

#include <ftw.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <regex>
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

namespace kshadowt {

using kst::drop_privileges;
using kst::item;
using kst::make_read_only;
using kst::make_writable;
using kst::shadow_binary;

// Every file and directory below a root: path -> mode and content.
inline std::map<std::string, std::string>* g_tree = nullptr;
inline int record_entry(const char* path, const struct stat* st, int flag, struct FTW*) {
    std::string entry = std::to_string(st->st_mode) + ":";
    if (flag == FTW_F) entry += kt::read_file(path);
    (*g_tree)[path] = entry;
    return 0;
}
inline std::map<std::string, std::string> snapshot(const std::string& root) {
    std::map<std::string, std::string> tree;
    g_tree = &tree;
    nftw(root.c_str(), record_entry, 16, FTW_PHYS);
    g_tree = nullptr;
    return tree;
}

// Changes a stored field of the second row behind the catalog's back: its
// checksum no longer matches.
inline void tamper_second_row(const std::string& db_file) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(db_file.c_str(), &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "UPDATE catalog SET description = 'tampered' WHERE rowid = 2;", nullptr,
                                      nullptr, nullptr));
    sqlite3_close(db);
}

// Ages change from run to run; the texts are compared with them masked.
inline std::string mask_ages(const std::string& text) {
    return std::regex_replace(text, std::regex("age [0-9]+[smhd]"), "age N");
}

class KavrelShadowTest : public ::testing::Test {
protected:
    void SetUp() override {
        chmod(pool_.dir().path().c_str(), 0755);
        storage_ = pool_.dir().file("storage");
        kt::write_file(pool_.config(), "[Paths]\nDatabase = " + pool_.root() + "\nStorageDatabase = " + pool_.root() +
                                           "\n[Storage]\nStorage Path = " + storage_ + "\n");
        shadow_root_ = storage_ + "/catalogshadow";
        p1_ = pool_.catalog_dir(1, "c1", "p1");
        p2_ = pool_.catalog_dir(1, "c2", "p2");
        s1_ = shadow_root_ + "/1/c1/p1";
        build({{"c1", "p1", 3}, {"c2", "p2", 2}});
    }

    struct Fill {
        std::string client, policy;
        int items;
    };

    // Makes the catalogs through a shadow-protected catalog application, as
    // a service does: each database gets its first version when created and a
    // journal line per item.
    void build(const std::vector<Fill>& fills) {
        CatalogShadowContext context(new ConfigFileShadowProxy(pool_.config(), pool_.root()),
                                     new CatalogDirectoryLock());
        ASSERT_EQ(CR_STATUS_OK, context.load_configurations());
        ASSERT_EQ(CR_STATUS_OK, CatalogShadowIdentity(context.shadow_path.c_str()).create_identity());
        ASSERT_EQ(CR_STATUS_OK, context.init());
        std::unique_ptr<appdb::catalog_application> catalog(appdb::catalog_application_factory::create_catalog(
            1, pool_.root() + "/databases", appdb::APP_D_CATALOG_SHADOW, &context, 5));
        ASSERT_TRUE(catalog);
        for (const Fill& f : fills) {
            for (int i = 0; i < f.items; ++i) {
                ASSERT_EQ(CR_STATUS_OK,
                          catalog->update_catalog("svc", appdb::APP_ROLE_APP, item(f.client, f.policy, i).to_string()));
            }
        }
    }

    kt::RunResult run(const std::vector<std::string>& args, kt::RunOptions options = kt::RunOptions()) {
        options.set_env.emplace(appdb::kRegistryEnv, pool_.registry());
        options.set_env["DCT_LOG"] = "none";
        return kt::run_program(shadow_binary(), args, options);
    }

    // Runs a command that must change nothing, and checks that it did not.
    kt::RunResult run_read_only(const std::vector<std::string>& args) {
        const auto before = snapshot(pool_.dir().path());
        kt::RunResult r = run(args);
        EXPECT_EQ(before, snapshot(pool_.dir().path())) << "changed by " << args[0];
        return r;
    }

    std::string live_block(const std::string& dir, const std::string& live) const {
        return "appdb " + dir + "\n  live          " + live + "\n";
    }

    kt::TestPool pool_;
    std::string storage_, shadow_root_, p1_, p2_, s1_;
};

}  // namespace kshadowt

#endif  // KAVREL_TESTS_TOOL_KAVREL_SHADOW_FIXTURE_H_
