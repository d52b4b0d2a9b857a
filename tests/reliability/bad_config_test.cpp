// kavrel, end to end, on a broken environment: a registry or configuration
// file that is missing, empty, a directory, binary or unreadable, and a
// -dbpath that names a file. Each run ends with a clear log line and exit
// status, and never with a crash.
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tool/tool_test_util.h"

namespace {

class KavrelBadConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(kt::kavrel_binary().empty()) << "KAVREL_BINARY_DIR is not set";
        ASSERT_EQ(0, access(kt::kavrel_binary().c_str(), X_OK)) << kt::kavrel_binary() << " is not built";
    }
    kt::RunResult run_with_registry(const std::string& registry, const std::vector<std::string>& args = {"-listall"}) {
        kt::RunOptions o;
        o.set_env["VELKREGISTRY"] = registry;
        return kt::run_program(kt::kavrel_binary(), args, o);
    }
    kt::TestPool pool_;
};

const char kNoConfig[] = "ERROR [2] Failed to locate CR configuration file\n";

TEST_F(KavrelBadConfigTest, RegistryThatIsADirectoryFails) {
    const std::string dir = pool_.dir().file("registry.d");
    ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    const kt::RunResult r = run_with_registry(dir);
    EXPECT_EQ(255, r.exit_status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ(kNoConfig, r.err);
}

TEST_F(KavrelBadConfigTest, EmptyRegistryFails) {
    const std::string file = pool_.dir().file("empty.cfg");
    kt::write_file(file, "");
    const kt::RunResult r = run_with_registry(file);
    EXPECT_EQ(255, r.exit_status);
    EXPECT_EQ(kNoConfig, r.err);
}

TEST_F(KavrelBadConfigTest, BinaryRegistryFails) {
    std::string junk;
    for (int i = 0; i < 4096; ++i) junk += static_cast<char>((i * 7919) & 0xFF);
    const std::string file = pool_.dir().file("junk.cfg");
    kt::write_file(file, junk);
    const kt::RunResult r = run_with_registry(file);
    EXPECT_EQ(255, r.exit_status);
    EXPECT_EQ(kNoConfig, r.err);
}

TEST_F(KavrelBadConfigTest, UnreadableRegistryFails) {
    if (geteuid() == 0) GTEST_SKIP() << "root reads any file";
    ASSERT_EQ(0, chmod(pool_.registry().c_str(), 0));
    const kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(255, r.exit_status);
    EXPECT_EQ(kNoConfig, r.err);
}

// The configuration file only has to exist: a directory, an empty file or a
// binary one yields no database root, and the walk of the empty root finds
// nothing (exit 0, nothing listed, the missing root logged).
TEST_F(KavrelBadConfigTest, ConfigurationWithoutUsableRootListsNothing) {
    const std::string dir = pool_.dir().file("config.d");
    ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    const std::string empty = pool_.dir().file("empty.cfg");
    kt::write_file(empty, "");
    std::string junk;
    for (int i = 0; i < 4096; ++i) junk += static_cast<char>((i * 131) & 0xFF);
    const std::string binary = pool_.dir().file("binary.cfg");
    kt::write_file(binary, junk);
    for (const std::string& config : {dir, empty, binary}) {
        pool_.write_registry(config);
        const kt::RunResult r = pool_.run({"-listall"});
        EXPECT_EQ(0, r.exit_status) << config;
        EXPECT_EQ("", r.out) << config;
        EXPECT_EQ("INFO [2] Directory  doesn't exist.\n", r.err) << config;
    }
}

TEST_F(KavrelBadConfigTest, MissingConfigurationFails) {
    pool_.write_registry(pool_.dir().file("nowhere.cfg"));
    const kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(255, r.exit_status);
    EXPECT_EQ(kNoConfig, r.err);
}

// -dbpath naming a file: the walk cannot open it as a directory, says so,
// lists nothing and exits 0 like any walk that ends.
TEST_F(KavrelBadConfigTest, DbpathNamingAFileIsReported) {
    const std::string file = pool_.dir().file("plain-file");
    kt::write_file(file, "not a directory");
    const kt::RunResult r = pool_.run({"-listall", "-dbpath", file});
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("ERROR [2] Failed to open directory " + file + "\n", r.err);
}

}  // namespace
