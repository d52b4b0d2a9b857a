// OpList::parse_path and OpList::operator(), in process: which paths are
// catalog directories, what each rejection traces, and what the functor prints.
#include "appdb/catalog_list.h"

#include <memory>
#include <string>

#include "appdb/catalog_application_impl.h"
#include "common/test_util.h"
#include "dct/fs.h"
#include "gtest/gtest.h"
#include "raw_catalog.h"

namespace {

using dct::log_level;

class ParsePathTest : public ::testing::Test {
protected:
    // parse_path with tracing on; returns the application (null when refused).
    std::unique_ptr<appdb::catalog_application> parse(const std::string& path) {
        client_ = "unchanged";
        policy_ = "unchanged";
        kt::TraceSwitch on(true);
        return std::unique_ptr<appdb::catalog_application>(op_.parse_path(path, client_, policy_));
    }

    // The only trace record of the last parse, expected to be `message`.
    void expect_single_trace(const std::string& message) {
        size_t traces = 0;
        for (const kt::LogRecord& r : log_.records()) {
            if (r.level == log_level::trace) ++traces;
        }
        EXPECT_EQ(1u, traces) << log_.dump();
        EXPECT_TRUE(has_trace(message)) << log_.dump();
    }

    bool has_trace(const std::string& message) const {
        for (const kt::LogRecord& r : log_.records()) {
            if (r.level == log_level::trace && r.message == message) return true;
        }
        return false;
    }

    void expect_refused(const std::string& path, const std::string& trace) {
        SCOPED_TRACE(path);
        log_.clear();
        EXPECT_EQ(nullptr, parse(path));
        expect_single_trace(trace);
        EXPECT_EQ(1u, log_.records().size()) << log_.dump();
    }

    OpList op_{"*", false};
    kt::LogCapture log_;
    std::string client_;
    std::string policy_;
};

TEST_F(ParsePathTest, AcceptsCatalogDirectory) {
    auto app = parse("/st/databases/application/7/c1/p1");
    ASSERT_NE(nullptr, app);
    EXPECT_EQ("c1", client_);
    EXPECT_EQ("p1", policy_);
    EXPECT_TRUE(has_trace("client c1 policy p1 dsid 7 database_root /st/databases")) << log_.dump();
    auto* base = dynamic_cast<appdb::catalog_application_base*>(app.get());
    ASSERT_NE(nullptr, base);
    EXPECT_EQ(7u, base->dsid);
    EXPECT_EQ("/st/databases", base->database_root);
    EXPECT_EQ("/st/databases/application/7", base->app_root);
    EXPECT_FALSE(base->shadow_copy_exist("c1", "p1"));
    // Built with an open-database cache of 5.
    EXPECT_TRUE(log_.contains(log_level::info, CR_STATUS_OK, "appdb_cache: app db use cache size 5"))
        << log_.dump();
    EXPECT_EQ(0u, log_.count_containing("out of memory"));
}

TEST_F(ParsePathTest, BuildsPlainApplicationWithItsOwnLock) {
    auto a = parse("/st/databases/application/7/c1/p1");
    auto b = parse("/st/databases/application/7/c1/p2");
    ASSERT_NE(nullptr, a);
    ASSERT_NE(nullptr, b);
    auto* ia = dynamic_cast<appdb::catalog_application_impl*>(a.get());
    auto* ib = dynamic_cast<appdb::catalog_application_impl*>(b.get());
    ASSERT_NE(nullptr, ia);
    ASSERT_NE(nullptr, ib);
    ASSERT_TRUE(ia->dir_lock);
    ASSERT_TRUE(ib->dir_lock);
    EXPECT_NE(&*ia->dir_lock, &*ib->dir_lock);
    EXPECT_NE(nullptr, dynamic_cast<CatalogDirectoryLock*>(&*ia->dir_lock));
}

TEST_F(ParsePathTest, DsidIsLeadingNumberOfItsComponent) {
    auto app = parse("/r/databases/application/12/clientA/pol");
    ASSERT_NE(nullptr, app);
    EXPECT_EQ(12u, dynamic_cast<appdb::catalog_application_base&>(*app).dsid);
    EXPECT_EQ("clientA", client_);
    EXPECT_EQ("pol", policy_);

    auto word = parse("/r/databases/application/abc/c/p");
    ASSERT_NE(nullptr, word);
    EXPECT_EQ(0u, dynamic_cast<appdb::catalog_application_base&>(*word).dsid);
    EXPECT_EQ("/r/databases/application/0", dynamic_cast<appdb::catalog_application_base&>(*word).app_root);

    auto mixed = parse("/r/databases/application/34x/c/p");
    ASSERT_NE(nullptr, mixed);
    EXPECT_EQ(34u, dynamic_cast<appdb::catalog_application_base&>(*mixed).dsid);

    // Kept as unsigned 32-bit.
    auto big = parse("/r/databases/application/4294967297/c/p");
    ASSERT_NE(nullptr, big);
    EXPECT_EQ(1u, dynamic_cast<appdb::catalog_application_base&>(*big).dsid);
}

TEST_F(ParsePathTest, EmptyPolicyAndClientAreAccepted) {
    auto app = parse("/r/databases/application/7/c1/");
    ASSERT_NE(nullptr, app);
    EXPECT_EQ("c1", client_);
    EXPECT_EQ("", policy_);
    EXPECT_TRUE(has_trace("client c1 policy  dsid 7 database_root /r/databases")) << log_.dump();

    auto no_client = parse("/r/databases/application/7//p");
    ASSERT_NE(nullptr, no_client);
    EXPECT_EQ("", client_);
    EXPECT_EQ("p", policy_);
}

TEST_F(ParsePathTest, LastDatabasesComponentCounts) {
    auto app = parse("/a/databases/b/databases/application/3/c/p");
    ASSERT_NE(nullptr, app);
    EXPECT_EQ("/a/databases/b/databases", dynamic_cast<appdb::catalog_application_base&>(*app).database_root);
    EXPECT_EQ("c", client_);
    EXPECT_EQ("p", policy_);

    // A client named "databases" moves the database root below it.
    expect_refused("/x/databases/application/1/databases/p",
                   "database_app_root=/x/databases/application/1/databases/application");
}

TEST_F(ParsePathTest, RefusesPathWithoutDatabasesComponent) {
    expect_refused("/r/db/application/7/c1/p1", "path /r/db/application/7/c1/p1 database root is not correct");
    expect_refused("/r/databases", "path /r/databases database root is not correct");
    expect_refused("databases/application/7/c1/p1",
                   "path databases/application/7/c1/p1 database root is not correct");
    expect_refused("", "path  database root is not correct");
    expect_refused("/r/Databases/application/7/c1/p1",
                   "path /r/Databases/application/7/c1/p1 database root is not correct");
}

TEST_F(ParsePathTest, RefusesPathWithoutApplicationComponent) {
    expect_refused("/r/databases/other/7/c1/p1", "database_app_root=/r/databases/application");
    expect_refused("/r/databases/", "database_app_root=/r/databases/application");
    expect_refused("/r/databases/Application/7/c/p", "database_app_root=/r/databases/application");
}

TEST_F(ParsePathTest, RefusesApplicationRootNotEndingInSlash) {
    // The character shown is the one at the start position.
    expect_refused("/r/databases/applicationX/7/c1/p1",
                   "path /r/databases/applicationX/7/c1/p1 database_app_root /r/databases/application /");
    expect_refused("/r/databases/application_old/7/c1/p1",
                   "path /r/databases/application_old/7/c1/p1 database_app_root /r/databases/application o");
    // Nothing follows the application root: the character is the terminator,
    // which the record shows escaped (a record holds no NUL byte).
    expect_refused("/r/databases/application",
                   std::string("path /r/databases/application database_app_root /r/databases/application \\x00"));
    expect_refused("/r/databases/application/",
                   std::string("path /r/databases/application/ database_app_root /r/databases/application \\x00"));
}

TEST_F(ParsePathTest, RefusesMissingOrExtraLevels) {
    expect_refused("/r/databases/application/7", "path /r/databases/application/7 dsid is not correct");
    expect_refused("/r/databases/application/7/c1", "path /r/databases/application/7/c1 client is not correct");
    expect_refused("/r/databases/application/7/c1/p1/sub",
                   "path /r/databases/application/7/c1/p1/sub policy is not correct");
    expect_refused("/r/databases/application/7/c1/p1/",
                   "path /r/databases/application/7/c1/p1/ policy is not correct");
}

TEST_F(ParsePathTest, RefusalLeavesClientAndPolicyAlone) {
    EXPECT_EQ(nullptr, parse("/r/databases/application/7/c1/p1/x"));
    EXPECT_EQ("unchanged", client_);
    EXPECT_EQ("unchanged", policy_);
}

TEST_F(ParsePathTest, NothingTracedWhileSwitchIsOff) {
    kt::TraceSwitch off(false);
    std::string client;
    std::string policy;
    EXPECT_EQ(nullptr, op_.parse_path("/r/databases/application/7", client, policy));
    EXPECT_EQ(nullptr, op_.parse_path("/nowhere", client, policy));
    std::unique_ptr<appdb::catalog_application> app(
        op_.parse_path("/r/databases/application/7/c/p", client, policy));
    EXPECT_NE(nullptr, app);
    for (const kt::LogRecord& r : log_.records()) EXPECT_NE(log_level::trace, r.level) << r.message;
}

class OpListCallTest : public ::testing::Test {
protected:
    static DirItem dir_item(const std::string& path, bool is_dir) {
        DirItem item;
        item.fullpath = path;
        item.is_dir = is_dir;
        item.depth = 1;
        return item;
    }

    kt::TempDir tmp_;
    kt::LogCapture log_;
};

TEST_F(OpListCallTest, ListsCatalogDirectoryAndReturnsZero) {
    const std::string dir = tmp_.file("databases/application/5/c/p");
    ASSERT_EQ(0, wa_createtree(dir, 0755));
    kt::RawRow r1;
    r1.file_name = "x";
    r1.backup_id = "B1";
    kt::RawRow r2;
    r2.file_name = "y";
    r2.backup_id = "B2";
    ASSERT_EQ("", kt::raw_write_catalog(dir + "/app.db", {r1, r2}));

    ::testing::internal::CaptureStdout();
    const int rc = OpList("B2", false)(dir_item(dir, true));
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(0, rc);
    EXPECT_EQ("[" + dir + "]\n" + kt::raw_line_form(r2, "c", "p") + "\ntotal app catalog 1\n\n", out);
    EXPECT_TRUE(log_.contains(log_level::info, CR_STATUS_OK, "find_catalog: find app catalog backup_id|c,p,B2"))
        << log_.dump();
}

TEST_F(OpListCallTest, IgnoresEntriesThatAreNotDirectories) {
    const std::string dir = tmp_.file("databases/application/5/c/p");
    ASSERT_EQ(0, wa_createtree(dir, 0755));
    kt::TraceSwitch on(true);
    ::testing::internal::CaptureStdout();
    const int rc = OpList("*", false)(dir_item(dir, false));
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, rc);
    // Not even looked at.
    EXPECT_EQ(0u, log_.records().size()) << log_.dump();
}

TEST_F(OpListCallTest, OtherDirectoriesPrintNothingAndReturnZero) {
    ::testing::internal::CaptureStdout();
    const int rc = OpList("*", true)(dir_item(tmp_.file("databases/application/5/c"), true));
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, rc);
}

TEST_F(OpListCallTest, FailedQueryPrintsOnlyThePath) {
    const std::string dir = tmp_.file("databases/application/5/c/p");
    ASSERT_EQ(0, wa_createtree(dir, 0755));
    kt::RawRow r;
    r.file_name = "x";
    ASSERT_EQ("", kt::raw_write_catalog(dir + "/app.db", {r}));
    ASSERT_EQ("", kt::raw_exec(dir + "/app.db", "UPDATE catalog SET crc = crc - 1"));

    ::testing::internal::CaptureStdout();
    const int rc = OpList("*", false)(dir_item(dir, true));
    EXPECT_EQ("[" + dir + "]\n", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, rc);
    EXPECT_EQ(1u, log_.count(log_level::error, CR_STATUS_NONE, "operator(): find catalog failed by backup_id|c,p,*"))
        << log_.dump();
}

}  // namespace
