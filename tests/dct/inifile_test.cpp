// The ini reader: lookups, kinds of values, and what is missing.
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "dct/inifile.h"
#include "dct/log.h"
#include "dct/status.h"

namespace {

class IniFile : public ::testing::Test {
protected:
    // Writes `content` as the test's ini file and returns its path.
    const char* ini(const std::string& content) {
        path_ = dir_.file("test.cfg");
        kt::write_file(path_, content);
        return path_.c_str();
    }
    std::string value(const char* section, const char* key, const char* defval = "DEF",
                      cr_status_t* status = nullptr) {
        char buf[256];
        memset(buf, 'x', sizeof(buf));
        cr_status_t st = InifileGetValueA(path_.c_str(), section, key, defval, buf, sizeof(buf));
        if (status != nullptr) *status = st;
        return buf;
    }
    kt::TempDir dir_;
    std::string path_;
};

const char kPool[] =
    "; pool configuration\n"
    "# written by hand\n"
    "[Paths]\n"
    "Database = /srv/pool/db\n"
    "StorageDatabase=/srv/pool/db2\n"
    "CatalogBackupVersionCount = 5\n"
    "\n"
    "[Storage]\n"
    "Storage Path = /srv/pool/data\n"
    "; Database = /commented/out\n"
    "# Other = hidden\n";

}  // namespace

TEST_F(IniFile, ReadsValuesOfSeveralSections) {
    ini(kPool);
    cr_status_t st;
    EXPECT_EQ(value("Paths", "Database", "DEF", &st), "/srv/pool/db");
    EXPECT_EQ(st, CR_STATUS_OK);
    EXPECT_EQ(value("Paths", "StorageDatabase", "DEF", &st), "/srv/pool/db2");
    EXPECT_EQ(st, CR_STATUS_OK);
    EXPECT_EQ(value("Storage", "Storage Path", "DEF", &st), "/srv/pool/data");
    EXPECT_EQ(st, CR_STATUS_OK);
}

TEST_F(IniFile, SectionAndKeyNamesIgnoreCase) {
    ini(kPool);
    cr_status_t st;
    EXPECT_EQ(value("PATHS", "database", "DEF", &st), "/srv/pool/db");
    EXPECT_EQ(st, CR_STATUS_OK);
    EXPECT_EQ(value("storage", "STORAGE PATH", "DEF", &st), "/srv/pool/data");
    EXPECT_EQ(st, CR_STATUS_OK);
}

TEST_F(IniFile, ValuesKeepTheirCase) {
    ini("[A]\nKey = MiXeD Case Value\n");
    EXPECT_EQ(value("a", "key"), "MiXeD Case Value");
}

TEST_F(IniFile, CommentLinesAreNotKeys) {
    ini(kPool);
    cr_status_t st;
    EXPECT_EQ(value("Storage", "Other", "DEF", &st), "DEF");
    EXPECT_EQ(st, CR_STATUS_NOT_FOUND);
    // The commented Database line in [Storage] does not exist there either.
    EXPECT_EQ(value("Storage", "Database", "DEF", &st), "DEF");
    EXPECT_EQ(st, CR_STATUS_NOT_FOUND);
}

TEST_F(IniFile, InlineSemicolonCommentIsCut) {
    ini("[A]\nkey = value ; remark\n");
    EXPECT_EQ(value("A", "key"), "value");
}

TEST_F(IniFile, BlanksAroundKeyAndValueAreTrimmed) {
    ini("[A]\n  spaced key   =    spaced value   \n");
    EXPECT_EQ(value("A", "spaced key"), "spaced value");
}

TEST_F(IniFile, FirstMatchWins) {
    ini("[A]\nk = first\nK = second\n[a]\nk = third\n");
    EXPECT_EQ(value("A", "k"), "first");
}

TEST_F(IniFile, SameKeyInAnotherSectionIsNotTaken) {
    ini("[A]\nk = in a\n[B]\nother = 1\n");
    cr_status_t st;
    EXPECT_EQ(value("B", "k", "DEF", &st), "DEF");
    EXPECT_EQ(st, CR_STATUS_NOT_FOUND);
}

TEST_F(IniFile, MissingFileGivesDefaultAndNotFound) {
    path_ = dir_.file("absent.cfg");
    cr_status_t st;
    EXPECT_EQ(value("Paths", "Database", "/default", &st), "/default");
    EXPECT_EQ(st, CR_STATUS_NOT_FOUND);
}

TEST_F(IniFile, MissingSectionGivesDefaultAndNotFound) {
    ini(kPool);
    cr_status_t st;
    EXPECT_EQ(value("Nowhere", "Database", "/default", &st), "/default");
    EXPECT_EQ(st, CR_STATUS_NOT_FOUND);
}

TEST_F(IniFile, MissingKeyGivesDefaultAndNotFound) {
    ini(kPool);
    cr_status_t st;
    EXPECT_EQ(value("Paths", "Nothing", "/default", &st), "/default");
    EXPECT_EQ(st, CR_STATUS_NOT_FOUND);
}

TEST_F(IniFile, MissingKeyWithoutDefaultLeavesEmptyText) {
    ini(kPool);
    cr_status_t st;
    EXPECT_EQ(value("Paths", "Nothing", nullptr, &st), "");
    EXPECT_EQ(st, CR_STATUS_NOT_FOUND);
}

TEST_F(IniFile, EmptyValueIsFoundAndEmpty) {
    ini("[Paths]\nDatabase =\nOther = x\n");
    cr_status_t st;
    EXPECT_EQ(value("Paths", "Database", "DEF", &st), "");
    EXPECT_EQ(st, CR_STATUS_OK);
}

TEST_F(IniFile, ValueLongerThanCapacityIsRefusedNotCut) {
    ini("[A]\nother = 1\nk = 0123456789abcdef\n");
    kt::LogCapture log;
    char buf[9];
    memset(buf, 'x', sizeof(buf));
    EXPECT_EQ(InifileGetValueA(path_.c_str(), "A", "k", "dflt", buf, sizeof(buf)), CR_STATUS_FAILED);
    EXPECT_STREQ(buf, "dflt");
    ASSERT_EQ(log.records().size(), 1u) << log.dump();
    EXPECT_TRUE(log.contains(dct::log_level::error, CR_STATUS_FAILED,
                             "Configuration file " + path_ +
                                 ", line 3: the value of k is 16 characters long, more than the 8 that can be read"))
        << log.dump();
}

TEST_F(IniFile, ValueThatFillsTheBufferExactlyIsTakenWhole) {
    ini("[A]\nk = 01234567\n");
    kt::LogCapture log;
    char buf[9];
    EXPECT_EQ(InifileGetValueA(path_.c_str(), "A", "k", nullptr, buf, sizeof(buf)), CR_STATUS_OK);
    EXPECT_STREQ(buf, "01234567");
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(IniFile, DefaultLongerThanCapacityIsCutToo) {
    ini("[A]\n");
    char buf[4];
    EXPECT_EQ(InifileGetValueA(path_.c_str(), "A", "k", "abcdef", buf, sizeof(buf)), CR_STATUS_NOT_FOUND);
    EXPECT_STREQ(buf, "abc");
}

TEST_F(IniFile, CapacityOfOneHoldsOnlyTheEmptyValue) {
    ini("[A]\nk = v\ne =\n");
    kt::LogCapture log;
    char buf[1] = {'x'};
    EXPECT_EQ(InifileGetValueA(path_.c_str(), "A", "e", nullptr, buf, sizeof(buf)), CR_STATUS_OK);
    EXPECT_EQ(buf[0], '\0');
    buf[0] = 'x';
    EXPECT_EQ(InifileGetValueA(path_.c_str(), "A", "k", nullptr, buf, sizeof(buf)), CR_STATUS_FAILED);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(log.records().size(), 1u) << log.dump();
}

TEST_F(IniFile, BadBufferArgumentsFail) {
    ini("[A]\nk = v\n");
    char buf[4];
    EXPECT_EQ(InifileGetValueA(path_.c_str(), "A", "k", nullptr, nullptr, 4), CR_STATUS_FAILED);
    EXPECT_EQ(InifileGetValueA(path_.c_str(), "A", "k", nullptr, buf, 0), CR_STATUS_FAILED);
}

TEST_F(IniFile, NullNamesReadAsMissing) {
    ini("[A]\nk = v\n");
    char buf[8];
    EXPECT_EQ(InifileGetValueA(nullptr, "A", "k", "d", buf, sizeof(buf)), CR_STATUS_NOT_FOUND);
    EXPECT_STREQ(buf, "d");
    EXPECT_EQ(InifileGetValueA(path_.c_str(), nullptr, "k", "d", buf, sizeof(buf)), CR_STATUS_NOT_FOUND);
    EXPECT_EQ(InifileGetValueA(path_.c_str(), "A", nullptr, "d", buf, sizeof(buf)), CR_STATUS_NOT_FOUND);
}

TEST_F(IniFile, BrokenLineElsewhereDoesNotHideKeys) {
    ini("[A]\nthis line has no equals sign\nk = v\n");
    EXPECT_EQ(value("A", "k"), "v");
}

TEST_F(IniFile, PathReadsLikeValue) {
    ini(kPool);
    char buf[64];
    EXPECT_EQ(InifileGetPathA(path_.c_str(), "Paths", "Database", "/d", buf, sizeof(buf)), CR_STATUS_OK);
    EXPECT_STREQ(buf, "/srv/pool/db");
    EXPECT_EQ(InifileGetPathA(path_.c_str(), "Paths", "None", "/d", buf, sizeof(buf)), CR_STATUS_NOT_FOUND);
    EXPECT_STREQ(buf, "/d");
}

TEST_F(IniFile, BooleansInEverySpelling) {
    ini("[B]\n"
        "a = 1\nb = true\nc = TRUE\nd = yes\ne = Yes\nf = on\ng = ON\nh = True\n"
        "i = 0\nj = false\nk = FALSE\nl = no\nm = NO\nn = off\no = Off\np = fAlSe\n");
    for (const char* key : {"a", "b", "c", "d", "e", "f", "g", "h"}) {
        bool out = false;
        EXPECT_EQ(InifileGetBooleanA(path_.c_str(), "B", key, false, &out), CR_STATUS_OK) << key;
        EXPECT_TRUE(out) << key;
    }
    for (const char* key : {"i", "j", "k", "l", "m", "n", "o", "p"}) {
        bool out = true;
        EXPECT_EQ(InifileGetBooleanA(path_.c_str(), "B", key, true, &out), CR_STATUS_OK) << key;
        EXPECT_FALSE(out) << key;
    }
}

TEST_F(IniFile, BooleanNotABooleanKeepsDefaultAndFails) {
    ini("[B]\na = maybe\nb = 2\nc =\nd = yess\n");
    for (const char* key : {"a", "b", "c", "d"}) {
        bool out = false;
        EXPECT_EQ(InifileGetBooleanA(path_.c_str(), "B", key, true, &out), CR_STATUS_FAILED) << key;
        EXPECT_TRUE(out) << key;
    }
}

TEST_F(IniFile, BooleanMissingKeepsDefault) {
    ini("[B]\n");
    bool out = false;
    EXPECT_EQ(InifileGetBooleanA(path_.c_str(), "B", "x", true, &out), CR_STATUS_NOT_FOUND);
    EXPECT_TRUE(out);
    out = true;
    EXPECT_EQ(InifileGetBooleanA(dir_.file("absent").c_str(), "B", "x", false, &out), CR_STATUS_NOT_FOUND);
    EXPECT_FALSE(out);
    EXPECT_EQ(InifileGetBooleanA(path_.c_str(), "B", "x", true, nullptr), CR_STATUS_FAILED);
}

TEST_F(IniFile, UnsignedIntegers) {
    ini("[N]\na = 0\nb = 42\nc = 4294967296\nd = -1\ne = 12abc\nf = +3\ng = abc\nh =\n");
    unsigned long out = 0;
    EXPECT_EQ(InifileGetUIntegerA(path_.c_str(), "N", "a", 9, &out), CR_STATUS_OK);
    EXPECT_EQ(out, 0ul);
    EXPECT_EQ(InifileGetUIntegerA(path_.c_str(), "N", "b", 9, &out), CR_STATUS_OK);
    EXPECT_EQ(out, 42ul);
    EXPECT_EQ(InifileGetUIntegerA(path_.c_str(), "N", "c", 9, &out), CR_STATUS_OK);
    EXPECT_EQ(out, 4294967296ul);
    for (const char* key : {"d", "e", "f", "g", "h"}) {
        out = 0;
        EXPECT_EQ(InifileGetUIntegerA(path_.c_str(), "N", key, 9, &out), CR_STATUS_FAILED) << key;
        EXPECT_EQ(out, 9ul) << key;
    }
    out = 0;
    EXPECT_EQ(InifileGetUIntegerA(path_.c_str(), "N", "none", 9, &out), CR_STATUS_NOT_FOUND);
    EXPECT_EQ(out, 9ul);
    EXPECT_EQ(InifileGetUIntegerA(path_.c_str(), "N", "b", 9, nullptr), CR_STATUS_FAILED);
}

TEST_F(IniFile, SizesWithSuffixes) {
    ini("[S]\n"
        "plain = 512\nk = 10K\nk2 = 3k\nm = 2M\nm2 = 7m\ng = 5G\ng2 = 1g\nspaced = 4 K\nzero = 0G\n");
    struct Case {
        const char* key;
        uint64_t want;
    } cases[] = {{"plain", 512},
                 {"k", 10ull * 1024},
                 {"k2", 3ull * 1024},
                 {"m", 2ull * 1024 * 1024},
                 {"m2", 7ull * 1024 * 1024},
                 {"g", 5ull * 1024 * 1024 * 1024},
                 {"g2", 1ull * 1024 * 1024 * 1024},
                 {"spaced", 4ull * 1024},
                 {"zero", 0}};
    for (const auto& c : cases) {
        uint64_t out = 1;
        EXPECT_EQ(InifileGetSizeA(path_.c_str(), "S", c.key, 99, &out), CR_STATUS_OK) << c.key;
        EXPECT_EQ(out, c.want) << c.key;
    }
}

TEST_F(IniFile, SizesThatAreNotSizes) {
    ini("[S]\na = 10X\nb = 10KB\nc = K\nd = -5\ne = 99999999999999G\nf =\ng = 1.5G\n");
    for (const char* key : {"a", "b", "c", "d", "e", "f", "g"}) {
        uint64_t out = 0;
        EXPECT_EQ(InifileGetSizeA(path_.c_str(), "S", key, 99, &out), CR_STATUS_FAILED) << key;
        EXPECT_EQ(out, 99u) << key;
    }
    uint64_t out = 0;
    EXPECT_EQ(InifileGetSizeA(path_.c_str(), "S", "none", 77, &out), CR_STATUS_NOT_FOUND);
    EXPECT_EQ(out, 77u);
    EXPECT_EQ(InifileGetSizeA(path_.c_str(), "S", "a", 77, nullptr), CR_STATUS_FAILED);
}

TEST_F(IniFile, LargestSizeThatFits) {
    // 2^34 - 1 G is the largest count whose product fits 64 bits.
    ini("[S]\nmax = 17179869183G\nover = 17179869184G\n");
    uint64_t out = 0;
    EXPECT_EQ(InifileGetSizeA(path_.c_str(), "S", "max", 0, &out), CR_STATUS_OK);
    EXPECT_EQ(out, 17179869183ull << 30);
    EXPECT_EQ(InifileGetSizeA(path_.c_str(), "S", "over", 0, &out), CR_STATUS_FAILED);
    EXPECT_EQ(out, 0u);
}

// Long lines: values of up to 4095 characters are read whole, and no part of
// a long line is ever read as a line of its own.

namespace {

// A path of exactly `length` characters: "/" then directory names of 50.
std::string long_path(size_t length) {
    std::string p;
    while (p.size() < length) p += (p.size() % 51 == 0) ? '/' : static_cast<char>('a' + p.size() % 26);
    return p;
}

std::string big_value(const std::string& path, const char* section, const char* key) {
    std::string buf(5000, 'x');
    cr_status_t st = InifileGetValueA(path.c_str(), section, key, "DEF", &buf[0], 4096);
    EXPECT_EQ(st, CR_STATUS_OK) << key;
    return buf.c_str();
}

}  // namespace

TEST_F(IniFile, PathsOfSeveralHundredCharactersAreReadWhole) {
    const std::string registry_path = long_path(183);
    const std::string database_dir = long_path(187);
    ini("[Config]\nConfigFile = " + registry_path + "\n[Paths]\nDatabase = " + database_dir + "\n");
    kt::LogCapture log;
    EXPECT_EQ(big_value(path_, "Config", "ConfigFile"), registry_path);
    EXPECT_EQ(big_value(path_, "Paths", "Database"), database_dir);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(IniFile, TailOfALongLineIsNotAKey) {
    // Cut at 199 characters, the rest of this line would read "Database = /elsewhere".
    std::string head = "StorageDatabase = /srv/";
    head += std::string(199 - head.size(), 's');
    const std::string line = head + "Database = /elsewhere";
    ini("[Paths]\n" + line + "\nAfter = yes\n");
    kt::LogCapture log;
    cr_status_t st;
    char buf[4096];
    EXPECT_EQ(InifileGetValueA(path_.c_str(), "Paths", "StorageDatabase", nullptr, buf, sizeof(buf)),
              CR_STATUS_OK);
    EXPECT_EQ(std::string(buf), line.substr(strlen("StorageDatabase = ")));
    EXPECT_EQ(value("Paths", "Database", "DEF", &st), "DEF");
    EXPECT_EQ(st, CR_STATUS_NOT_FOUND);
    bool after = false;
    EXPECT_EQ(InifileGetBooleanA(path_.c_str(), "Paths", "After", false, &after), CR_STATUS_OK);
    EXPECT_TRUE(after);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(IniFile, ValuesOf4095CharactersAreReadWholeInEveryPlace) {
    const std::string v1 = long_path(4095);
    std::string v2(4095, 'q');
    v2[0] = '/';
    v2[4094] = 'z';
    // A huge comment and a huge unrelated line before, keys after.
    ini("; " + std::string(100000, 'c') + "\n[Paths]\nnoise = " + std::string(70000, 'n') +
        "\nDatabase = " + v1 + "   \n  StorageDatabase=" + v2 + "\nCount = 7\n");
    kt::LogCapture log;
    EXPECT_EQ(big_value(path_, "Paths", "Database"), v1);
    EXPECT_EQ(big_value(path_, "paths", "storagedatabase"), v2);
    unsigned long count = 0;
    EXPECT_EQ(InifileGetUIntegerA(path_.c_str(), "Paths", "Count", 0, &count), CR_STATUS_OK);
    EXPECT_EQ(count, 7ul);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(IniFile, ValueOf4096CharactersIsAnErrorNamingFileAndLine) {
    ini("[Paths]\n# first\nDatabase = " + long_path(4096) + "\nOther = ok\n");
    kt::LogCapture log;
    std::string buf(4096, 'x');
    EXPECT_EQ(InifileGetPathA(path_.c_str(), "Paths", "Database", nullptr, &buf[0], buf.size()), CR_STATUS_FAILED);
    EXPECT_STREQ(buf.c_str(), "");
    ASSERT_EQ(log.records().size(), 1u) << log.dump();
    EXPECT_TRUE(log.contains(dct::log_level::error, CR_STATUS_FAILED,
                             "Configuration file " + path_ +
                                 ", line 3: the value of Database is 4096 characters long, more than the 4095 "
                                 "that can be read"))
        << log.dump();
    // The rest of the file is unaffected.
    EXPECT_EQ(value("Paths", "Other"), "ok");
}

TEST_F(IniFile, ValueWithANulByteIsRefusedByEveryReader) {
    ini(std::string("[A]\nk = 1\0tail\n", 15));
    kt::LogCapture log;
    const std::string message = "Configuration file " + path_ + ", line 2: the value of k holds a NUL byte";
    cr_status_t st;
    EXPECT_EQ(value("A", "k", "DEF", &st), "DEF");
    EXPECT_EQ(st, CR_STATUS_FAILED);
    bool b = false;
    EXPECT_EQ(InifileGetBooleanA(path_.c_str(), "A", "k", false, &b), CR_STATUS_FAILED);
    EXPECT_FALSE(b);
    unsigned long n = 5;
    EXPECT_EQ(InifileGetUIntegerA(path_.c_str(), "A", "k", 5, &n), CR_STATUS_FAILED);
    EXPECT_EQ(n, 5ul);
    EXPECT_EQ(log.count(dct::log_level::error, CR_STATUS_FAILED, message), 3u) << log.dump();
    EXPECT_EQ(log.records().size(), 3u) << log.dump();
}

TEST_F(IniFile, CrLfLinesAndByteOrderMarkAreRead) {
    ini("\xEF\xBB\xBF[A]\r\nk = v\r\n");
    EXPECT_EQ(value("A", "k"), "v");
}

TEST_F(IniFile, DirectoryReadsAsAMissingFileWithoutARecord) {
    const std::string dir = dir_.file("a-directory");
    ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
    path_ = dir;
    kt::LogCapture log;
    cr_status_t st;
    EXPECT_EQ(value("A", "k", "DEF", &st), "DEF");
    EXPECT_EQ(st, CR_STATUS_NOT_FOUND);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}
