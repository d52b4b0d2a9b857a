// sqlitedb::format_sql: SQLite's own formatting, with no length limit.
#include <string>

#include <gtest/gtest.h>

#include "sqlitedb/sqlite_wrapper.h"

namespace {

TEST(FormatSql, QuotesTextAsAnSqlLiteral) {
    std::string out = "left alone on failure only";
    ASSERT_TRUE(sqlitedb::format_sql(out, "DELETE FROM t WHERE %s = (%Q)", "name", "it's"));
    EXPECT_EQ("DELETE FROM t WHERE name = ('it''s')", out);
    ASSERT_TRUE(sqlitedb::format_sql(out, "%d %lld %Q", -1, static_cast<long long>(INT64_MIN), nullptr));
    EXPECT_EQ("-1 -9223372036854775808 NULL", out);
}

TEST(FormatSql, FormatsTextsOfAnyLengthWhole) {
    for (size_t size : {size_t(3072), size_t(64) << 10, size_t(4) << 20}) {
        const std::string text = std::string(size, '\'') + "\nend";
        std::string out;
        ASSERT_TRUE(sqlitedb::format_sql(out, "(%Q)", text.c_str()));
        EXPECT_EQ(2 * size + 4 + 4, out.size());
        EXPECT_EQ("\nend')", out.substr(out.size() - 6));
    }
}

}  // namespace
