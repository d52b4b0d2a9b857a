// kavrel-shadow's JSON of a database whose path is not valid UTF-8: the
// documents stay valid JSON, and the path reads back to the very bytes
// ({"hex": ...}, tool/json_text.h).
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kavrel_shadow_fixture.h"
#include "offsite/json_text.h"

namespace {

using namespace kshadowt;

const std::string kClient = "caf\xe9";  // Latin-1, not UTF-8

// The fixture's pool and one more catalog whose client is named in Latin-1.
class KavrelShadowJsonTextTest : public KavrelShadowTest {
protected:
    void SetUp() override {
        KavrelShadowTest::SetUp();
        build({{kClient, "daily", 1}});
        dir_ = pool_.catalog_dir(1, kClient, "daily");
    }

    std::string dir_;
};

TEST_F(KavrelShadowJsonTextTest, PathThatIsNotUtf8ReadsBackToTheSameBytes) {
    kt::RunResult r = run({"--json", "status", dir_});
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

    r = run({"--json-lines", "status", dir_});
    ASSERT_EQ(0, r.exit_status) << r.err;
    const std::vector<std::string> lines = kt::split_lines(r.out);
    ASSERT_EQ(2u, lines.size());
    ASSERT_TRUE(ktool::json_text_bytes(ktool::json::parse(lines[0])["dir"], &bytes));
    EXPECT_EQ(dir_, bytes);
}

}  // namespace
