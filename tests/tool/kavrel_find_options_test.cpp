// kavrel-find's reading of times and options, its output columns, and the
// JSON text rule shared with kavrel-shadow (a text that is not UTF-8 reads
// back to the same bytes).
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "offsite/json_text.h"
#include "tool/kavrel_find_options.h"

namespace {

using kfind::parse_time;

const int64_t kNow = 1700172800;  // 2023-11-16T22:13:20Z

int64_t t(const std::string& text) {
    int64_t out = -12345;
    EXPECT_TRUE(parse_time(text, kNow, &out)) << text;
    return out;
}

TEST(KavrelFindTime, SecondsSinceTheEpoch) {
    EXPECT_EQ(0, t("0"));
    EXPECT_EQ(1700000000, t("1700000000"));
    EXPECT_EQ(-5, t("-5"));
    EXPECT_EQ(9223372036854775807LL, t("9223372036854775807"));
    int64_t out;
    EXPECT_FALSE(parse_time("9223372036854775808", kNow, &out));
}

TEST(KavrelFindTime, IsoDatesAndDateTimes) {
    EXPECT_EQ(1699920000, t("2023-11-14"));  // midnight UTC
    EXPECT_EQ(1700000000, t("2023-11-14T22:13:20"));
    EXPECT_EQ(1700000000, t("2023-11-14T22:13:20Z"));
    EXPECT_EQ(1700000000, t("2023-11-14 22:13:20"));
    EXPECT_EQ(1699999980, t("2023-11-14T22:13"));
    EXPECT_EQ(1700000000, t("2023-11-15T00:13:20+02:00"));
    EXPECT_EQ(1700000000, t("2023-11-14T17:13:20-0500"));
    EXPECT_EQ(1700000000, t("2023-11-14T23:13:20+01"));
    EXPECT_EQ(951782400, t("2000-02-29"));
    EXPECT_EQ(-86400, t("1969-12-31"));
}

TEST(KavrelFindTime, RelativeToNow) {
    EXPECT_EQ(kNow - 7 * 86400, t("-7d"));
    EXPECT_EQ(kNow - 24 * 3600, t("-24h"));
    EXPECT_EQ(kNow + 30 * 60, t("+30m"));
    EXPECT_EQ(kNow - 15, t("-15s"));
    EXPECT_EQ(kNow + 2 * 7 * 86400, t("+2w"));
}

TEST(KavrelFindTime, AnythingElseIsRefused) {
    for (const char* bad : {"", "now", "7d", "-d", "-7y", "+", "2023-1-14", "2023-11-14T", "2023-11-14T2:00",
                            "2023-00-10", "2023-11-31", "2023-02-29", "2023-11-14T24:00", "2023-11-14T10:60",
                            "2023-11-14T10:00:00+25:00", "2023-11-14T10:00:00Zjunk", "2023/11/14", "1e9",
                            " 100"}) {
        int64_t out = 42;
        EXPECT_FALSE(parse_time(bad, kNow, &out)) << bad;
    }
}

kfind::options parse_ok(const std::vector<std::string>& args) {
    kfind::options o;
    std::string error;
    EXPECT_TRUE(kfind::parse_args(args, kNow, &o, &error)) << error;
    return o;
}

std::string parse_error(const std::vector<std::string>& args) {
    kfind::options o;
    std::string error;
    EXPECT_FALSE(kfind::parse_args(args, kNow, &o, &error));
    return error;
}

TEST(KavrelFindOptions, FiltersFillTheFilter) {
    const kfind::options o = parse_ok({"--dsid", "7", "--client", "c*", "--policy", "p?", "--backup-id", "B*",
                                       "--file-name", "f", "--owner", "o", "--since", "-1d", "--until", "100",
                                       "--expires-before", "2023-11-14"});
    EXPECT_TRUE(o.by_dsid);
    EXPECT_EQ(7u, o.dsid);
    EXPECT_EQ("c*", o.client);
    EXPECT_EQ("p?", o.policy);
    EXPECT_TRUE(o.filter.by_backup_id);
    EXPECT_EQ("B*", o.filter.backup_id);
    EXPECT_EQ("f", o.filter.file_name);
    EXPECT_EQ("o", o.filter.owner);
    EXPECT_EQ(kNow - 86400, o.filter.since);
    EXPECT_EQ(100, o.filter.until);
    EXPECT_EQ(1699920000, o.filter.expires_before);
    EXPECT_EQ(kfind::output_form::line, o.form);
    EXPECT_EQ(kfind::result_kind::items, o.result);
}

TEST(KavrelFindOptions, ErrorsSayWhatIsWrong) {
    EXPECT_EQ("unknown argument -listall", parse_error({"-listall"}));
    EXPECT_EQ("--owner needs a value", parse_error({"--owner"}));
    EXPECT_EQ("--dsid: \"4294967296\" is not a data store id", parse_error({"--dsid", "4294967296"}));
    EXPECT_EQ("--sort: unknown field size", parse_error({"--sort", "-size"}));
    EXPECT_EQ("--format: unknown field {size}", parse_error({"--format", "{size}"}));
    EXPECT_EQ("--format: unknown field {file_name}", parse_error({"--summary", "--format", "{file_name}"}));
    EXPECT_EQ("give one of --json-lines, --csv and --format", parse_error({"--csv", "--json-lines"}));
    EXPECT_EQ("give one --first or --last", parse_error({"--first", "1", "--last", "1"}));
    EXPECT_EQ("--policy \"x|y\" holds \"|\", which no client, policy, backup id, file name or owner can hold",
              parse_error({"--policy", "x|y"}));
}

TEST(KavrelFindColumns, OneColumnPerFieldPlusDsidAndTheUtcTwins) {
    std::vector<std::string> names;
    for (const auto& c : kfind::item_columns()) names.push_back(c.name);
    ASSERT_EQ(1u + 28u + 4u, names.size());
    EXPECT_EQ("dsid", names[0]);
    EXPECT_EQ("version", names[1]);
    EXPECT_EQ("app_expire_time", names[12]);
    EXPECT_EQ("app_expire_time_utc", names[13]);
    EXPECT_EQ("reserver9", names.back());
    EXPECT_NE(nullptr, kfind::item_column_named("backup_stop_time_utc"));
    EXPECT_EQ(nullptr, kfind::item_column_named("file_name_utc"));
}

TEST(JsonText, Utf8IsAStringAndAnythingElseHex) {
    EXPECT_TRUE(ktool::is_utf8(""));
    EXPECT_TRUE(ktool::is_utf8("plain"));
    EXPECT_TRUE(ktool::is_utf8("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"));
    EXPECT_FALSE(ktool::is_utf8("\xff"));
    EXPECT_FALSE(ktool::is_utf8("\xc3"));               // cut short
    EXPECT_FALSE(ktool::is_utf8("\xc0\xaf"));           // overlong
    EXPECT_FALSE(ktool::is_utf8("\xe0\x80\xaf"));       // overlong
    EXPECT_FALSE(ktool::is_utf8("\xed\xa0\x80"));       // surrogate
    EXPECT_FALSE(ktool::is_utf8("\xf4\x90\x80\x80"));   // above U+10FFFF
    EXPECT_EQ(ktool::json("x"), ktool::json_text("x"));
    EXPECT_EQ("{\"hex\":\"61ff00\"}", ktool::json_text(std::string("a\xff\0", 3)).dump());
}

TEST(JsonText, EveryByteStringReadsBackThroughTheWrittenText) {
    std::vector<std::string> samples = {"", "path/with \"quotes\" and \\", "tab\there\nnew line", "\x01\x1f\x7f",
                                        "caf\xc3\xa9", "bad\xff\xfe", std::string("nul\0inside", 10),
                                        "\xed\xa0\x80", "\xc3"};
    std::string all;
    for (int b = 0; b < 256; ++b) all.push_back(static_cast<char>(b));
    samples.push_back(all);
    for (const std::string& s : samples) {
        ktool::json doc = ktool::json::object();
        doc["path"] = ktool::json_text(s);
        const std::string written = ktool::json_line(doc);
        const ktool::json read = ktool::json::parse(written);
        std::string bytes;
        ASSERT_TRUE(ktool::json_text_bytes(read["path"], &bytes)) << written;
        EXPECT_EQ(s, bytes) << written;
    }
    std::string bytes;
    EXPECT_FALSE(ktool::json_text_bytes(ktool::json::parse("{\"hex\":\"6\"}"), &bytes));
    EXPECT_FALSE(ktool::json_text_bytes(ktool::json::parse("{\"hex\":\"zz\"}"), &bytes));
    EXPECT_FALSE(ktool::json_text_bytes(ktool::json::parse("5"), &bytes));
}

TEST(JsonText, TimesInIso8601Utc) {
    EXPECT_EQ("2023-11-14T22:13:20Z", ktool::iso8601_utc(1700000000));
    EXPECT_EQ("1970-01-01T00:00:00Z", ktool::iso8601_utc(0));
    EXPECT_EQ("1969-12-31T23:59:59Z", ktool::iso8601_utc(-1));
}

}  // namespace
