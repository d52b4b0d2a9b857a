// The checksum file: its exact bytes, loading it, and every kind of damage.

// Shadows live on the heap in these tests: ThreadSanitizer forgets a mutex only
// when its memory is freed, and a stack address reused by another test's mutex
// would otherwise look like one lock taken in two orders.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <sstream>

#include "common/test_util.h"
#include "dct/fs.h"
#include "shadow_test_helpers.h"

using dct::log_level;
using shadow_test::add_version;
using shadow_test::adler;
using shadow_test::chksum_text;
using shadow_test::CountedShadow;
using shadow_test::entries_with_prefix;

namespace {

struct ShadowDir {
    kt::TempDir tmp;
    std::string real = tmp.file("real");
    std::string dir = tmp.file("shadow");
    std::string file(const std::string& name) const { return dir + "/" + name; }
};

}  // namespace

TEST(ShadowChksum, NamesAndTypeWords) {
    EXPECT_EQ("podb", PODBShadow::_podb_type_);
    EXPECT_EQ("uldb", PODBShadow::_uldb_type_);
    EXPECT_EQ("appdb", PODBShadow::_appdb_type_);
    EXPECT_EQ("#corrupt_", PODBShadow::_corrupt_prefix_);
    EXPECT_EQ(".chksum.podb", PODBShadow::chksum_file("podb"));
    EXPECT_EQ(".chksum.uldb", PODBShadow::chksum_file("uldb"));
    EXPECT_EQ(".chksum.appdb", PODBShadow::chksum_file("appdb"));
    EXPECT_EQ("po.db", PODBShadow::db_file_name("podb"));
    EXPECT_EQ("ul.db", PODBShadow::db_file_name("uldb"));
    EXPECT_EQ("app.db", PODBShadow::db_file_name("appdb"));
    EXPECT_EQ("podb.7", ShadowVersion::get_db_name("podb", 7));
    EXPECT_EQ("podb.7.journal", ShadowVersion::get_journal_name("podb", 7));
    ShadowVersion v("/s", "appdb", 12);
    EXPECT_EQ(12u, v.version);
    EXPECT_EQ("appdb", v.type);
    EXPECT_EQ("appdb.12", v.db_name);
    EXPECT_EQ("appdb.12.journal", v.journal_name);
    EXPECT_EQ("/s/appdb.12", v.db_path);
    EXPECT_EQ("/s/appdb.12.journal", v.journal_path);
    EXPECT_EQ(1u, v.db_crc);
    EXPECT_EQ(1u, v.journal_crc);
    EXPECT_EQ(0u, v.journal_lines);
    EXPECT_FALSE(v.db_verified);
    EXPECT_FALSE(v.journal_verified);
}

TEST(ShadowChksum, TypeFilesAreRecognisedStrictly) {
    EXPECT_TRUE(PODBShadow::is_type_file("podb.3", "podb"));
    EXPECT_TRUE(PODBShadow::is_type_file("podb.3.journal", "podb"));
    EXPECT_TRUE(PODBShadow::is_type_file(".chksum.podb", "podb"));
    EXPECT_FALSE(PODBShadow::is_type_file(".chksum.podb.tmp", "podb"));
    EXPECT_FALSE(PODBShadow::is_type_file(".chksum", "podb"));
    EXPECT_FALSE(PODBShadow::is_type_file("podb.tmp", "podb"));
    EXPECT_FALSE(PODBShadow::is_type_file("podb.", "podb"));
    EXPECT_FALSE(PODBShadow::is_type_file("podb.3.journal.x", "podb"));
    EXPECT_FALSE(PODBShadow::is_type_file("uldb.3", "podb"));
    EXPECT_FALSE(PODBShadow::is_type_file("#corrupt_podb_1", "podb"));
}

TEST(ShadowChksum, CrcIsZlibAdler32) {
    PODBShadow::CRC crc;
    EXPECT_EQ(1u, crc.value());
    crc.append("Wikipedia");
    EXPECT_EQ(0x11E60398u, crc.value());
    PODBShadow::CRC continued(adler("Wiki"));
    continued.append("pedia");
    EXPECT_EQ(0x11E60398u, continued.value());
    // Long input: the sums are reduced correctly (more than 5552 bytes).
    std::string big(100000, '\xff');
    PODBShadow::CRC b;
    b.append(big);
    EXPECT_EQ(adler(big), b.value());
}

TEST(ShadowChksum, EmptyHistoryIsExactlyFourLines) {
    ShadowDir s;
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, s.real, s.dir));
    PODBShadow& shadow = *shadow_owner;
    kt::TraceSwitch trace(true);
    kt::LogCapture log;
    ASSERT_EQ(0u, shadow.initialize("podb")) << log.dump();
    const std::string expected = chksum_text({"format=1", "current=0", "count=0"});
    EXPECT_EQ(expected, kt::read_file(s.file(".chksum.podb")));
    EXPECT_EQ("format=1\ncurrent=0\ncount=0\nself=" + std::to_string(adler("format=1current=0count=0")) + "\n",
              expected);
    EXPECT_EQ(1u, log.count_message("Persist the shadow checksum file " + s.file(".chksum.podb"))) << log.dump();
    EXPECT_EQ(1u, log.count_message("Initliaze shadow for po.db in " + s.dir));

    std::unique_ptr<PODBShadow> loaded_owner(new PODBShadow(nullptr, s.real, s.dir));

    PODBShadow& loaded = *loaded_owner;
    EXPECT_EQ(0u, loaded.load_versions("podb", true));
    EXPECT_EQ(0u, loaded.get_version_count("podb"));
    EXPECT_EQ(0u, loaded.get_db_current_ver_("podb"));
    EXPECT_EQ(expected, kt::read_file(s.file(".chksum.podb")));
}

TEST(ShadowChksum, OneVersionByteExact) {
    ShadowDir s;
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, s.real, s.dir));
    PODBShadow& shadow = *shadow_owner;
    ShadowVersion& v = add_version(shadow, "podb", "first copy");
    v.journal_crc = 4242;
    v.journal_lines = 3;
    ASSERT_EQ(0u, shadow.persist_chksum("podb"));
    const std::string expected = chksum_text({"format=1", "current=1", "count=1",
                                              "podb.1=" + std::to_string(adler("first copy")), "podb.1.journal=4242",
                                              "podb.1.journal.len=3"});
    EXPECT_EQ(expected, kt::read_file(s.file(".chksum.podb")));
    // Nothing else was left behind.
    EXPECT_EQ((std::vector<std::string>{".chksum.podb", "podb.1"}), kt::list_dir(s.dir));
}

TEST(ShadowChksum, ThreeVersionsByteExactAndLoadedBack) {
    ShadowDir s;
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, s.real, s.dir));
    PODBShadow& shadow = *shadow_owner;
    shadow.set_db_current_ver_("uldb", 9);
    add_version(shadow, "uldb", "ten");
    add_version(shadow, "uldb", "eleven");
    ShadowVersion& newest = add_version(shadow, "uldb", "twelve");
    newest.journal_crc = adler("INSERT 1;");
    newest.journal_lines = 1;
    ASSERT_EQ(0u, shadow.persist_chksum("uldb"));
    const std::string expected = chksum_text({
        "format=1", "current=12", "count=3",
        "uldb.12=" + std::to_string(adler("twelve")), "uldb.12.journal=" + std::to_string(adler("INSERT 1;")),
        "uldb.12.journal.len=1",
        "uldb.11=" + std::to_string(adler("eleven")), "uldb.11.journal=1", "uldb.11.journal.len=0",
        "uldb.10=" + std::to_string(adler("ten")), "uldb.10.journal=1", "uldb.10.journal.len=0",
    });
    EXPECT_EQ(expected, kt::read_file(s.file(".chksum.uldb")));

    std::unique_ptr<PODBShadow> loaded_owner(new PODBShadow(nullptr, s.real, s.dir));

    PODBShadow& loaded = *loaded_owner;
    kt::LogCapture log;
    ASSERT_EQ(0u, loaded.load_versions("uldb", true)) << log.dump();
    EXPECT_EQ(12u, loaded.get_db_current_ver_("uldb"));
    ShadowVersionListPtr list = loaded.get_db_versions_("uldb");
    ASSERT_EQ(3u, list->size());
    auto it = list->begin();
    EXPECT_EQ(12u, it->version);
    EXPECT_EQ(adler("twelve"), it->db_crc);
    EXPECT_EQ(adler("INSERT 1;"), it->journal_crc);
    EXPECT_EQ(1u, it->journal_lines);
    EXPECT_EQ(s.file("uldb.12"), it->db_path);
    ++it;
    EXPECT_EQ(11u, it->version);
    ++it;
    EXPECT_EQ(10u, it->version);
    EXPECT_EQ(adler("ten"), it->db_crc);
    EXPECT_TRUE(it->check_crc_db());
    EXPECT_TRUE(log.contains(log_level::info, 0, "Load chksum file " + s.file(".chksum.uldb")));
    // Writing it again gives the same bytes.
    ASSERT_EQ(0u, loaded.persist_chksum("uldb"));
    EXPECT_EQ(expected, kt::read_file(s.file(".chksum.uldb")));
}

TEST(ShadowChksum, TypesAreKeptApart) {
    ShadowDir s;
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, s.real, s.dir));
    PODBShadow& shadow = *shadow_owner;
    add_version(shadow, "appdb", "a");
    EXPECT_EQ(1u, shadow.get_version_count("appdb"));
    EXPECT_EQ(0u, shadow.get_version_count("podb"));
    EXPECT_EQ(0u, shadow.get_version_count("uldb"));
    EXPECT_EQ(1u, shadow.get_db_current_ver_("appdb"));
    EXPECT_EQ(0u, shadow.get_db_current_ver_("podb"));
    shadow.reset_db_versions_("appdb", nullptr);
    EXPECT_EQ(0u, shadow.get_version_count("appdb"));
    EXPECT_TRUE(shadow.get_db_versions_("appdb"));
}

TEST(ShadowChksum, UnknownTypeIsRefused) {
    ShadowDir s;
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, s.real, s.dir));
    PODBShadow& shadow = *shadow_owner;
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_FAILED, shadow.persist_chksum("xdb"));
    EXPECT_EQ(1u, log.count_message("can't persist version info file " + s.file(".chksum.xdb") + ".")) << log.dump();
    EXPECT_EQ(CR_STATUS_FAILED, shadow.load_versions("xdb", true));
    EXPECT_EQ(1u, log.count_message("load_versions: Got exception: [bad parameter]"));
    EXPECT_EQ(CR_STATUS_FAILED, shadow.initialize("xdb"));
    EXPECT_EQ(1u, log.count_message("initialize: Got exception: [bad parameter]"));
    EXPECT_THROW(shadow.get_version_count("xdb"), const char*);
}

TEST(ShadowChksum, GetlineParse) {
    PODBShadow::CRC crc;
    std::istringstream in("count=12\ncount=x\nother=1\ncount=\ncount=99999999999999999999\n");
    std::string line;
    uint64_t value = 0;
    PODBShadow::getline_parse(line, in, "count", crc, value);
    EXPECT_EQ("count=12", line);
    EXPECT_EQ(12u, value);
    EXPECT_EQ(adler("count=12"), crc.value());
    for (int i = 0; i < 4; ++i) {
        try {
            PODBShadow::getline_parse(line, in, "count", crc, value);
            FAIL() << "line " << i;
        } catch (const char* e) {
            EXPECT_STREQ("bad line format", e);
        }
    }
    EXPECT_EQ(12u, value);
    EXPECT_EQ(adler("count=12"), crc.value());  // failed lines are not summed
    try {
        PODBShadow::getline_parse(line, in, "count", crc, value);
        FAIL();
    } catch (const char* e) {
        EXPECT_STREQ("file read error", e);
    }
}

TEST(ShadowChksum, LegacyFileIsMigratedAndLoaded) {
    ShadowDir s;
    ASSERT_EQ(0, wa_createtree(s.dir, 0755));
    const std::string text = chksum_text({"format=1", "current=4", "count=1", "podb.4=" + std::to_string(adler("p")),
                                          "podb.4.journal=1", "podb.4.journal.len=0"});
    kt::write_file(s.file(".chksum"), text);
    kt::write_file(s.file("podb.4"), "p");
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, s.real, s.dir));
    PODBShadow& shadow = *shadow_owner;
    kt::LogCapture log;
    EXPECT_EQ(0u, shadow.load_versions("podb", true)) << log.dump();
    EXPECT_FALSE(kt::file_exists(s.file(".chksum")));
    EXPECT_EQ(text, kt::read_file(s.file(".chksum.podb")));
    EXPECT_EQ(1u, shadow.get_version_count("podb"));
    EXPECT_EQ(4u, shadow.get_db_current_ver_("podb"));
}

TEST(ShadowChksum, LegacyFileIsLeftAloneWhenTheTypedOneExists) {
    ShadowDir s;
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, s.real, s.dir));
    PODBShadow& shadow = *shadow_owner;
    ASSERT_EQ(0u, shadow.initialize("podb"));
    kt::write_file(s.file(".chksum"), "legacy");
    EXPECT_EQ(0u, shadow.load_versions("podb", true));
    EXPECT_EQ("legacy", kt::read_file(s.file(".chksum")));
}

TEST(ShadowChksum, LeftoverTemporaryFileIsRemovedAndNeverCounts) {
    ShadowDir s;
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, s.real, s.dir));
    PODBShadow& shadow = *shadow_owner;
    add_version(shadow, "appdb", "data");
    ASSERT_EQ(0u, shadow.persist_chksum("appdb"));
    const std::string good = kt::read_file(s.file(".chksum.appdb"));
    // A complete-looking but different leftover must not be taken.
    kt::write_file(s.file(".chksum.appdb.tmp"), chksum_text({"format=1", "current=0", "count=0"}));
        std::unique_ptr<PODBShadow> loaded_owner(new PODBShadow(nullptr, s.real, s.dir));
    PODBShadow& loaded = *loaded_owner;
    EXPECT_EQ(0u, loaded.load_versions("appdb", true));
    EXPECT_EQ(1u, loaded.get_version_count("appdb"));
    EXPECT_FALSE(kt::file_exists(s.file(".chksum.appdb.tmp")));
    EXPECT_EQ(good, kt::read_file(s.file(".chksum.appdb")));

    // A leftover alone is not a checksum file either.
    ASSERT_EQ(0, ::rename(s.file(".chksum.appdb").c_str(), s.file(".chksum.appdb.tmp").c_str()));
        std::unique_ptr<PODBShadow> again_owner(new PODBShadow(nullptr, s.real, s.dir));
    PODBShadow& again = *again_owner;
    EXPECT_FALSE(again.exist("appdb"));
    EXPECT_EQ(CR_STATUS_CORRUPT, again.load_versions("appdb", false));
    EXPECT_FALSE(kt::file_exists(s.file(".chksum.appdb.tmp")));
}

// Damage of every kind: the history of the type is emptied, its files are set
// aside (none deleted), the current version is raised by the version count
// and a fresh checksum file is written.
class ChksumDamage : public ::testing::TestWithParam<int> {};

namespace {

struct Damage {
    const char* name;
    std::string text;      // checksum file content; "" with `missing`
    bool missing;
    std::string reason;    // expected reason in "failed to load chksum file %s: %s"
};

std::vector<Damage> damages(const std::string& path) {
    const std::string v2 = "podb.3=" + std::to_string(adler("three"));
    std::vector<Damage> out;
    out.push_back({"missing file", "", true, "open file " + path + " failed."});
    out.push_back({"wrong format line", chksum_text({"format=2", "current=3", "count=1", v2, "podb.3.journal=1",
                                                     "podb.3.journal.len=0"}),
                   false, "bad line format"});
    out.push_back({"non-numeric value", chksum_text({"format=1", "current=three", "count=1", v2, "podb.3.journal=1",
                                                     "podb.3.journal.len=0"}),
                   false, "can't get value of current"});
    out.push_back({"missing line", chksum_text({"format=1", "current=3", v2, "podb.3.journal=1",
                                                "podb.3.journal.len=0"}),
                   false, "can't get value of count"});
    // Count 2 but one version listed: the file ends where version 2 should be.
    out.push_back({"count larger than lines",
                   "format=1\ncurrent=3\ncount=2\n" + v2 + "\npodb.3.journal=1\npodb.3.journal.len=0\n", false,
                   "can't get value of podb.2"});
    std::string good = chksum_text({"format=1", "current=3", "count=1", v2, "podb.3.journal=1",
                                    "podb.3.journal.len=0"});
    size_t eq = good.rfind('=');
    uint64_t self = std::stoull(good.substr(eq + 1));
    std::string off = good.substr(0, eq + 1) + std::to_string(self + 1) + "\n";
    out.push_back({"self off by one", off, false, "CRC mismatch for " + path});
    return out;
}

}  // namespace

TEST_P(ChksumDamage, HistoryIsSetAsideAndRestarted) {
    ShadowDir s;
    ASSERT_EQ(0, wa_createtree(s.dir, 0755));
    const std::string path = s.file(".chksum.podb");
    const Damage d = damages(path)[GetParam()];
    SCOPED_TRACE(d.name);
    kt::write_file(s.file("podb.3"), "three");
    kt::write_file(s.file("podb.3.journal"), "INSERT;\n");
    kt::write_file(s.file("podb.2"), "two");
    kt::write_file(s.file("appdb.1"), "other type");
    if (!d.missing) kt::write_file(path, d.text);

    std::unique_ptr<CountedShadow> shadow_owner(new CountedShadow(s.real, s.dir, 7));

    CountedShadow& shadow = *shadow_owner;
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_CORRUPT, shadow.load_versions("podb", true));
    EXPECT_TRUE(log.contains(log_level::error, CR_STATUS_CORRUPT,
                             "failed to load chksum file " + path + ": " + d.reason))
        << log.dump();
    EXPECT_TRUE(log.contains(log_level::warning, CR_STATUS_CORRUPT,
                             "load_versions: checksum file for shadow " + s.dir + " corrupted or missing."));

    // Empty history, numbers raised above every one in use (3) by the count.
    EXPECT_EQ(0u, shadow.get_version_count("podb"));
    EXPECT_EQ(10u, shadow.get_db_current_ver_("podb"));
    EXPECT_EQ(chksum_text({"format=1", "current=10", "count=0"}), kt::read_file(path));

    // The type's files were moved, nothing deleted, other types untouched.
    std::vector<std::string> aside = entries_with_prefix(s.dir, "#corrupt_podb_");
    ASSERT_EQ(1u, aside.size());
    const std::string corrupt = s.file(aside[0]);
    std::vector<std::string> moved = kt::list_dir(corrupt);
    std::vector<std::string> expected_moved = {"podb.2", "podb.3", "podb.3.journal"};
    if (!d.missing) expected_moved.insert(expected_moved.begin(), ".chksum.podb");
    EXPECT_EQ(expected_moved, moved);
    EXPECT_EQ("three", kt::read_file(corrupt + "/podb.3"));
    if (!d.missing) {
        EXPECT_EQ(d.text, kt::read_file(corrupt + "/.chksum.podb"));
    }
    EXPECT_EQ((std::vector<std::string>{aside[0], ".chksum.podb", "appdb.1"}), kt::list_dir(s.dir));
    EXPECT_TRUE(log.contains(log_level::info, 0, "Move all files in " + s.dir + " to " + corrupt + "."));

    // The fresh file loads cleanly.
        std::unique_ptr<CountedShadow> again_owner(new CountedShadow(s.real, s.dir, 7));
    CountedShadow& again = *again_owner;
    EXPECT_EQ(0u, again.load_versions("podb", true));
    EXPECT_EQ(10u, again.get_db_current_ver_("podb"));
}

INSTANTIATE_TEST_SUITE_P(EveryDamage, ChksumDamage, ::testing::Range(0, 6));

TEST(ShadowChksum, DamageWithoutResetTouchesNothing) {
    ShadowDir s;
    ASSERT_EQ(0, wa_createtree(s.dir, 0755));
    kt::write_file(s.file(".chksum.podb"), "garbage\n");
    kt::write_file(s.file("podb.1"), "one");
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, s.real, s.dir));
    PODBShadow& shadow = *shadow_owner;
    shadow.set_db_current_ver_("podb", 4);
    EXPECT_EQ(CR_STATUS_CORRUPT, shadow.load_versions("podb", false));
    EXPECT_EQ(0u, shadow.get_version_count("podb"));
    EXPECT_EQ(4u, shadow.get_db_current_ver_("podb"));
    EXPECT_EQ((std::vector<std::string>{".chksum.podb", "podb.1"}), kt::list_dir(s.dir));
}

TEST(ShadowChksum, CurrentIsRaisedFromTheHigherOfMemoryAndDisk) {
    ShadowDir s;
    ASSERT_EQ(0, wa_createtree(s.dir, 0755));
    kt::write_file(s.file(".chksum.appdb"), "format=1\n");
    kt::write_file(s.file("appdb.2"), "two");
        std::unique_ptr<CountedShadow> shadow_owner(new CountedShadow(s.real, s.dir, 5));
    CountedShadow& shadow = *shadow_owner;
    shadow.set_db_current_ver_("appdb", 20);
    EXPECT_EQ(CR_STATUS_CORRUPT, shadow.load_versions("appdb", true));
    EXPECT_EQ(25u, shadow.get_db_current_ver_("appdb"));
}

TEST(ShadowChksum, TwoSetAsidesInOneSecondKeepEveryFile) {
    ShadowDir s;
    ASSERT_EQ(0, wa_createtree(s.dir, 0755));
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, s.real, s.dir));
    PODBShadow& shadow = *shadow_owner;
    kt::write_file(s.file(".chksum.podb"), "first damage\n");
    EXPECT_EQ(CR_STATUS_CORRUPT, shadow.load_versions("podb", true));
    kt::write_file(s.file(".chksum.podb"), "second damage\n");
    EXPECT_EQ(CR_STATUS_CORRUPT, shadow.load_versions("podb", true));
    std::string all;
    for (const std::string& d : entries_with_prefix(s.dir, "#corrupt_podb_")) {
        for (const std::string& f : kt::list_dir(s.file(d))) all += kt::read_file(s.file(d) + "/" + f);
    }
    EXPECT_NE(std::string::npos, all.find("first damage"));
    EXPECT_NE(std::string::npos, all.find("second damage"));
}

TEST(ShadowChksum, MoveFileAsBackup) {
    ShadowDir s;
    ASSERT_EQ(0, wa_createtree(s.dir, 0755));
    kt::write_file(s.file("appdb.tmp"), "bad copy");
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, s.real, s.dir));
    PODBShadow& shadow = *shadow_owner;
    kt::LogCapture log;
    EXPECT_EQ(0u, shadow.move_file_as_backup("appdb", s.file("appdb.tmp")));
    std::vector<std::string> aside = entries_with_prefix(s.dir, "#corrupt_appdb_");
    ASSERT_EQ(1u, aside.size());
    EXPECT_EQ("bad copy", kt::read_file(s.file(aside[0]) + "/appdb.tmp"));
    EXPECT_EQ(1u, log.count_message("Move file " + s.file("appdb.tmp") + " to " + s.file(aside[0]))) << log.dump();

    log.clear();
    EXPECT_NE(0u, shadow.move_file_as_backup("appdb", s.file("absent")));
    EXPECT_EQ(1u, log.count_containing("operator(): could not move " + s.file("absent"))) << log.dump();
    EXPECT_EQ(1u, log.count_message("Failed to backup files " + s.file("absent")));
}

TEST(ShadowChksum, NewBackupDirIsNamedByTypeAndTime) {
    ShadowDir s;
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, s.real, s.dir));
    PODBShadow& shadow = *shadow_owner;
    const long long before = static_cast<long long>(time(nullptr));
    std::string dir;
    ASSERT_EQ(0u, shadow.new_backup_dir("uldb", &dir));
    const long long after = static_cast<long long>(time(nullptr));
    const std::string prefix = s.dir + "/#corrupt_uldb_";
    ASSERT_EQ(0u, dir.compare(0, prefix.size(), prefix));
    long long secs = std::stoll(dir.substr(prefix.size()));
    EXPECT_GE(secs, before);
    EXPECT_LE(secs, after);
    EXPECT_TRUE(wa_isdir(dir));
}

TEST(ShadowChksum, ShadowDirectoryThatCannotBeCreated) {
    ShadowDir s;
    kt::write_file(s.tmp.file("plain"), "x");
    const std::string dir = s.tmp.file("plain/shadow");
    std::unique_ptr<PODBShadow> shadow(new PODBShadow(nullptr, s.real, dir));
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_MISSING, shadow->initialize("appdb"));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_MISSING,
                            "checkCreateWorkDir: Failed to create directory " + dir + " (" + strerror(ENOTDIR) + ")"))
        << log.dump();
    EXPECT_FALSE(shadow->exist("appdb"));
}

// Reading a checksum file to inspect it touches nothing: no migration of a
// legacy file, no removal of a leftover temporary file, nothing set aside.
TEST(ShadowChksumInspect, ReadsWithoutTouchingTheDirectory) {
    ShadowDir d;
    ASSERT_EQ(0, mkdir(d.dir.c_str(), 0755));
    const std::string text = chksum_text({"format=1", "current=4", "count=2", "appdb.4=11", "appdb.4.journal=12",
                                          "appdb.4.journal.len=3", "appdb.3=21", "appdb.3.journal=22",
                                          "appdb.3.journal.len=0"});
    kt::write_file(d.file(".chksum.appdb"), text);
    kt::write_file(d.file(".chksum.appdb.tmp"), "half");
    const std::vector<std::string> before = kt::list_dir(d.dir);
    uint64_t current = 0;
    ShadowVersionList list;
    std::string reason;
    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, PODBShadow::read_chksum(d.dir, "appdb", &current, &list, &reason));
    EXPECT_EQ(4u, current);
    ASSERT_EQ(2u, list.size());
    EXPECT_EQ(4u, list.front().version);
    EXPECT_EQ(11u, list.front().db_crc);
    EXPECT_EQ(12u, list.front().journal_crc);
    EXPECT_EQ(3u, list.front().journal_lines);
    EXPECT_EQ(d.file("appdb.3"), list.back().db_path);
    EXPECT_EQ(before, kt::list_dir(d.dir));
    EXPECT_EQ(text, kt::read_file(d.file(".chksum.appdb")));
    EXPECT_EQ(0u, log.records().size()) << log.dump();
}

TEST(ShadowChksumInspect, DamagedMissingAndLegacyFiles) {
    ShadowDir d;
    ASSERT_EQ(0, mkdir(d.dir.c_str(), 0755));
    uint64_t current = 0;
    ShadowVersionList list;
    std::string reason;
    EXPECT_EQ(CR_STATUS_MISSING, PODBShadow::read_chksum(d.dir, "podb", &current, &list, &reason));
    EXPECT_EQ(CR_STATUS_FAILED, PODBShadow::read_chksum(d.dir, "nodb", &current, &list, &reason));

    // A self sum off by one is damage: reported, nothing moved aside.
    std::string text = chksum_text({"format=1", "current=0", "count=0"});
    const size_t at = text.find("self=") + 5;
    text = text.substr(0, at) + std::to_string(std::stoul(text.substr(at)) + 1) + "\n";
    kt::write_file(d.file(".chksum.podb"), text);
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_CORRUPT, PODBShadow::read_chksum(d.dir, "podb", &current, &list, &reason));
    EXPECT_EQ("CRC mismatch for " + d.file(".chksum.podb"), reason);
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_CORRUPT,
                            "failed to load chksum file " + d.file(".chksum.podb") + ": " + reason))
        << log.dump();
    EXPECT_EQ(std::vector<std::string>{".chksum.podb"}, kt::list_dir(d.dir));

    // A lone legacy file is read where it is.
    ASSERT_EQ(0, unlink(d.file(".chksum.podb").c_str()));
    kt::write_file(d.file(".chksum"), chksum_text({"format=1", "current=2", "count=0"}));
    EXPECT_EQ(CR_STATUS_OK, PODBShadow::read_chksum(d.dir, "podb", &current, &list, &reason));
    EXPECT_EQ(2u, current);
    EXPECT_EQ(std::vector<std::string>{".chksum"}, kt::list_dir(d.dir));
}
