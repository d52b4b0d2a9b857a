// kavrel start-up, end to end: argument handling, usage text, exit statuses,
// the registry and CR configuration lookup, and the database root forms.
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "raw_catalog.h"
#include "tool_test_util.h"

namespace {

const char kMissingConfig[] = "ERROR [2] Failed to locate CR configuration file\n";

class KavrelStartupTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(kt::kavrel_binary().empty()) << "KAVREL_BINARY_DIR is not set";
        ASSERT_EQ(0, access(kt::kavrel_binary().c_str(), X_OK)) << kt::kavrel_binary() << " is not built";
    }

    // One catalog 7/c1/p1 with items of backup ids B1, B2 and B10.
    void add_catalog() {
        const std::string dir = pool_.catalog_dir(7, "c1", "p1");
        kt::make_dirs(dir);
        std::vector<kt::RawRow> rows(3);
        const char* bids[] = {"B1", "B2", "B10"};
        for (int i = 0; i < 3; ++i) {
            rows[i].file_name = std::string("f") + std::to_string(i);
            rows[i].backup_id = bids[i];
            rows[i].backup_start_time = 100 + i;
        }
        ASSERT_EQ("", kt::raw_write_catalog(dir + "/app.db", rows));
        rows_ = rows;
    }

    std::string block(const std::vector<int>& which) const {
        std::string s = "[" + pool_.catalog_dir(7, "c1", "p1") + "]\n";
        for (int i : which) s += kt::raw_line_form(rows_[i], "c1", "p1") + "\n";
        s += "total app catalog " + std::to_string(which.size()) + "\n\n";
        return s;
    }

    kt::TestPool pool_;
    std::vector<kt::RawRow> rows_;
};

TEST_F(KavrelStartupTest, NoArgumentPrintsUsage) {
    kt::RunResult r = pool_.run({});
    EXPECT_EQ(255, r.exit_status);
    EXPECT_EQ(kt::kavrel_usage_text(), r.out);
    EXPECT_EQ("", r.err);
}

TEST_F(KavrelStartupTest, NoArgumentPrintsUsageEvenWithoutConfiguration) {
    kt::RunOptions o;
    o.set_env[appdb::kRegistryEnv] = pool_.dir().file("no-such-registry.cfg");
    kt::RunResult r = kt::run_program(kt::kavrel_binary(), {}, o);
    EXPECT_EQ(255, r.exit_status);
    EXPECT_EQ(kt::kavrel_usage_text(), r.out);
    EXPECT_EQ("", r.err);
}

// Every way of asking for the usage, or of getting the arguments wrong:
// usage on standard output, byte for byte, status 255, nothing logged.
class KavrelUsageTest : public KavrelStartupTest,
                        public ::testing::WithParamInterface<std::vector<std::string>> {};

TEST_P(KavrelUsageTest, PrintsUsageAndFails) {
    add_catalog();
    kt::RunResult r = pool_.run(GetParam());
    EXPECT_EQ(255, r.exit_status);
    EXPECT_EQ(kt::kavrel_usage_text(), r.out);
    EXPECT_EQ("", r.err);
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, KavrelUsageTest,
    ::testing::Values(std::vector<std::string>{"-h"}, std::vector<std::string>{"-v"},
                      std::vector<std::string>{"-dbpath", "/x"}, std::vector<std::string>{"-listbybackupid"},
                      std::vector<std::string>{"-listall", "-dbpath"},
                      std::vector<std::string>{"-v", "-listbybackupid"},
                      // Unknown arguments, also after a valid listing option.
                      std::vector<std::string>{"-listall", "-x"}, std::vector<std::string>{"-x", "-listall"},
                      std::vector<std::string>{"-listall", "-h"},
                      std::vector<std::string>{"-listbybackupid", "B1", "extra"},
                      // Exact, case-sensitive, whole-word comparison.
                      std::vector<std::string>{"-LISTALL"}, std::vector<std::string>{"--listall"},
                      std::vector<std::string>{"listall"}, std::vector<std::string>{"-list"},
                      std::vector<std::string>{"-listall="}, std::vector<std::string>{""},
                      std::vector<std::string>{"-listall", ""}));

// With no CR configuration file nothing runs, not even the usage: one error
// record, nothing on standard output, status 255.
class KavrelMissingConfigTest : public KavrelStartupTest,
                                public ::testing::WithParamInterface<std::vector<std::string>> {};

TEST_P(KavrelMissingConfigTest, RegistryFileMissing) {
    kt::RunOptions o;
    o.set_env[appdb::kRegistryEnv] = pool_.dir().file("no-such-registry.cfg");
    kt::RunResult r = kt::run_program(kt::kavrel_binary(), GetParam(), o);
    EXPECT_EQ(255, r.exit_status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ(kMissingConfig, r.err);
}

TEST_P(KavrelMissingConfigTest, RegistryNamesMissingFile) {
    pool_.write_registry(pool_.dir().file("no-such-pool.cfg"));
    kt::RunResult r = pool_.run(GetParam());
    EXPECT_EQ(255, r.exit_status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ(kMissingConfig, r.err);
}

TEST_P(KavrelMissingConfigTest, RegistryWithoutEntry) {
    kt::write_file(pool_.registry(), std::string("[") + appdb::kRegistrySection + "]\nother = " +
                                         pool_.config() + "\n[Elsewhere]\n" + appdb::kRegistryConfigFileKey +
                                         " = " + pool_.config() + "\n");
    kt::RunResult r = pool_.run(GetParam());
    EXPECT_EQ(255, r.exit_status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ(kMissingConfig, r.err);
}

TEST_P(KavrelMissingConfigTest, RegistryEntryEmpty) {
    kt::write_file(pool_.registry(), std::string("[") + appdb::kRegistrySection + "]\n" +
                                         appdb::kRegistryConfigFileKey + " =\n");
    kt::RunResult r = pool_.run(GetParam());
    EXPECT_EQ(255, r.exit_status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ(kMissingConfig, r.err);
}

INSTANTIATE_TEST_SUITE_P(Arguments, KavrelMissingConfigTest,
                         ::testing::Values(std::vector<std::string>{"-listall"},
                                           std::vector<std::string>{"-h"},
                                           std::vector<std::string>{"-bogus"},
                                           std::vector<std::string>{"-listall", "-dbpath", "/tmp"}));

TEST_F(KavrelStartupTest, RegistryKeysAreCaseInsensitiveAndLocatesConfiguration) {
    add_catalog();
    kt::write_file(pool_.registry(), "; registry\n[TAMBERLODE]\nConfigFilePath = " + pool_.config() + "\n");
    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(block({0, 1, 2}), r.out);
}

// An empty VELKREGISTRY does not name a file: the default registry is read.
// Without /etc/velkregistry.cfg that is the missing-configuration failure,
// although the variable's would-be file is not consulted at all.
TEST_F(KavrelStartupTest, EmptyRegistryVariableFallsBackToDefault) {
    struct stat st;
    if (stat(appdb::kRegistryDefaultPath, &st) == 0) {
        GTEST_SKIP() << appdb::kRegistryDefaultPath << " exists on this machine";
    }
    add_catalog();
    kt::RunOptions o;
    o.set_env[appdb::kRegistryEnv] = "";
    kt::RunResult empty = kt::run_program(kt::kavrel_binary(), {"-listall"}, o);
    EXPECT_EQ(255, empty.exit_status);
    EXPECT_EQ("", empty.out);
    EXPECT_EQ(kMissingConfig, empty.err);

    kt::RunOptions unset;
    unset.unset_env.push_back(appdb::kRegistryEnv);
    kt::RunResult none = kt::run_program(kt::kavrel_binary(), {"-listall"}, unset);
    EXPECT_EQ(255, none.exit_status);
    EXPECT_EQ(kMissingConfig, none.err);
}

// Mounts, in the child's own mount namespace, an overlay over /etc that adds
// `registry_text` as velkregistry.cfg. Nothing outside the child sees it.
int overlay_default_registry(const std::string& scratch, const std::string& registry_text) {
    if (unshare(CLONE_NEWNS) != 0) return 1;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return 2;
    if (mount("tmpfs", scratch.c_str(), "tmpfs", 0, nullptr) != 0) return 3;
    const std::string upper = scratch + "/upper";
    const std::string work = scratch + "/work";
    if (mkdir(upper.c_str(), 0755) != 0 || mkdir(work.c_str(), 0755) != 0) return 4;
    {
        std::ofstream f(upper + "/velkregistry.cfg");
        f << registry_text;
        if (!f) return 5;
    }
    const std::string opts = "lowerdir=/etc,upperdir=" + upper + ",workdir=" + work;
    if (mount("overlay", "/etc", "overlay", 0, opts.c_str()) != 0) return 6;
    return 0;
}

TEST_F(KavrelStartupTest, EmptyRegistryVariableReadsDefaultRegistryFile) {
    add_catalog();
    const std::string scratch = pool_.dir().file("scratch");
    ASSERT_EQ(0, mkdir(scratch.c_str(), 0755));
    const std::string registry_text = kt::read_file(pool_.registry());

    for (bool set_empty : {true, false}) {
        SCOPED_TRACE(set_empty ? "VELKREGISTRY empty" : "VELKREGISTRY unset");
        kt::RunOptions o;
        if (set_empty) {
            o.set_env[appdb::kRegistryEnv] = "";
        } else {
            o.unset_env.push_back(appdb::kRegistryEnv);
        }
        o.in_child = [&] { return overlay_default_registry(scratch, registry_text); };
        kt::RunResult r = kt::run_program(kt::kavrel_binary(), {"-listall"}, o);
        if (r.exit_status > 120 && r.exit_status < 127) {
            GTEST_SKIP() << "no private mount namespace here (step " << r.exit_status - 120 << ")";
        }
        EXPECT_EQ(0, r.exit_status) << r.err;
        EXPECT_EQ(block({0, 1, 2}), r.out);
    }
}

TEST_F(KavrelStartupTest, LaterListingOptionOverridesEarlier) {
    add_catalog();
    kt::RunResult by_id = pool_.run({"-listall", "-listbybackupid", "B1"});
    EXPECT_EQ(0, by_id.exit_status) << by_id.err;
    EXPECT_EQ(block({0}), by_id.out);

    kt::RunResult all = pool_.run({"-listbybackupid", "B1", "-listall"});
    EXPECT_EQ(0, all.exit_status) << all.err;
    EXPECT_EQ(block({0, 1, 2}), all.out);

    kt::RunResult second = pool_.run({"-listbybackupid", "B1", "-listbybackupid", "B2"});
    EXPECT_EQ(0, second.exit_status) << second.err;
    EXPECT_EQ(block({1}), second.out);
}

TEST_F(KavrelStartupTest, PatternIsHandedOnUnchanged) {
    add_catalog();
    // A trailing star makes a GLOB pattern, ordered by backup start time.
    EXPECT_EQ(block({0, 2}), pool_.run({"-listbybackupid", "B1*"}).out);
    EXPECT_EQ(block({0, 1, 2}), pool_.run({"-listbybackupid", "B*"}).out);
    EXPECT_EQ(block({1}), pool_.run({"-listbybackupid", "B[2-9]*"}).out);
    EXPECT_EQ(block({2}), pool_.run({"-listbybackupid", "B1?*"}).out);
    // Without it the backup id must be equal: "?" is no wildcard then.
    EXPECT_EQ(block({}), pool_.run({"-listbybackupid", "B?"}).out);
    EXPECT_EQ(block({2}), pool_.run({"-listbybackupid", "B10"}).out);
    // Case-sensitive.
    EXPECT_EQ(block({}), pool_.run({"-listbybackupid", "b1"}).out);
    EXPECT_EQ(block({}), pool_.run({"-listbybackupid", "b*"}).out);
    // The empty pattern is a valid (exact) pattern.
    EXPECT_EQ(block({}), pool_.run({"-listbybackupid", ""}).out);
}

TEST_F(KavrelStartupTest, DbpathReplacesConfiguredRoot) {
    add_catalog();
    const std::string other = pool_.dir().file("empty-root");
    ASSERT_EQ(0, mkdir(other.c_str(), 0755));
    pool_.write_config(other);
    EXPECT_EQ("", pool_.run({"-listall"}).out);

    kt::RunResult r = pool_.run({"-dbpath", pool_.root(), "-listall"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(block({0, 1, 2}), r.out);

    // A later -dbpath overrides an earlier one; the option may follow -listall.
    kt::RunResult later = pool_.run({"-listall", "-dbpath", other, "-dbpath", pool_.root()});
    EXPECT_EQ(block({0, 1, 2}), later.out);
    kt::RunResult back = pool_.run({"-listall", "-dbpath", pool_.root(), "-dbpath", other});
    EXPECT_EQ("", back.out);
}

TEST_F(KavrelStartupTest, TrailingSlashOfRootIsRemovedOnce) {
    add_catalog();
    kt::RunResult plain = pool_.run({"-listall", "-dbpath", pool_.root()});
    kt::RunResult slash = pool_.run({"-listall", "-dbpath", pool_.root() + "/"});
    EXPECT_EQ(0, plain.exit_status);
    EXPECT_EQ(0, slash.exit_status);
    EXPECT_EQ(block({0, 1, 2}), plain.out);
    EXPECT_EQ(plain.out, slash.out);

    // The configured root loses its slash the same way.
    pool_.write_config(pool_.root() + "/");
    EXPECT_EQ(plain.out, pool_.run({"-listall"}).out);

    // Of two slashes one stays, and the walk's paths show it.
    kt::RunResult two = pool_.run({"-listall", "-dbpath", pool_.root() + "//"});
    EXPECT_EQ(0, two.exit_status);
    const std::string dir = pool_.root() + "//databases/application/7/c1/p1";
    std::string expected = "[" + dir + "]\n";
    for (int i : {0, 1, 2}) expected += kt::raw_line_form(rows_[i], "c1", "p1") + "\n";
    expected += "total app catalog 3\n\n";
    EXPECT_EQ(expected, two.out);
}

TEST_F(KavrelStartupTest, SlashRootBecomesEmptyRoot) {
    kt::RunOptions o;
    o.set_env["DCT_TRACE"] = "1";
    kt::RunResult r = pool_.run({"-dbpath", "/", "-listall"}, o);
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ("", r.out);
    // The root offered first is the empty path; then the walk finds nothing.
    EXPECT_EQ("TRACE path  database root is not correct\nINFO [2] Directory  doesn't exist.\n", r.err);
}

TEST_F(KavrelStartupTest, MissingDatabaseRootListsNothing) {
    const std::string gone = pool_.dir().file("gone");
    pool_.write_config(gone);
    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("INFO [2] Directory " + gone + " doesn't exist.\n", r.err);
}

TEST_F(KavrelStartupTest, ConfigurationWithoutDatabaseEntryWalksEmptyRoot) {
    kt::write_file(pool_.config(), "[Paths]\nStorageDatabase = " + pool_.root() + "\n");
    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("INFO [2] Directory  doesn't exist.\n", r.err);
}

}  // namespace
