// The bounded output buffer: bytes held in memory up to the limit, the rest in
// a temporary file without a name, given back exactly and in order.
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "dct/spill_buffer.h"

namespace {

using dct::log_level;
using dct::spill_buffer;

// What write_to gives, through a temporary stream.
std::string drain(spill_buffer& buf, cr_status_t* status = nullptr) {
    FILE* f = tmpfile();
    EXPECT_NE(nullptr, f);
    const cr_status_t st = buf.write_to(f);
    if (status != nullptr) *status = st;
    std::string out;
    rewind(f);
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), f)) > 0) out.append(chunk, n);
    fclose(f);
    return out;
}

class SpillBuffer : public ::testing::Test {
protected:
    kt::TempDir tmp;
    kt::LogCapture log;
};

TEST_F(SpillBuffer, BytesWithinTheLimitStayInMemory) {
    spill_buffer buf(64, tmp.path());
    ASSERT_EQ(0u, buf.append("line one\n", 9));
    ASSERT_EQ(0u, buf.append("line two\n", 9));
    EXPECT_FALSE(buf.spilled());
    EXPECT_EQ(18u, buf.size());
    EXPECT_EQ("line one\nline two\n", drain(buf));
    EXPECT_EQ(0u, buf.size());
}

TEST_F(SpillBuffer, BytesPastTheLimitComeBackExactlyAndInOrder) {
    spill_buffer buf(10, tmp.path());
    std::string expected;
    for (int i = 0; i < 1000; ++i) {
        std::string piece = "row " + std::to_string(i);
        piece += std::string(1, '\0') + (i % 7 == 0 ? std::string(25, 'x') : "") + "\n";
        ASSERT_EQ(0u, buf.append(piece.data(), piece.size()));
        expected += piece;
    }
    EXPECT_TRUE(buf.spilled());
    EXPECT_EQ(expected.size(), buf.size());
    cr_status_t status = 99;
    EXPECT_EQ(expected, drain(buf, &status));
    EXPECT_EQ(0u, status);
    EXPECT_FALSE(buf.spilled());
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(SpillBuffer, TheFileNeverHasANameInItsDirectory) {
    spill_buffer buf(4, tmp.path());
    ASSERT_EQ(0u, buf.append("0123456789", 10));
    ASSERT_TRUE(buf.spilled());
    EXPECT_TRUE(kt::list_dir(tmp.path()).empty());
}

TEST_F(SpillBuffer, ClearForgetsAndTheNextRoundReusesTheFile) {
    spill_buffer buf(4, tmp.path());
    ASSERT_EQ(0u, buf.append("a long first round", 18));
    ASSERT_TRUE(buf.spilled());
    buf.clear();
    EXPECT_EQ(0u, buf.size());
    ASSERT_EQ(0u, buf.append("second", 6));
    ASSERT_EQ(0u, buf.append("!", 1));
    EXPECT_EQ("second!", drain(buf));
    ASSERT_EQ(0u, buf.append("ab", 2));
    EXPECT_EQ("ab", drain(buf));
}

TEST_F(SpillBuffer, WithoutAFileTheBytesStayInMemoryAfterOneWarning) {
    const std::string missing = tmp.file("no-such-dir");
    spill_buffer buf(4, missing);
    ASSERT_EQ(0u, buf.append("0123456789", 10));
    ASSERT_EQ(0u, buf.append("abcdef", 6));
    EXPECT_FALSE(buf.spilled());
    EXPECT_EQ(1u, log.count(log_level::warning, 0,
                            "spill_buffer: cannot make a temporary file in " + missing +
                                " (No such file or directory), holding the output in memory"))
        << log.dump();
    EXPECT_EQ("0123456789abcdef", drain(buf));
    EXPECT_EQ(1u, log.records().size());
}

TEST_F(SpillBuffer, TheDirectoryDefaultsToTmpdir) {
    const char* old = getenv("TMPDIR");
    const std::string saved = old != nullptr ? old : "";
    setenv("TMPDIR", tmp.file("absent").c_str(), 1);
    {
        spill_buffer buf(1);
        ASSERT_EQ(0u, buf.append("xyz", 3));
        EXPECT_FALSE(buf.spilled());
        EXPECT_EQ("xyz", drain(buf));
    }
    if (old != nullptr) {
        setenv("TMPDIR", saved.c_str(), 1);
    } else {
        unsetenv("TMPDIR");
    }
    EXPECT_EQ(1u, log.count_containing("cannot make a temporary file in " + tmp.file("absent") + " (")) << log.dump();
}

TEST_F(SpillBuffer, AFailedWriteOfTheOutputIsReportedAndEmptiesTheBuffer) {
    spill_buffer buf(2, tmp.path());
    ASSERT_EQ(0u, buf.append("spilled bytes", 13));
    FILE* full = fopen("/dev/full", "w");
    ASSERT_NE(nullptr, full);
    setvbuf(full, nullptr, _IONBF, 0);
    EXPECT_EQ(21u, buf.write_to(full));
    fclose(full);
    EXPECT_EQ(1u, log.count(log_level::error, 21, "spill_buffer: failed to write the output")) << log.dump();
    EXPECT_EQ(0u, buf.size());
}

}  // namespace
