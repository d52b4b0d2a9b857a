// kavrel-find's man page is valid groff man (no warnings at the strictest
// level) and names every option, field, the JSON rule and the exit statuses.
#include <unistd.h>

#include <string>

#include "gtest/gtest.h"
#include "tool/kavrel_find_options.h"
#include "tool_test_util.h"

namespace {

std::string page_path() {
    const char* src = getenv("KAVREL_SOURCE_DIR");
    std::string dir = src != nullptr ? src : "";
    if (dir.empty()) {
        const std::string self = __FILE__;
        dir = self.substr(0, self.rfind("/tests/tool/"));
    }
    return dir + "/tool/kavrel-find.1";
}

// How the page writes a name: every "-" as "\-".
std::string roff(const std::string& name) {
    std::string out;
    for (char c : name) {
        if (c == '-') out += '\\';
        out += c;
    }
    return out;
}

TEST(KavrelFindManPage, GroffReportsNoWarnings) {
    ASSERT_EQ(0, access(page_path().c_str(), R_OK)) << page_path();
    if (kt::run_program("/bin/sh", {"-c", "command -v groff"}).exit_status != 0) {
        GTEST_SKIP() << "groff is not installed";
    }
    kt::RunResult r = kt::run_program("/bin/sh", {"-c", "groff -ww -z -man \"$0\"", page_path()});
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ("", r.err);
    EXPECT_EQ("", r.out);
}

TEST(KavrelFindManPage, NamesEveryOptionFieldAndExitStatus) {
    const std::string text = kt::read_file(page_path());
    for (const char* word : {".TH KAVREL-FIND 1", "--registry", "--dbpath", "--dsid", "--client", "--policy",
                             "--backup-id", "--file-name", "--owner", "--since", "--until", "--expires-before",
                             "--json-lines", "--csv", "--format", "--sort", "--first", "--last", "--count",
                             "--summary", "VELKREGISTRY", "DCT_LOG", "{\"hex\": H}", ".B 0\n", ".B 1\n", ".B 2\n",
                             ".B 3\n"}) {
        EXPECT_NE(std::string::npos, text.find(roff(word))) << word;
    }
    // Every output column, in the schema's order.
    size_t at = text.find(".SH JSON SCHEMA");
    ASSERT_NE(std::string::npos, at);
    for (const kfind::item_column& c : kfind::item_columns()) {
        if (c.name.compare(0, 8, "reserver") == 0) continue;
        const size_t next = text.find("\n" + c.name + " ", at);
        EXPECT_NE(std::string::npos, next) << c.name;
        if (next != std::string::npos) at = next;
    }
    for (size_t k = 0; k < kfind::kSummaryColumnCount; ++k) {
        EXPECT_NE(std::string::npos, text.find(std::string("\"") + kfind::kSummaryColumns[k] + "\""))
            << kfind::kSummaryColumns[k];
    }
}

}  // namespace
