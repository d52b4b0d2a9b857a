// The item's text forms: line form, from_string, labelled form, list form.
#include <algorithm>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "appdb/app_catalog_item.h"
#include "appdb/catalog_application_base.h"
#include "common/test_util.h"
#include "gtest/gtest.h"

namespace {

using appdb::app_catalog_item;
using appdb::catalog_application_base;

app_catalog_item full_item() {
    app_catalog_item it;
    it.version = 2;
    it.file_name = "/data/db/redo_01.log";
    it.file_len = 1048576;
    it.backup_id = "srv1_1700000000";
    it.policy = "daily-oracle";
    it.policy_type = 7;
    it.schedule_type = 1;
    it.frag_nums = 3;
    it.client = "srv1.example";
    it.app_id = "ORCL";
    it.data_object = "tablespace USERS";
    it.app_expire_time = 1800000000;
    it.orvo_expire_time = 1800086400;
    it.backup_start_time = 1700000000;
    it.backup_stop_time = 1700000600;
    it.owner = "oracle";
    it.owner_role = 1;
    it.description = "nightly Größe ✓ 日本";
    it.reserver0 = "r0";
    it.reserver1 = "r1";
    it.reserver2 = "r2";
    it.reserver3 = "r3";
    it.reserver4 = "r4";
    it.reserver5 = "r5";
    it.reserver6 = "r6";
    it.reserver7 = "r7";
    it.reserver8 = "r8";
    it.reserver9 = "r9";
    return it;
}

const char kFullLine[] =
    "2|/data/db/redo_01.log|1048576|srv1_1700000000|daily-oracle|7|1|3|srv1.example|ORCL|tablespace USERS|"
    "1800000000|1800086400|1700000000|1700000600|oracle|1|nightly Größe ✓ 日本|r0|r1|r2|r3|r4|r5|r6|r7|r8|r9|";

// Every field of two items, compared one by one so that a failure names it.
void expect_same_item(const app_catalog_item& a, const app_catalog_item& b) {
    EXPECT_EQ(a.version, b.version);
    EXPECT_EQ(a.file_name, b.file_name);
    EXPECT_EQ(a.file_len, b.file_len);
    EXPECT_EQ(a.backup_id, b.backup_id);
    EXPECT_EQ(a.policy, b.policy);
    EXPECT_EQ(a.policy_type, b.policy_type);
    EXPECT_EQ(a.schedule_type, b.schedule_type);
    EXPECT_EQ(a.frag_nums, b.frag_nums);
    EXPECT_EQ(a.client, b.client);
    EXPECT_EQ(a.app_id, b.app_id);
    EXPECT_EQ(a.data_object, b.data_object);
    EXPECT_EQ(a.app_expire_time, b.app_expire_time);
    EXPECT_EQ(a.orvo_expire_time, b.orvo_expire_time);
    EXPECT_EQ(a.backup_start_time, b.backup_start_time);
    EXPECT_EQ(a.backup_stop_time, b.backup_stop_time);
    EXPECT_EQ(a.owner, b.owner);
    EXPECT_EQ(a.owner_role, b.owner_role);
    EXPECT_EQ(a.description, b.description);
    EXPECT_EQ(a.reserver0, b.reserver0);
    EXPECT_EQ(a.reserver1, b.reserver1);
    EXPECT_EQ(a.reserver2, b.reserver2);
    EXPECT_EQ(a.reserver3, b.reserver3);
    EXPECT_EQ(a.reserver4, b.reserver4);
    EXPECT_EQ(a.reserver5, b.reserver5);
    EXPECT_EQ(a.reserver6, b.reserver6);
    EXPECT_EQ(a.reserver7, b.reserver7);
    EXPECT_EQ(a.reserver8, b.reserver8);
    EXPECT_EQ(a.reserver9, b.reserver9);
}

std::string rest_of(std::istringstream& in) {
    std::string rest;
    std::getline(in, rest, '\0');
    return rest;
}

// ---- line form ----

TEST(ItemLineForm, DefaultItem) {
    app_catalog_item it;
    const std::string line = it.to_string();
    EXPECT_EQ("1||0|||4|0|0||||0|0|0|0||4|" + std::string(11, '|'), line);
    EXPECT_EQ("1||0|||4|0|0||||0|0|0|0||4||||||||||||", line);
    EXPECT_EQ(28, std::count(line.begin(), line.end(), '|'));
}

TEST(ItemLineForm, FullItem) { EXPECT_EQ(kFullLine, full_item().to_string()); }

TEST(ItemLineForm, LargestNumbers) {
    app_catalog_item it;
    it.version = 0xffffffffu;
    it.file_len = std::numeric_limits<uint64_t>::max();
    it.owner_role = 0xffffffffu;
    EXPECT_EQ("4294967295||18446744073709551615|||4|0|0||||0|0|0|0||4294967295|" + std::string(11, '|'),
              it.to_string());
}

TEST(ItemLineForm, NegativeTimesPrintAsUnsigned) {
    app_catalog_item it;
    it.app_expire_time = -1;
    it.orvo_expire_time = -2;
    it.backup_start_time = std::numeric_limits<int64_t>::min();
    it.backup_stop_time = std::numeric_limits<int64_t>::max();
    EXPECT_EQ("1||0|||4|0|0||||18446744073709551615|18446744073709551614|9223372036854775808|"
              "9223372036854775807||4|" + std::string(11, '|'),
              it.to_string());
}

// ---- from_string ----

TEST(ItemFromString, RoundTripOfAFullItem) {
    const app_catalog_item src = full_item();
    std::istringstream in(src.to_string());
    app_catalog_item back;
    ASSERT_TRUE(appdb::from_string(in, back));
    expect_same_item(src, back);
    EXPECT_EQ(kFullLine, back.to_string());
}

TEST(ItemFromString, RoundTripWithEveryFieldDistinct) {
    app_catalog_item src;
    src.version = 4294967295u;
    src.file_name = "файл/αρχείο ✓.dat";
    src.file_len = 9223372036854775807ull;  // the largest length atoll reads back
    src.backup_id = "bk_0001";
    src.policy = "pol é";
    src.policy_type = 11;
    src.schedule_type = 12;
    src.frag_nums = 13;
    src.client = "клиент";
    src.app_id = "app 14";
    src.data_object = "obj,15;";
    src.app_expire_time = 16;
    src.orvo_expire_time = 0;
    src.backup_start_time = 9223372036854775807LL;
    src.backup_stop_time = 19;
    src.owner = "所有者";
    src.owner_role = 20;
    src.description = "tab\there, newline\nthere";
    src.reserver0 = "a0";
    src.reserver1 = "b1";
    src.reserver2 = "c2";
    src.reserver3 = "d3";
    src.reserver4 = "e4";
    src.reserver5 = "f5";
    src.reserver6 = "g6";
    src.reserver7 = "h7";
    src.reserver8 = "i8";
    src.reserver9 = "j9 ✓";
    std::istringstream in(src.to_string());
    app_catalog_item back;
    ASSERT_TRUE(appdb::from_string(in, back));
    expect_same_item(src, back);
}

TEST(ItemFromString, NegativeTimesComeBackSaturated) {
    app_catalog_item src;
    src.app_expire_time = -1;
    src.backup_start_time = -100;
    std::istringstream in(src.to_string());
    app_catalog_item back;
    ASSERT_TRUE(appdb::from_string(in, back));
    EXPECT_EQ(std::numeric_limits<int64_t>::max(), back.app_expire_time);
    EXPECT_EQ(std::numeric_limits<int64_t>::max(), back.backup_start_time);
    EXPECT_EQ(0, back.orvo_expire_time);
}

TEST(ItemFromString, TwentySevenFieldsFailAndKeepWhatWasRead) {
    // Indices 0 to 26 only, each with its "|".
    const std::string line = "9|f|10|b|p|5|6|7|c|a|d|11|12|13|14|o|1|desc|r0|r1|r2|r3|r4|r5|r6|r7|r8|";
    std::istringstream in(line);
    app_catalog_item it;
    EXPECT_FALSE(appdb::from_string(in, it));
    EXPECT_EQ(9u, it.version);
    EXPECT_EQ("desc", it.description);
    EXPECT_EQ("r8", it.reserver8);
    EXPECT_EQ("", it.reserver9);
}

TEST(ItemFromString, EmptyStreamFails) {
    std::istringstream in("");
    app_catalog_item it;
    EXPECT_FALSE(appdb::from_string(in, it));
    EXPECT_EQ(1u, it.version);
}

TEST(ItemFromString, LastFieldWithoutSeparatorIsAccepted) {
    const std::string line = "9|f|10|b|p|5|6|7|c|a|d|11|12|13|14|o|1|desc|r0|r1|r2|r3|r4|r5|r6|r7|r8|last";
    std::istringstream in(line);
    app_catalog_item it;
    EXPECT_TRUE(appdb::from_string(in, it));
    EXPECT_EQ("last", it.reserver9);
}

TEST(ItemFromString, StopsAfterTheTwentyEighthField) {
    std::istringstream in(full_item().to_string() + "extra|more");
    app_catalog_item it;
    EXPECT_TRUE(appdb::from_string(in, it));
    EXPECT_EQ("r9", it.reserver9);
    EXPECT_EQ("extra|more", rest_of(in));
}

TEST(ItemFromString, NumbersAreNotChecked) {
    std::istringstream in("abc||12abc|||||x|||||-|+7 days||||" + std::string(11, '|'));
    app_catalog_item it;
    ASSERT_TRUE(appdb::from_string(in, it));
    EXPECT_EQ(0u, it.version);        // non-numeric
    EXPECT_EQ(12u, it.file_len);      // leading digits
    EXPECT_EQ(0u, it.policy_type);    // empty
    EXPECT_EQ(0u, it.schedule_type);  // empty
    EXPECT_EQ(0u, it.frag_nums);      // non-numeric
    EXPECT_EQ(0, it.orvo_expire_time);
    EXPECT_EQ(7, it.backup_start_time);
    EXPECT_EQ(0u, it.owner_role);
}

TEST(ItemFromString, ThirtyTwoBitFieldsTruncate) {
    std::istringstream in("4294967297||0|||4294967300|0|0||||0|0|0|0||4294967297|" + std::string(11, '|'));
    app_catalog_item it;
    ASSERT_TRUE(appdb::from_string(in, it));
    EXPECT_EQ(1u, it.version);
    EXPECT_EQ(4u, it.policy_type);
    EXPECT_EQ(1u, it.owner_role);
}

TEST(ItemFromString, PipeInClientShiftsLaterFields) {
    app_catalog_item src = full_item();
    src.client = "srv1|x";
    std::istringstream in(src.to_string());
    app_catalog_item it;
    ASSERT_TRUE(appdb::from_string(in, it));  // nothing notices
    EXPECT_EQ("srv1", it.client);
    EXPECT_EQ("x", it.app_id);
    EXPECT_EQ("ORCL", it.data_object);
    EXPECT_EQ(0, it.app_expire_time);  // "tablespace USERS"
    EXPECT_EQ(1800000000, it.orvo_expire_time);
    EXPECT_EQ(1800086400, it.backup_start_time);
    EXPECT_EQ(1700000000, it.backup_stop_time);
    EXPECT_EQ("1700000600", it.owner);
    EXPECT_EQ(0u, it.owner_role);  // "oracle"
    EXPECT_EQ("1", it.description);
    EXPECT_EQ("nightly Größe ✓ 日本", it.reserver0);
    EXPECT_EQ("r0", it.reserver1);
    EXPECT_EQ("r8", it.reserver9);
    EXPECT_EQ("r9|", rest_of(in));
    // The fields before the client are unaffected.
    EXPECT_EQ("srv1_1700000000", it.backup_id);
    EXPECT_EQ(3u, it.frag_nums);
}

TEST(ItemFromString, TracesEveryTokenWhileTracingIsOn) {
    kt::LogCapture log;
    kt::TraceSwitch trace(true);
    std::istringstream in(app_catalog_item().to_string());
    app_catalog_item it;
    ASSERT_TRUE(appdb::from_string(in, it));
    const auto records = log.records();
    ASSERT_EQ(28u, records.size()) << log.dump();
    EXPECT_EQ(dct::log_level::trace, records[0].level);
    EXPECT_EQ("from_string: from_string: index 0, token 1", records[0].message);
    EXPECT_EQ("from_string: from_string: index 1, token ", records[1].message);
    EXPECT_EQ("from_string: from_string: index 5, token 4", records[5].message);
    EXPECT_EQ("from_string: from_string: index 27, token ", records[27].message);
}

TEST(ItemFromString, TracedTokenIsCutAtTheBuffer) {
    kt::LogCapture log;
    kt::TraceSwitch trace(true);
    app_catalog_item src;
    src.file_name = std::string(2000, 'x');
    std::istringstream in(src.to_string());
    app_catalog_item it;
    ASSERT_TRUE(appdb::from_string(in, it));
    EXPECT_EQ(src.file_name, it.file_name);  // only the trace is cut
    const std::string full = "from_string: index 1, token " + src.file_name;
    const std::string expected = "from_string: " + full.substr(0, 1023);
    EXPECT_EQ(1u, log.count(dct::log_level::trace, CR_STATUS_NONE, expected));
    EXPECT_EQ(28u, log.records().size());
}

TEST(ItemFromString, NoTraceWhileTracingIsOff) {
    kt::LogCapture log;
    kt::TraceSwitch trace(false);
    std::istringstream in(full_item().to_string());
    app_catalog_item it;
    ASSERT_TRUE(appdb::from_string(in, it));
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

// ---- labelled form ----

const char kFullLabelledPlain[] =
    "{\n"
    "version:                 2\n"
    "file name:               /data/db/redo_01.log\n"
    "file len:                1048576\n"
    "backup id:               srv1_1700000000\n"
    "policy:                  daily-oracle\n"
    "policy type:             7\n"
    "schedule type:           1\n"
    "fragment numbers:        3\n"
    "client:                  srv1.example\n"
    "appid:                   ORCL\n"
    "data object:             tablespace USERS\n"
    "app expire time:         1800000000\n"
    "orvo expire time:        -5\n"
    "backup start time:       1700000000\n"
    "backup stop time:        1700000600\n"
    "owner:                   oracle\n"
    "owner role:              admin\n"
    "description:             nightly Größe ✓ 日本\n"
    "reserver0:               r0\n"
    "reserver1:               r1\n"
    "reserver2:               r2\n"
    "reserver3:               r3\n"
    "reserver4:               r4\n"
    "reserver5:               r5\n"
    "reserver6:               r6\n"
    "reserver7:               r7\n"
    "reserver8:               r8\n"
    "reserver9:               r9\n"
    "}";

const char kFullLabelledFormatted[] =
    "{\n"
    "version:                 2\n"
    "file name:               /data/db/redo_01.log\n"
    "file len:                1048576\n"
    "backup id:               srv1_1700000000\n"
    "policy:                  daily-oracle\n"
    "policy type:             7\n"
    "schedule type:           1\n"
    "fragment numbers:        3\n"
    "client:                  srv1.example\n"
    "appid:                   ORCL\n"
    "data object:             tablespace USERS\n"
    "app expire time:         T1800000000\n"
    "orvo expire time:        T-5\n"
    "backup start time:       T1700000000\n"
    "backup stop time:        T1700000600\n"
    "owner:                   oracle\n"
    "owner role:              admin\n"
    "description:             nightly Größe ✓ 日本\n"
    "reserver0:               r0\n"
    "reserver1:               r1\n"
    "reserver2:               r2\n"
    "reserver3:               r3\n"
    "reserver4:               r4\n"
    "reserver5:               r5\n"
    "reserver6:               r6\n"
    "reserver7:               r7\n"
    "reserver8:               r8\n"
    "reserver9:               r9\n"
    "}";

std::string tagged_time(int64_t t) { return "T" + std::to_string(t); }

TEST(ItemLabelledForm, FullItemWithoutFormatter) {
    app_catalog_item it = full_item();
    it.orvo_expire_time = -5;
    EXPECT_EQ(kFullLabelledPlain, it.to_json_string());
    EXPECT_EQ(kFullLabelledPlain, it.to_json_string(nullptr));
    EXPECT_EQ(kFullLabelledPlain, it.to_json_string(std::function<std::string(int64_t)>()));
}

TEST(ItemLabelledForm, FullItemWithFormatter) {
    app_catalog_item it = full_item();
    it.orvo_expire_time = -5;
    EXPECT_EQ(kFullLabelledFormatted, it.to_json_string(tagged_time));
}

TEST(ItemLabelledForm, OwnerRoleWords) {
    app_catalog_item it;
    it.owner_role = 2;
    EXPECT_NE(std::string::npos, it.to_json_string().find("\nowner role:              unknown role\n"));
    it.owner_role = 4;
    EXPECT_NE(std::string::npos, it.to_json_string().find("\nowner role:              app\n"));
    it.owner_role = 1;
    EXPECT_NE(std::string::npos, it.to_json_string().find("\nowner role:              admin\n"));
}

TEST(ItemLabelledForm, UnknownRoleAndSignedTimesWithoutFormatter) {
    app_catalog_item it;
    it.owner_role = 2;
    it.app_expire_time = -1;
    it.backup_start_time = std::numeric_limits<int64_t>::min();
    const std::string text = it.to_json_string();
    EXPECT_NE(std::string::npos, text.find("\nowner role:              unknown role\n"));
    EXPECT_NE(std::string::npos, text.find("\napp expire time:         -1\n"));
    EXPECT_NE(std::string::npos, text.find("\nbackup start time:       -9223372036854775808\n"));
    EXPECT_NE(std::string::npos, text.find("\norvo expire time:        0\n"));
}

TEST(ItemLabelledForm, ShapeOfTheDefaultItem) {
    const std::string text = app_catalog_item().to_json_string();
    ASSERT_EQ(0u, text.find("{\nversion:                 1\nfile name:               \n"));
    EXPECT_EQ('}', text.back());
    EXPECT_EQ("\nreserver9:               \n}", text.substr(text.size() - 28));
    EXPECT_EQ(29, std::count(text.begin(), text.end(), '\n'));
}

TEST(ItemTimeDisplay, FormatterOrSignedDecimal) {
    EXPECT_EQ("-42", app_catalog_item::time_display(-42, nullptr));
    EXPECT_EQ("0", app_catalog_item::time_display(0, appdb::time_formatter()));
    EXPECT_EQ("9223372036854775807",
              app_catalog_item::time_display(std::numeric_limits<int64_t>::max(), nullptr));
    EXPECT_EQ("T-42", app_catalog_item::time_display(-42, tagged_time));
}

// ---- list form ----

TEST(ItemListForm, EmptyList) { EXPECT_EQ("0|", catalog_application_base::to_string({})); }

TEST(ItemListForm, TwoItemsBackToBack) {
    const app_catalog_item a = full_item();
    const app_catalog_item b;
    EXPECT_EQ(std::string("2|") + kFullLine + "1||0|||4|0|0||||0|0|0|0||4|" + std::string(11, '|'),
              catalog_application_base::to_string({a, b}));
}

TEST(ItemListForm, OneItem) {
    EXPECT_EQ(std::string("1|") + kFullLine, catalog_application_base::to_string({full_item()}));
}

}  // namespace
