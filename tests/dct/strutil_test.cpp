// Escaping of text for display.
#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "dct/strutil.h"

namespace {

std::string escape(const char* in, size_t limit, size_t* written = nullptr) {
    std::string out(limit + 1, '#');
    size_t n = CRStringEscapeA(in, &out[0], limit);
    if (written != nullptr) *written = n;
    EXPECT_EQ(out[n], '\0');
    return out.substr(0, n);
}

}  // namespace

TEST(CRStringEscapeA, PlainTextUnchanged) {
    size_t n = 0;
    EXPECT_EQ(escape("backup_id|c1,p1,*", 100, &n), "backup_id|c1,p1,*");
    EXPECT_EQ(n, 17u);
}

TEST(CRStringEscapeA, EscapesQuotesBackslashAndControls) {
    EXPECT_EQ(escape("a\\b", 100), "a\\\\b");
    EXPECT_EQ(escape("it's", 100), "it\\'s");
    EXPECT_EQ(escape("say \"hi\"", 100), "say \\\"hi\\\"");
    EXPECT_EQ(escape("l1\nl2\tx\ry", 100), "l1\\nl2\\tx\\ry");
    EXPECT_EQ(escape("\x01\x1f\x7f", 100), "\\x01\\x1F\\x7F");
}

TEST(CRStringEscapeA, BytesAbove127PassThrough) {
    EXPECT_EQ(escape("\xC3\xA9", 100), "\xC3\xA9");
}

TEST(CRStringEscapeA, LimitCutsBeforeAnEscapeThatDoesNotFit) {
    size_t n = 0;
    EXPECT_EQ(escape("abc", 2, &n), "ab");
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(escape("a\nb", 2, &n), "a");  // "\n" needs two places, only one is left
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(escape("a\x01", 4, &n), "a");  // "\x01" needs four
    EXPECT_EQ(escape("a\x01", 5, &n), "a\\x01");
    EXPECT_EQ(escape("abc", 0, &n), "");
    EXPECT_EQ(n, 0u);
}

TEST(CRStringEscapeA, NullInputAndOutput) {
    char out[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(CRStringEscapeA(nullptr, out, 3), 0u);
    EXPECT_EQ(out[0], '\0');
    EXPECT_EQ(CRStringEscapeA("abc", nullptr, 3), 0u);
}
