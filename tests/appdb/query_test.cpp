// Query strings: parsing, the chosen SELECT statements, the builders and the
// catalog entry point with its failure messages.
#include <string>

#include "appdb/app_query.h"
#include "appdb/catalog_application_base.h"
#include "common/test_util.h"
#include "gtest/gtest.h"

namespace {

using appdb::app_query;
using appdb::catalog_application_base;
using dct::log_level;

const char kNameExact[] = "SELECT * FROM catalog WHERE name = ?";
const char kNameGlob[] = "SELECT * FROM catalog WHERE name GLOB ? ORDER BY backup_start_time ASC";
const char kRange[] =
    "SELECT * FROM catalog WHERE backup_start_time >= ? and backup_start_time <= ? ORDER BY backup_start_time ASC";
const char kBackupExact[] = "SELECT * FROM catalog WHERE backupid = ?";
const char kBackupGlob[] = "SELECT * FROM catalog WHERE backupid GLOB ? ORDER BY backup_start_time ASC";

TEST(QueryTypes, Names) {
    EXPECT_STREQ("none", appdb::app_query_type_str[0]);
    EXPECT_STREQ("name", appdb::app_query_type_str[1]);
    EXPECT_STREQ("time_range", appdb::app_query_type_str[2]);
    EXPECT_STREQ("backup_id", appdb::app_query_type_str[3]);
    EXPECT_EQ(0u, appdb::APP_QUERY_NONE);
    EXPECT_EQ(1u, appdb::APP_QUERY_NAME);
    EXPECT_EQ(2u, appdb::APP_QUERY_TIME_RANGE);
    EXPECT_EQ(3u, appdb::APP_QUERY_BACKUP_ID);
}

TEST(Query, Defaults) {
    app_query q;
    EXPECT_EQ(0u, q.type);
    EXPECT_EQ("", q.client);
    EXPECT_EQ("", q.policy);
    EXPECT_EQ("", q.file_name);
    EXPECT_EQ(0, q.start_time);
    EXPECT_EQ(0, q.stop_time);
    EXPECT_FALSE(q.wildcard);
    EXPECT_EQ("", q.backup_id);
}

TEST(Query, BuildersMakeTheQueryStrings) {
    EXPECT_EQ("backup_id|c1,p1,B1", appdb::to_query_by_backup_id("c1", "p1", "B1"));
    EXPECT_EQ("backup_id|,,", appdb::to_query_by_backup_id("", "", ""));
    EXPECT_EQ("name|c1,p1,/a/b,c", appdb::to_query_by_file_name("c1", "p1", "/a/b,c"));
    EXPECT_EQ("name|,,", appdb::to_query_by_file_name("", "", ""));
    EXPECT_EQ("time_range|c1,p1,100,200", appdb::to_query_by_time_range("c1", "p1", 100, 200));
    EXPECT_EQ("time_range|,,-5,0", appdb::to_query_by_time_range("", "", -5, 0));
}

TEST(Query, TimeRangeBuilderReadsBackIntoTheSameRange) {
    app_query q;
    ASSERT_TRUE(q.parse_query(appdb::to_query_by_time_range("c1", "p1", 1700000000, 9223372036854775807LL)));
    EXPECT_EQ(static_cast<uint32_t>(appdb::APP_QUERY_TIME_RANGE), q.type);
    EXPECT_EQ("c1", q.client);
    EXPECT_EQ("p1", q.policy);
    EXPECT_EQ(1700000000, q.start_time);
    EXPECT_EQ(9223372036854775807LL, q.stop_time);
}

// ---- backup_id ----

TEST(Query, BackupIdStarIsAWildcard) {
    app_query q;
    ASSERT_TRUE(q.parse_query("backup_id|c1,p1,*"));
    EXPECT_EQ(3u, q.type);
    EXPECT_EQ("c1", q.client);
    EXPECT_EQ("p1", q.policy);
    EXPECT_EQ("*", q.backup_id);
    EXPECT_TRUE(q.wildcard);
    EXPECT_EQ("", q.file_name);
    std::string sql;
    ASSERT_TRUE(q.query_sql(sql));
    EXPECT_EQ(kBackupGlob, sql);
}

TEST(Query, BackupIdExactValue) {
    app_query q;
    ASSERT_TRUE(q.parse_query("backup_id|c1,p1,B1"));
    EXPECT_EQ(3u, q.type);
    EXPECT_EQ("B1", q.backup_id);
    EXPECT_FALSE(q.wildcard);
    std::string sql;
    ASSERT_TRUE(q.query_sql(sql));
    EXPECT_EQ(kBackupExact, sql);
}

TEST(Query, OnlyTheLastStarMakesAWildcard) {
    app_query q;
    ASSERT_TRUE(q.parse_query("backup_id|c1,p1,B*1"));
    EXPECT_EQ("B*1", q.backup_id);
    EXPECT_FALSE(q.wildcard);
    std::string sql;
    ASSERT_TRUE(q.query_sql(sql));
    EXPECT_EQ(kBackupExact, sql);

    app_query p;
    ASSERT_TRUE(p.parse_query("backup_id|c1,p1,srv1_*"));
    EXPECT_TRUE(p.wildcard);
    ASSERT_TRUE(p.query_sql(sql));
    EXPECT_EQ(kBackupGlob, sql);
}

TEST(Query, BackupIdWithOneCommaFails) {
    kt::LogCapture log;
    app_query q;
    EXPECT_FALSE(q.parse_query("backup_id|c1,p1"));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE, "parse_query: failed to parse backup_id|c1,p1"))
        << log.dump();
    EXPECT_EQ(1u, log.records().size());
    // The client was read before the missing "," was noticed; the type is not set.
    EXPECT_EQ("c1", q.client);
    EXPECT_EQ("", q.policy);
    EXPECT_EQ(0u, q.type);
}

TEST(Query, BackupIdWithTrailingCommaIsEmptyAndExact) {
    app_query q;
    ASSERT_TRUE(q.parse_query("backup_id|c1,p1,"));
    EXPECT_EQ(3u, q.type);
    EXPECT_EQ("", q.backup_id);
    EXPECT_FALSE(q.wildcard);
    std::string sql;
    ASSERT_TRUE(q.query_sql(sql));
    EXPECT_EQ(kBackupExact, sql);
}

TEST(Query, EmptyValueClearsAnEarlierWildcard) {
    app_query q;
    ASSERT_TRUE(q.parse_query("backup_id|c1,p1,*"));
    ASSERT_TRUE(q.wildcard);
    ASSERT_TRUE(q.parse_query("backup_id|c1,p1,"));
    EXPECT_FALSE(q.wildcard);
}

TEST(Query, BackupIdRestKeepsCommasAndPipes) {
    app_query q;
    ASSERT_TRUE(q.parse_query("backup_id|c 1,p|1,x,y|z"));
    EXPECT_EQ("c 1", q.client);
    EXPECT_EQ("p|1", q.policy);
    EXPECT_EQ("x,y|z", q.backup_id);
}

TEST(Query, BareNameWithoutValuesFails) {
    kt::LogCapture log;
    app_query q;
    EXPECT_FALSE(q.parse_query("backup_id"));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE, "parse_query: failed to parse backup_id")) << log.dump();
    EXPECT_FALSE(q.parse_query("name|"));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE, "parse_query: failed to parse name|")) << log.dump();
}

// ---- name ----

TEST(Query, NameKeepsCommasInTheFileName) {
    app_query q;
    ASSERT_TRUE(q.parse_query("name|c1,p1,dir,with,commas"));
    EXPECT_EQ(1u, q.type);
    EXPECT_EQ("c1", q.client);
    EXPECT_EQ("p1", q.policy);
    EXPECT_EQ("dir,with,commas", q.file_name);
    EXPECT_EQ("", q.backup_id);
    EXPECT_FALSE(q.wildcard);
    std::string sql;
    ASSERT_TRUE(q.query_sql(sql));
    EXPECT_EQ(kNameExact, sql);
}

TEST(Query, NameWildcardRules) {
    std::string sql;
    app_query q;
    ASSERT_TRUE(q.parse_query("name|c1,p1,/data/*"));
    EXPECT_TRUE(q.wildcard);
    ASSERT_TRUE(q.query_sql(sql));
    EXPECT_EQ(kNameGlob, sql);

    app_query star;
    ASSERT_TRUE(star.parse_query("name|c1,p1,*"));
    EXPECT_TRUE(star.wildcard);

    app_query inner;
    ASSERT_TRUE(inner.parse_query("name|c1,p1,a*c"));
    EXPECT_FALSE(inner.wildcard);
    ASSERT_TRUE(inner.query_sql(sql));
    EXPECT_EQ(kNameExact, sql);

    app_query empty;
    ASSERT_TRUE(empty.parse_query("name|c1,p1,"));
    EXPECT_EQ("", empty.file_name);
    EXPECT_FALSE(empty.wildcard);
    ASSERT_TRUE(empty.query_sql(sql));
    EXPECT_EQ(kNameExact, sql);
}

// ---- time_range ----

TEST(Query, TimeRange) {
    app_query q;
    ASSERT_TRUE(q.parse_query("time_range|c1,p1,100,200"));
    EXPECT_EQ(2u, q.type);
    EXPECT_EQ("c1", q.client);
    EXPECT_EQ("p1", q.policy);
    EXPECT_EQ(100, q.start_time);
    EXPECT_EQ(200, q.stop_time);
    EXPECT_FALSE(q.wildcard);
    std::string sql;
    ASSERT_TRUE(q.query_sql(sql));
    EXPECT_EQ(kRange, sql);
}

TEST(Query, TimeRangeNonNumericStopIsZero) {
    app_query q;
    ASSERT_TRUE(q.parse_query("time_range|c1,p1,100,abc"));
    EXPECT_EQ(100, q.start_time);
    EXPECT_EQ(0, q.stop_time);
    app_query r;
    ASSERT_TRUE(r.parse_query("time_range|c1,p1,-5,7,8"));  // stop is the rest: atoll("7,8")
    EXPECT_EQ(-5, r.start_time);
    EXPECT_EQ(7, r.stop_time);
}

TEST(Query, TimeRangeMissingStopFails) {
    kt::LogCapture log;
    app_query q;
    EXPECT_FALSE(q.parse_query("time_range|c1,p1,100"));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE, "parse_query: failed to parse time_range|c1,p1,100"))
        << log.dump();
    EXPECT_EQ("p1", q.policy);
    EXPECT_EQ(0, q.start_time);
    EXPECT_EQ(0u, q.type);
}

TEST(Query, TimeRangeLeavesWildcardUntouched) {
    app_query q;
    ASSERT_TRUE(q.parse_query("name|c1,p1,f*"));
    ASSERT_TRUE(q.wildcard);
    ASSERT_TRUE(q.parse_query("time_range|c1,p1,1,2"));
    EXPECT_EQ(2u, q.type);
    EXPECT_TRUE(q.wildcard);
    std::string sql;
    ASSERT_TRUE(q.query_sql(sql));
    EXPECT_EQ(kRange, sql);  // the range statement whatever the wildcard

    app_query fresh;
    ASSERT_TRUE(fresh.parse_query("time_range|c1,p1,1,2"));
    EXPECT_FALSE(fresh.wildcard);
}

// ---- unsupported names ----

TEST(Query, UnsupportedNames) {
    kt::LogCapture log;
    app_query q;
    EXPECT_FALSE(q.parse_query("none|x"));
    EXPECT_FALSE(q.parse_query(""));
    EXPECT_FALSE(q.parse_query("NAME|a,b,c"));
    EXPECT_FALSE(q.parse_query("backup_idx|a,b,c"));
    EXPECT_FALSE(q.parse_query("c1,p1,B1"));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE, "parse_query: unsupported query name none"));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE, "parse_query: unsupported query name "));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE, "parse_query: unsupported query name NAME"));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE, "parse_query: unsupported query name backup_idx"));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE, "parse_query: unsupported query name c1,p1,B1"));
    EXPECT_EQ(5u, log.records().size()) << log.dump();
    EXPECT_EQ(0u, q.type);
    EXPECT_EQ("", q.client);
}

// ---- query_sql ----

TEST(QuerySql, EveryTypeAndWildcard) {
    struct Case {
        uint32_t type;
        bool wildcard;
        const char* sql;
    } cases[] = {
        {1, true, kNameGlob},  {1, false, kNameExact},   {2, true, kRange},
        {2, false, kRange},    {3, true, kBackupGlob},   {3, false, kBackupExact},
    };
    for (const auto& c : cases) {
        app_query q;
        q.type = c.type;
        q.wildcard = c.wildcard;
        std::string sql = "unchanged";
        EXPECT_TRUE(q.query_sql(sql));
        EXPECT_EQ(c.sql, sql) << "type " << c.type << " wildcard " << c.wildcard;
    }
}

TEST(QuerySql, OtherTypesFail) {
    for (uint32_t type : {0u, 4u, 99u}) {
        app_query q;
        q.type = type;
        std::string sql = "unchanged";
        EXPECT_FALSE(q.query_sql(sql));
        EXPECT_EQ("unchanged", sql);
    }
}

// ---- trace ----

TEST(Query, TracesTheParsedQuery) {
    kt::LogCapture log;
    kt::TraceSwitch trace(true);
    app_query q;
    ASSERT_TRUE(q.parse_query("time_range|c1,p1,100,200"));
    EXPECT_EQ(1u, log.count(log_level::trace, CR_STATUS_NONE,
                            "parse_query: app query time_range|c1,p1,100,200, client c1, file_name , policy p1, "
                            "start_time 100, stop_time 200, backup id "))
        << log.dump();
    log.clear();
    ASSERT_TRUE(q.parse_query("backup_id|c2,p2,B*"));
    EXPECT_EQ(1u, log.count(log_level::trace, CR_STATUS_NONE,
                            "parse_query: app query backup_id|c2,p2,B*, client c2, file_name , policy p2, "
                            "start_time 100, stop_time 200, backup id B*"))
        << log.dump();
}

TEST(Query, NoTraceWhileTracingIsOff) {
    kt::LogCapture log;
    kt::TraceSwitch trace(false);
    app_query q;
    ASSERT_TRUE(q.parse_query("backup_id|c1,p1,B1"));
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

// ---- catalog entry point ----

TEST(CatalogParseQuery, Success) {
    kt::LogCapture log;
    app_query q;
    std::string sql;
    EXPECT_EQ(0u, catalog_application_base::parse_query("backup_id|c1,p1,*", q, sql));
    EXPECT_EQ(3u, q.type);
    EXPECT_EQ(kBackupGlob, sql);
    EXPECT_EQ(0u, catalog_application_base::parse_query(appdb::to_query_by_file_name("c", "p", "f"), q, sql));
    EXPECT_EQ(kNameExact, sql);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST(CatalogParseQuery, UnparsableQueryIsStatusFour) {
    kt::LogCapture log;
    app_query q;
    std::string sql = "unchanged";
    EXPECT_EQ(4u, catalog_application_base::parse_query("none|x", q, sql));
    EXPECT_EQ("unchanged", sql);
    EXPECT_EQ(1u, log.count(log_level::error, 4, "parse_query: failed parse query str none|x")) << log.dump();
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE, "parse_query: unsupported query name none"));

    log.clear();
    EXPECT_EQ(4u, catalog_application_base::parse_query("backup_id|c1,p1", q, sql));
    EXPECT_EQ(1u, log.count(log_level::error, 4, "parse_query: failed parse query str backup_id|c1,p1")) << log.dump();
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE, "parse_query: failed to parse backup_id|c1,p1"));
    EXPECT_EQ(2u, log.records().size());
}

}  // namespace
