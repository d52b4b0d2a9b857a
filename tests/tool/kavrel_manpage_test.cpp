// The man page of kavrel is valid groff man: no warnings at the strictest level.
#include <unistd.h>

#include <string>

#include "gtest/gtest.h"
#include "tool_test_util.h"

namespace {

// The source tree: $KAVREL_SOURCE_DIR, else the tree this file was compiled from.
std::string source_dir() {
    const char* src = getenv("KAVREL_SOURCE_DIR");
    if (src != nullptr && *src != '\0') return src;
    const std::string self = __FILE__;
    const size_t at = self.rfind("/tests/tool/");
    return at == std::string::npos ? "" : self.substr(0, at);
}

bool groff_available() {
    kt::RunResult r = kt::run_program("/bin/sh", {"-c", "command -v groff"});
    return r.exit_status == 0;
}

TEST(KavrelManPage, GroffReportsNoWarnings) {
    const std::string page = source_dir() + "/tool/kavrel.1";
    ASSERT_EQ(0, access(page.c_str(), R_OK)) << page;
    if (!groff_available()) GTEST_SKIP() << "groff is not installed";

    kt::RunResult r = kt::run_program("/bin/sh", {"-c", "groff -ww -z -man \"$0\"", page});
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ("", r.err);
    EXPECT_EQ("", r.out);
}

TEST(KavrelManPage, NamesEveryOptionAndTheUsageLine) {
    const std::string page = source_dir() + "/tool/kavrel.1";
    ASSERT_EQ(0, access(page.c_str(), R_OK)) << page;
    const std::string text = kt::read_file(page);
    for (const char* option : {"listall", "listbybackupid", "dbpath", "\\-v", "\\-h", "VELKREGISTRY",
                               "/etc/velkregistry.cfg", "Tamberlode", "configfilepath", "DCT_LOG", "DCT_TRACE",
                               "total app catalog", "255"}) {
        EXPECT_NE(std::string::npos, text.find(option)) << option;
    }
}

}  // namespace
