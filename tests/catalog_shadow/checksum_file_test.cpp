// The checksum file's text: which texts are taken and which are refused, and
// with what reason. Each case is read from a real file by the inspecting
// reader (PODBShadow::read_chksum), which moves nothing aside.
#include <gtest/gtest.h>

#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include <string>
#include <vector>

#include "catalog_shadow/ChecksumFile.h"
#include "common/fault_countdown.h"
#include "common/child_process.h"
#include "common/test_util.h"
#include "dct/fs.h"
#include "shadow_test_helpers.h"

using dct::log_level;
using shadow_test::adler;
using shadow_test::chksum_text;

namespace {

// Appends "self=" and the sum of `lines` without a final "\n".
std::string without_last_newline(const std::vector<std::string>& lines) {
    std::string text = chksum_text(lines);
    return text.substr(0, text.size() - 1);
}

// Every line ends in "\r\n"; the self sum covers the lines with their "\r".
std::string crlf(const std::vector<std::string>& lines) {
    std::string out;
    uint32_t crc = 1;
    for (const std::string& l : lines) {
        out += l + "\r\n";
        crc = adler(l + "\r", crc);
    }
    return out + "self=" + std::to_string(crc) + "\r\n";
}

struct Case {
    const char* name;
    std::string text;
    // Empty when the text is taken; else the reason of the refusal, with
    // "PATH" standing for the file's path.
    std::string reason;
    uint64_t current;                    // when taken
    std::vector<uint64_t> versions;      // when taken, newest first
};

const std::vector<std::string> kTwo = {"format=1",           "current=3",       "count=2",
                                       "podb.3=11",          "podb.3.journal=12", "podb.3.journal.len=3",
                                       "podb.2=21",          "podb.2.journal=1",  "podb.2.journal.len=0"};

std::vector<std::string> replaced(std::vector<std::string> lines, size_t at, const std::string& line) {
    lines[at] = line;
    return lines;
}

std::vector<std::string> removed(std::vector<std::string> lines, size_t at) {
    lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(at));
    return lines;
}

std::vector<std::string> swapped(std::vector<std::string> lines, size_t a, size_t b) {
    std::swap(lines[a], lines[b]);
    return lines;
}

std::vector<Case> cases() {
    const std::string good = chksum_text(kTwo);
    const size_t self_at = good.rfind("self=");
    const uint64_t self = std::stoull(good.substr(self_at + 5));
    std::vector<Case> out;
    // Taken.
    out.push_back({"two versions", good, "", 3, {3, 2}});
    out.push_back({"no version", chksum_text({"format=1", "current=0", "count=0"}), "", 0, {}});
    out.push_back({"every number listed", chksum_text({"format=1", "current=1", "count=1", "podb.1=5",
                                                       "podb.1.journal=1", "podb.1.journal.len=0"}),
                   "", 1, {1}});
    out.push_back({"last line without newline", without_last_newline(kTwo), "", 3, {3, 2}});
    out.push_back({"lines after self", good + "anything\n", "", 3, {3, 2}});
    out.push_back({"format line with more text covered by self",
                   chksum_text(replaced(kTwo, 0, "format=1x")), "", 3, {3, 2}});
    out.push_back({"largest current", chksum_text({"format=1", "current=18446744073709551615", "count=0"}), "",
                   UINT64_MAX, {}});
    out.push_back({"largest sums and counts",
                   chksum_text({"format=1", "current=9", "count=1", "podb.9=4294967295",
                                "podb.9.journal=4294967295", "podb.9.journal.len=4294967295"}),
                   "", 9, {9}});
    out.push_back({"leading zeros", chksum_text({"format=1", "current=00000000000000000007", "count=0"}), "", 7, {}});

    // Refused.
    out.push_back({"empty file", "", "file read error", 0, {}});
    out.push_back({"wrong format", chksum_text(replaced(kTwo, 0, "format=2")), "bad line format", 0, {}});
    out.push_back({"format line missing", chksum_text(removed(kTwo, 0)), "bad line format", 0, {}});
    out.push_back({"self sum off by one", good.substr(0, self_at) + "self=" + std::to_string(self + 1) + "\n",
                   "CRC mismatch for PATH", 0, {}});
    out.push_back({"a line changed under its sum",
                   good.substr(0, good.find("podb.3=11")) + "podb.3=19" + good.substr(good.find("podb.3=11") + 9),
                   "CRC mismatch for PATH", 0, {}});
    out.push_back({"current missing", chksum_text(removed(kTwo, 1)), "can't get value of current", 0, {}});
    out.push_back({"count missing", chksum_text(removed(kTwo, 2)), "can't get value of count", 0, {}});
    out.push_back({"journal line missing", chksum_text(removed(kTwo, 4)), "can't get value of podb.3.journal", 0,
                   {}});
    out.push_back({"current and count reordered", chksum_text(swapped(kTwo, 1, 2)), "can't get value of current",
                   0, {}});
    out.push_back({"versions reordered",
                   chksum_text({"format=1", "current=3", "count=2", "podb.2=21", "podb.2.journal=1",
                                "podb.2.journal.len=0", "podb.3=11", "podb.3.journal=12", "podb.3.journal.len=3"}),
                   "can't get value of podb.3", 0, {}});
    out.push_back({"database and journal lines reordered", chksum_text(swapped(kTwo, 3, 4)),
                   "can't get value of podb.3", 0, {}});
    out.push_back({"unknown key", chksum_text(replaced(kTwo, 6, "podb.9=21")), "can't get value of podb.2", 0, {}});
    out.push_back({"another type's key", chksum_text(replaced(kTwo, 3, "uldb.3=11")), "can't get value of podb.3",
                   0, {}});
    out.push_back({"extra line before self", chksum_text({"format=1", "current=0", "count=0", "extra=1"}),
                   "can't get value of self", 0, {}});
    out.push_back({"count above current", chksum_text({"format=1", "current=1", "count=2"}),
                   "can't get value of count", 0, {}});
    out.push_back({"count larger than the lines", good.substr(0, good.find("podb.2=")),
                   "can't get value of podb.2", 0, {}});
    out.push_back({"truncated inside a line", good.substr(0, good.find("count=") + 3), "can't get value of count",
                   0, {}});
    out.push_back({"truncated before self", good.substr(0, self_at), "can't get value of self", 0, {}});
    out.push_back({"truncated inside self", good.substr(0, self_at + 3), "can't get value of self", 0, {}});
    out.push_back({"CRLF line ends", crlf(kTwo), "can't get value of current", 0, {}});
    out.push_back({"spaces around the sign", chksum_text(replaced(kTwo, 1, "current = 3")),
                   "can't get value of current", 0, {}});
    out.push_back({"empty value", chksum_text(replaced(kTwo, 1, "current=")), "can't get value of current", 0, {}});
    out.push_back({"signed value", chksum_text(replaced(kTwo, 1, "current=+3")), "can't get value of current", 0,
                   {}});
    out.push_back({"current above 64 bits", chksum_text({"format=1", "current=18446744073709551616", "count=0"}),
                   "can't get value of current", 0, {}});
    out.push_back({"more than twenty digits", chksum_text({"format=1", "current=000000000000000000007", "count=0"}),
                   "can't get value of current", 0, {}});
    out.push_back({"database sum above 32 bits", chksum_text(replaced(kTwo, 3, "podb.3=4294967296")),
                   "can't get value of podb.3", 0, {}});
    out.push_back({"journal sum above 32 bits", chksum_text(replaced(kTwo, 4, "podb.3.journal=4294967296")),
                   "can't get value of podb.3.journal", 0, {}});
    out.push_back({"line count above 32 bits", chksum_text(replaced(kTwo, 5, "podb.3.journal.len=4294967296")),
                   "can't get value of podb.3.journal.len", 0, {}});
    out.push_back({"self above 32 bits", good.substr(0, self_at) + "self=4294967296\n", "can't get value of self",
                   0, {}});
    out.push_back({"count above 32 bits", chksum_text({"format=1", "current=18446744073709551615",
                                                      "count=4294967296"}),
                   "can't get value of count", 0, {}});
    return out;
}

std::string with_path(std::string reason, const std::string& path) {
    const size_t at = reason.find("PATH");
    if (at != std::string::npos) reason.replace(at, 4, path);
    return reason;
}

}  // namespace

class ChecksumText : public ::testing::TestWithParam<size_t> {};

TEST_P(ChecksumText, ReadFromAFile) {
    const Case c = cases()[GetParam()];
    SCOPED_TRACE(c.name);
    kt::TempDir tmp;
    const std::string dir = tmp.file("shadow");
    ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    const std::string path = dir + "/.chksum.podb";
    kt::write_file(path, c.text);

    uint64_t current = 99;
    ShadowVersionList list;
    std::string reason;
    kt::LogCapture log;
    const cr_status_t status = PODBShadow::read_chksum(dir, "podb", &current, &list, &reason);
    if (c.reason.empty()) {
        ASSERT_EQ(CR_STATUS_OK, status) << reason;
        EXPECT_EQ(c.current, current);
        std::vector<uint64_t> numbers;
        for (const ShadowVersion& v : list) numbers.push_back(v.version);
        EXPECT_EQ(c.versions, numbers);
        EXPECT_EQ(0u, log.records().size()) << log.dump();
    } else {
        EXPECT_EQ(CR_STATUS_CORRUPT, status);
        EXPECT_EQ(with_path(c.reason, path), reason);
        EXPECT_EQ(0u, current);
        EXPECT_TRUE(list.empty());
        EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_CORRUPT,
                                "failed to load chksum file " + path + ": " + reason))
            << log.dump();
    }
    EXPECT_EQ(c.text, kt::read_file(path));
}

INSTANTIATE_TEST_SUITE_P(EveryText, ChecksumText, ::testing::Range<size_t>(0, cases().size()));

TEST(ChecksumText, ValuesOfTheTwoVersionFile) {
    kt::TempDir tmp;
    kt::write_file(tmp.file(".chksum.podb"), chksum_text(kTwo));
    uint64_t current = 0;
    ShadowVersionList list;
    std::string reason;
    ASSERT_EQ(CR_STATUS_OK, PODBShadow::read_chksum(tmp.path(), "podb", &current, &list, &reason));
    ASSERT_EQ(2u, list.size());
    const ShadowVersion& newest = list.front();
    EXPECT_EQ(tmp.file("podb.3"), newest.db_path);
    EXPECT_EQ(11u, newest.db_crc);
    EXPECT_EQ(12u, newest.journal_crc);
    EXPECT_EQ(3u, newest.journal_lines);
    const ShadowVersion& oldest = list.back();
    EXPECT_EQ(tmp.file("podb.2.journal"), oldest.journal_path);
    EXPECT_EQ(21u, oldest.db_crc);
    EXPECT_EQ(1u, oldest.journal_crc);
    EXPECT_EQ(0u, oldest.journal_lines);
}

// The codec on its own: the same texts, parsed without a file.
TEST_P(ChecksumText, ParsedAsAValue) {
    const Case c = cases()[GetParam()];
    SCOPED_TRACE(c.name);
    ChecksumFile file;
    file.current = 99;
    std::string reason;
    const bool taken = ChecksumFile::parse(c.text, "podb", "NAME", &file, &reason);
    if (c.reason.empty()) {
        ASSERT_TRUE(taken) << reason;
        EXPECT_EQ("podb", file.type);
        EXPECT_EQ(c.current, file.current);
        std::vector<uint64_t> numbers;
        for (const ChecksumFile::Entry& e : file.entries) numbers.push_back(e.version);
        EXPECT_EQ(c.versions, numbers);
        EXPECT_TRUE(file.validate(&reason)) << reason;
    } else {
        EXPECT_FALSE(taken);
        EXPECT_EQ(with_path(c.reason, "NAME"), reason);
        EXPECT_EQ(99u, file.current);
    }
}

TEST(ChecksumFileValue, RendersTheTwoVersionTextByteForByte) {
    ChecksumFile file;
    file.type = "podb";
    file.current = 3;
    file.entries.push_back({3, 11, 12, 3});
    file.entries.push_back({2, 21, 1, 0});
    EXPECT_EQ(chksum_text(kTwo), file.render());
    std::string reason;
    EXPECT_TRUE(file.validate(&reason)) << reason;
}

TEST(ChecksumFileValue, EmptyHistoryRendersFourLines) {
    ChecksumFile file;
    file.type = "appdb";
    file.current = 0;
    EXPECT_EQ("format=1\ncurrent=0\ncount=0\nself=" + std::to_string(adler("format=1current=0count=0")) + "\n",
              file.render());
}

TEST(ChecksumFileValue, RoundTripKeepsEveryValue) {
    ChecksumFile file;
    file.type = "uldb";
    file.current = 18446744073709551615u;
    file.entries.push_back({18446744073709551615u, 4294967295u, 0, 4294967295u});
    file.entries.push_back({18446744073709551614u, 0, 4294967295u, 7});
    file.entries.push_back({18446744073709551613u, 1, 1, 0});
    ChecksumFile back;
    std::string reason;
    ASSERT_TRUE(ChecksumFile::parse(file.render(), "uldb", "x", &back, &reason)) << reason;
    EXPECT_EQ(file.current, back.current);
    ASSERT_EQ(file.entries.size(), back.entries.size());
    for (size_t i = 0; i < file.entries.size(); ++i) {
        EXPECT_EQ(file.entries[i].version, back.entries[i].version);
        EXPECT_EQ(file.entries[i].db_crc, back.entries[i].db_crc);
        EXPECT_EQ(file.entries[i].journal_crc, back.entries[i].journal_crc);
        EXPECT_EQ(file.entries[i].journal_lines, back.entries[i].journal_lines);
    }
    EXPECT_EQ(file.render(), back.render());
}

TEST(ChecksumFileValue, FromAndToAVersionList) {
    kt::TempDir tmp;
    ChecksumFile file;
    std::string reason;
    ASSERT_TRUE(ChecksumFile::parse(chksum_text(kTwo), "podb", "x", &file, &reason)) << reason;
    ShadowVersionList list;
    list.push_back(ShadowVersion("/elsewhere", "podb", 1));
    file.to_versions(tmp.path(), &list);
    ASSERT_EQ(2u, list.size());
    EXPECT_EQ(tmp.file("podb.3"), list.front().db_path);
    EXPECT_EQ(3u, list.front().journal_lines);
    EXPECT_EQ(tmp.file("podb.2.journal"), list.back().journal_path);
    EXPECT_EQ(21u, list.back().db_crc);
    EXPECT_EQ(chksum_text(kTwo), ChecksumFile::of("podb", 3, list).render());
}

// A value whose numbers do not run down from current renders a text the
// reader refuses; validate says so first.
TEST(ChecksumFileValue, ValidateNamesTheFault) {
    ChecksumFile file;
    file.type = "podb";
    file.current = 3;
    file.entries.push_back({3, 1, 1, 0});
    file.entries.push_back({1, 1, 1, 0});
    std::string reason;
    EXPECT_FALSE(file.validate(&reason));
    EXPECT_EQ("version 1 listed where 2 belongs", reason);
    ChecksumFile back;
    std::string refused;
    EXPECT_FALSE(ChecksumFile::parse(file.render(), "podb", "x", &back, &refused));
    EXPECT_EQ("can't get value of podb.2", refused);

    file.current = 1;
    file.entries.resize(2);
    file.entries[0].version = 1;
    file.entries[1].version = 0;
    EXPECT_FALSE(file.validate(&reason));
    EXPECT_EQ("more versions listed than numbers handed out", reason);
}

TEST(ChecksumFileValue, ReadLine) {
    std::istringstream in("count=7\ncount=x\n");
    ShadowCrc crc;
    std::string line;
    uint64_t value = 0;
    const char* reason = nullptr;
    EXPECT_EQ(0u, ChecksumFile::read_line(in, "count", crc, &line, &value, &reason));
    EXPECT_EQ(nullptr, reason);
    EXPECT_EQ("count=7", line);
    EXPECT_EQ(7u, value);
    EXPECT_EQ(adler("count=7"), crc.value());
    EXPECT_EQ(CR_STATUS_CORRUPT, ChecksumFile::read_line(in, "count", crc, &line, &value, &reason));
    EXPECT_STREQ("bad line format", reason);
    EXPECT_EQ("count=x", line);
    EXPECT_EQ(7u, value);
    EXPECT_EQ(adler("count=7"), crc.value());
    EXPECT_EQ(CR_STATUS_CORRUPT, ChecksumFile::read_line(in, "count", crc, &line, &value));
    EXPECT_EQ(CR_STATUS_CORRUPT, ChecksumFile::read_line(in, "count", crc, &line, &value, &reason));
    EXPECT_STREQ("file read error", reason);
}

TEST(ChecksumFileLoad, MissingFileAndBytes) {
    kt::TempDir tmp;
    ChecksumFile file;
    std::string text = "left";
    std::string reason;
    EXPECT_FALSE(ChecksumFile::load(tmp.file(".chksum.podb"), "podb", &file, &text, &reason));
    EXPECT_EQ("open file " + tmp.file(".chksum.podb") + " failed.", reason);
    kt::write_file(tmp.file(".chksum.podb"), chksum_text(kTwo) + "tail");
    ASSERT_TRUE(ChecksumFile::load(tmp.file(".chksum.podb"), "podb", &file, &text, &reason)) << reason;
    EXPECT_EQ(chksum_text(kTwo) + "tail", text);
    EXPECT_EQ(2u, file.entries.size());
}

// The atomic write: the new text in place and no temporary file; on each
// failure before the rename, the old file and no temporary file.
TEST(ChecksumFileWrite, ReplacesTheFileWhole) {
    kt::TempDir tmp;
    const std::string path = tmp.file(".chksum.podb");
    kt::write_file(path, "old");
    bool replaced = false;
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_OK, ChecksumFile::write(tmp.path(), path, "new\n", &replaced));
    EXPECT_TRUE(replaced);
    EXPECT_EQ("new\n", kt::read_file(path));
    EXPECT_EQ(std::vector<std::string>{".chksum.podb"}, kt::list_dir(tmp.path()));
    EXPECT_EQ(0u, log.records().size()) << log.dump();
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(static_cast<mode_t>(dct::private_file_mode), st.st_mode & 0777);
}

class ChecksumFileWriteFault : public ::testing::TestWithParam<int> {};

TEST_P(ChecksumFileWriteFault, OldFileStaysAndNoTemporaryIsLeft) {
    const dct::fault_op ops[] = {dct::fault_op::open_write, dct::fault_op::write, dct::fault_op::fsync,
                                 dct::fault_op::rename};
    const dct::fault_op op = ops[GetParam()];
    SCOPED_TRACE(dct::fault_op_name(op));
    kt::TempDir tmp;
    const std::string path = tmp.file(".chksum.podb");
    const std::string temporary = path + ".tmp";
    kt::write_file(path, "old");
    bool replaced = true;
    kt::LogCapture log;
    cr_status_t status;
    {
        kt::FaultCountdown fault(1, ENOSPC, {op}, ".tmp");
        status = ChecksumFile::write(tmp.path(), path, "new\n", &replaced);
        EXPECT_TRUE(fault.fired());
    }
    EXPECT_EQ(CR_STATUS_IO, status);
    EXPECT_FALSE(replaced);
    EXPECT_EQ("old", kt::read_file(path));
    EXPECT_EQ(std::vector<std::string>{".chksum.podb"}, kt::list_dir(tmp.path()));
    const std::string message =
        op == dct::fault_op::open_write
            ? "persist_chksum: failed to open file " + temporary + " to persist data (" + strerror(ENOSPC) + ")."
            : "can't persist version info file " + path + ".";
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_IO, message)) << log.dump();
    EXPECT_EQ(1u, log.records().size()) << log.dump();
}

INSTANTIATE_TEST_SUITE_P(EveryStep, ChecksumFileWriteFault, ::testing::Range(0, 4));

// A failed directory sync comes after the rename: the new text is in place
// and the caller is told so, with the failure.
TEST(ChecksumFileWrite, DirectorySyncFailsAfterTheRename) {
    kt::TempDir tmp;
    const std::string path = tmp.file(".chksum.podb");
    kt::write_file(path, "old");
    bool replaced = false;
    kt::LogCapture log;
    cr_status_t status;
    {
        // Only the directory's sync fails; the temporary file's goes through.
        int calls = 0;
        dct::set_fault_hook([&](dct::fault_op op, const char* p) {
            if (op == dct::fault_op::fsync && tmp.path() == p) return ++calls == 1 ? EIO : 0;
            return 0;
        });
        status = ChecksumFile::write(tmp.path(), path, "new\n", &replaced);
        dct::set_fault_hook(nullptr);
        EXPECT_EQ(1, calls);
    }
    EXPECT_EQ(CR_STATUS_IO, status);
    EXPECT_TRUE(replaced);
    EXPECT_EQ("new\n", kt::read_file(path));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_IO, "can't persist version info file " + path + "."))
        << log.dump();
}

// Without write access to the directory (run as an unprivileged user, or the
// permission is not enforced), the open fails and nothing changes.
// The same as a user the directory is closed to, for a run as root: a child
// becomes nobody and writes into a root-owned 0755 directory.
TEST(ChecksumFileWrite, DirectoryWithoutWriteAccessAsAnotherUser) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
    kt::TempDir tmp;
    ASSERT_EQ(0, chmod(tmp.path().c_str(), 0755));
    const std::string dir = tmp.file("ro");
    ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    const std::string path = dir + "/.chksum.podb";
    kt::write_file(path, "old");
    ASSERT_EQ(0, chmod(path.c_str(), 0644));
    EXPECT_EQ(0, kt::run_as_nobody([&]() {
        std::vector<std::string> records;
        dct::set_log_sink([&records](log_level level, cr_status_t status, const std::string& message) {
            if (level == log_level::error) records.push_back(std::to_string(status) + " " + message);
        });
        bool replaced = true;
        if (ChecksumFile::write(dir, path, "new\n", &replaced) != CR_STATUS_ACCESS_DENIED) return 21;
        if (replaced) return 22;
        const std::string expected = std::to_string(CR_STATUS_ACCESS_DENIED) +
                                     " persist_chksum: failed to open file " + path +
                                     ".tmp to persist data (" + strerror(EACCES) + ").";
        return records.size() == 1 && records[0] == expected ? 0 : 23;
    }));
    EXPECT_EQ("old", kt::read_file(path));
    EXPECT_FALSE(kt::file_exists(path + ".tmp"));
}

TEST(ChecksumFileWrite, DirectoryWithoutWriteAccess) {
    if (geteuid() == 0) GTEST_SKIP() << "root writes anywhere; the fault tests cover the failed open";
    kt::TempDir tmp;
    const std::string dir = tmp.file("ro");
    ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    const std::string path = dir + "/.chksum.podb";
    kt::write_file(path, "old");
    ASSERT_EQ(0, chmod(dir.c_str(), 0555));
    bool replaced = true;
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_ACCESS_DENIED, ChecksumFile::write(dir, path, "new\n", &replaced));
    EXPECT_FALSE(replaced);
    EXPECT_EQ("old", kt::read_file(path));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_ACCESS_DENIED,
                            "persist_chksum: failed to open file " + path + ".tmp to persist data (" +
                                strerror(EACCES) + ")."))
        << log.dump();
    chmod(dir.c_str(), 0755);
}
