// kavrel end to end with long configuration lines: the registry entry, the
// Database value and a long neighbouring line are read whole, never cut, and
// no tail of a line is taken as a key; a value too long to be used is an
// error naming the file and line.
#include <unistd.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "raw_catalog.h"
#include "tool_test_util.h"

namespace {

// `base` extended by directory names of at most 40 characters to exactly
// `length` characters.
std::string path_of_length(const std::string& base, size_t length) {
    std::string p = base;
    EXPECT_LT(p.size() + 2, length) << "the temporary directory is too deep for this test";
    while (p.size() < length) {
        size_t room = length - p.size() - 1;  // after the '/'
        size_t n = room > 40 ? 40 : room;
        if (room > 40 && room - 40 < 2) n = room - 2;  // leave room for one more "/x"
        p += "/" + std::string(n, static_cast<char>('a' + p.size() % 26));
    }
    return p;
}

// The ERROR and WARNING lines of a run's log (its INFO lines tell of the walk).
std::string problems(const std::string& err) {
    std::string out;
    for (const std::string& line : kt::split_lines(err))
        if (line.compare(0, 5, "ERROR") == 0 || line.compare(0, 7, "WARNING") == 0) out += line + "\n";
    return out;
}

class KavrelLongConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(kt::kavrel_binary().empty()) << "KAVREL_BINARY_DIR is not set";
        ASSERT_EQ(0, access(kt::kavrel_binary().c_str(), X_OK)) << kt::kavrel_binary() << " is not built";
    }

    // One catalog <root>/databases/application/7/<client>/p1 holding one item
    // of backup id B1; returns the block kavrel prints for it.
    std::string add_catalog(const std::string& root, const std::string& client) {
        const std::string dir = root + "/databases/application/7/" + client + "/p1";
        kt::make_dirs(dir);
        std::vector<kt::RawRow> rows(1);
        rows[0].file_name = "f-" + client;
        rows[0].backup_id = "B1";
        rows[0].backup_start_time = 100;
        EXPECT_EQ("", kt::raw_write_catalog(dir + "/app.db", rows));
        return "[" + dir + "]\n" + kt::raw_line_form(rows[0], client, "p1") + "\ntotal app catalog 1\n\n";
    }

    kt::TestPool pool_;
};

TEST_F(KavrelLongConfigTest, RegistryEntryOf183CharactersIsFollowed) {
    const std::string config = path_of_length(pool_.dir().path(), 183);
    ASSERT_EQ(183u, config.size());
    kt::make_dirs(config.substr(0, config.rfind('/')));
    kt::write_file(config, "[Paths]\nDatabase = " + pool_.root() + "\n");
    pool_.write_registry(config);
    const std::string block = add_catalog(pool_.root(), "c1");
    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(block, r.out);
    EXPECT_EQ("", problems(r.err)) << r.err;
}

TEST_F(KavrelLongConfigTest, DatabaseDirectoryOf187CharactersIsTheRoot) {
    const std::string root = path_of_length(pool_.dir().path(), 187);
    ASSERT_EQ(187u, root.size());
    // The same path cut short is a root of its own, with another catalog:
    // only the configured root's catalog may be listed.
    // A reader that stops after 199 characters of this 206-character line
    // would take the first 180.
    const std::string cut = root.substr(0, 180);
    add_catalog(cut, "outside");
    const std::string block = add_catalog(root, "inside");
    kt::write_file(pool_.config(), "[Paths]\n    Database   =   " + root + "\n");
    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(block, r.out);
    EXPECT_EQ("", problems(r.err)) << r.err;
}

TEST_F(KavrelLongConfigTest, TailOfALongStorageDatabaseLineIsNotTheDatabaseKey) {
    const std::string elsewhere = pool_.dir().file("elsewhere");
    add_catalog(elsewhere, "wrong");
    const std::string block = add_catalog(pool_.root(), "right");
    // Cut after 199 characters, this line's rest reads "Database = <elsewhere>",
    // and it comes before the real Database line.
    std::string line = "StorageDatabase = " + pool_.dir().path() + "/";
    line += std::string(199 - line.size(), 's');
    line += "Database = " + elsewhere;
    kt::write_file(pool_.config(), "[Paths]\n" + line + "\nDatabase = " + pool_.root() + "\n");
    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(block, r.out);
    EXPECT_EQ("", problems(r.err)) << r.err;
}

TEST_F(KavrelLongConfigTest, LongestDatabaseValueIsReadWhole) {
    // kavrel reads the root into a 4095-character field; a missing root of
    // that length is reported with every character of it.
    const std::string root = path_of_length(pool_.dir().path(), 4095);
    pool_.write_config(root);
    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("INFO [2] Directory " + root + " doesn't exist.\n", r.err);
}

TEST_F(KavrelLongConfigTest, DatabaseValueTooLongIsAnErrorNamingFileAndLine) {
    add_catalog(pool_.root(), "c1");
    const std::string root = pool_.root() + "/" + std::string(5000, 'r');
    kt::write_file(pool_.config(), "; pool\n[Paths]\nDatabase = " + root + "\n");
    kt::RunResult r = pool_.run({"-listall"});
    // Nothing is listed from a cut root or any other place.
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("ERROR [4] Configuration file " + pool_.config() + ", line 3: the value of Database is " +
                  std::to_string(root.size()) + " characters long, more than the 4095 that can be read\n" +
                  "INFO [2] Directory  doesn't exist.\n",
              r.err);
}

TEST_F(KavrelLongConfigTest, RegistryEntryTooLongIsAnErrorNamingFileAndLine) {
    const std::string config = pool_.dir().path() + "/" + std::string(4100, 'c');
    kt::write_file(pool_.registry(), "[" + std::string(appdb::kRegistrySection) + "]\n" +
                                         appdb::kRegistryConfigFileKey + " = " + config + "\n");
    kt::RunResult r = pool_.run({"-listall"});
    EXPECT_EQ(255, r.exit_status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("ERROR [4] Configuration file " + pool_.registry() + ", line 2: the value of " +
                  appdb::kRegistryConfigFileKey + " is " + std::to_string(config.size()) +
                  " characters long, more than the 4095 that can be read\n" +
                  "ERROR [2] Failed to locate CR configuration file\n",
              r.err);
}

}  // namespace
