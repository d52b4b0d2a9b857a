// kavrel-shadow's JSON of a database whose path is not valid UTF-8: the
// documents stay valid JSON, and the path reads back to the very bytes
// ({"hex": ...}, tool/json_text.h).
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/app_catalog_item.h"
#include "appdb/catalog_application.h"
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"
#include "catalog_shadow/DirectoryLock.h"
#include "tool/json_text.h"
#include "tool_test_util.h"

namespace {

const std::string kClient = "caf\xe9";  // Latin-1, not UTF-8

class KavrelShadowJsonTextTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string storage = pool_.dir().file("storage");
        kt::write_file(pool_.config(), "[Paths]\nDatabase = " + pool_.root() + "\nStorageDatabase = " +
                                           pool_.root() + "\n[Storage]\nStorage Path = " + storage + "\n");
        CatalogShadowContext context(new ConfigFileShadowProxy(pool_.config(), pool_.root()),
                                     new CatalogDirectoryLock());
        ASSERT_EQ(CR_STATUS_OK, context.load_configurations());
        ASSERT_EQ(CR_STATUS_OK, CatalogShadowIdentity(context.shadow_path.c_str()).create_identity());
        ASSERT_EQ(CR_STATUS_OK, context.init());
        std::unique_ptr<appdb::catalog_application> catalog(appdb::catalog_application_factory::create_catalog(
            1, pool_.root() + "/databases", appdb::APP_D_CATALOG_SHADOW, &context, 5));
        ASSERT_TRUE(catalog);
        appdb::app_catalog_item item;
        item.client = kClient;
        item.policy = "daily";
        item.backup_id = "B_1700000000";
        item.file_name = "B_1700000000_C1_F1";
        item.owner = "svc";
        ASSERT_EQ(CR_STATUS_OK, catalog->update_catalog("svc", appdb::APP_ROLE_APP, item.to_string()));
        dir_ = pool_.catalog_dir(1, kClient, "daily");
    }

    kt::RunResult run(const std::vector<std::string>& args) {
        kt::RunOptions options;
        options.set_env.emplace(appdb::kRegistryEnv, pool_.registry());
        options.set_env["DCT_LOG"] = "none";
        const char* dir = getenv("KAVREL_BINARY_DIR");
        return kt::run_program(std::string(dir != nullptr ? dir : "") + "/tool/kavrel-shadow", args, options);
    }

    kt::TestPool pool_;
    std::string dir_;
};

TEST_F(KavrelShadowJsonTextTest, PathThatIsNotUtf8ReadsBackToTheSameBytes) {
    kt::RunResult r = run({"--json", "status"});
    ASSERT_EQ(0, r.exit_status) << r.err;
    const ktool::json doc = ktool::json::parse(r.out);
    const ktool::json& db = doc["databases"][0];
    EXPECT_TRUE(db["dir"].is_object()) << r.out;
    std::string bytes;
    ASSERT_TRUE(ktool::json_text_bytes(db["dir"], &bytes));
    EXPECT_EQ(dir_, bytes);
    ASSERT_TRUE(ktool::json_text_bytes(db["live"]["path"], &bytes));
    EXPECT_EQ(dir_ + "/app.db", bytes);
    ASSERT_TRUE(ktool::json_text_bytes(db["versions"][0]["path"], &bytes));
    EXPECT_NE(std::string::npos, bytes.find("/" + kClient + "/daily/"));
    // A text that is UTF-8 stays a plain string.
    EXPECT_EQ("appdb", db["type"]);

    r = run({"--json-lines", "status"});
    ASSERT_EQ(0, r.exit_status) << r.err;
    const std::vector<std::string> lines = kt::split_lines(r.out);
    ASSERT_EQ(2u, lines.size());
    ASSERT_TRUE(ktool::json_text_bytes(ktool::json::parse(lines[0])["dir"], &bytes));
    EXPECT_EQ(dir_, bytes);
}

}  // namespace
