// The checksum file's text: which texts are taken and which are refused, and
// with what reason. Each case is read from a real file by the inspecting
// reader (PODBShadow::read_chksum), which moves nothing aside.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>
#include <vector>

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
