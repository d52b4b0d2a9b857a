// The export engine in process: one database's shadow exported by the shadow
// library (journals cut at their recorded line counts), the whole pool
// exported and checked, a full disk at any write, and damaged manifests read
// back as statuses with their reasons.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "catalog_shadow/ShadowExport.h"
#include "common/fault_countdown.h"
#include "dct/fs.h"
#include "offsite/shadow_export.h"
#include "tool/kavrel_shadow_fixture.h"

namespace {

using namespace kshadowt;

class OffsiteExportTest : public KavrelShadowTest {
protected:
    void SetUp() override {
        KavrelShadowTest::SetUp();
        out_ = out_parent_.file("export");
    }

    // The pool as it lies on disk: databases and shadow.
    std::map<std::string, std::string> pool_snapshot() const { return snapshot(pool_.dir().path()); }

    std::unique_ptr<CatalogShadowContext> context() {
        std::unique_ptr<CatalogShadowContext> c(
            new CatalogShadowContext(new ConfigFileShadowProxy(pool_.config(), pool_.root()), new CatalogDirectoryLock()));
        EXPECT_EQ(CR_STATUS_OK, c->init());
        return c;
    }

    // verify_export of out_: the problems of every database and of none.
    std::vector<std::string> verify_problems(kshadow::ExportReport* manifest) {
        std::vector<kshadow::DatabaseReport> reports;
        EXPECT_EQ(CR_STATUS_OK, kshadow::verify_export(out_, manifest, &reports)) << manifest->reason;
        std::vector<std::string> problems;
        for (const auto& r : reports) {
            for (const auto& p : r.problems) problems.push_back(p.path + ": " + p.what);
        }
        for (const auto& p : manifest->problems) problems.push_back(p.path + ": " + p.what);
        return problems;
    }

    kt::TempDir out_parent_;
    std::string out_;
};

TEST_F(OffsiteExportTest, TheShadowLibraryExportsOneDatabaseWithItsJournalCutAtTheRecordedLines) {
    const std::string journal = s1_ + "/appdb.1.journal";
    const std::string recorded = kt::read_file(journal);
    // A writer that died after its journal line and before its commit
    // counted leaves a line the checksum file does not count.
    kt::write_file(journal, recorded + "a line no commit counted\n");
    ShadowExport result;
    ASSERT_EQ(CR_STATUS_OK, export_database_shadow(p1_, s1_, "appdb", out_ + "/one", ShadowExportOptions(), &result))
        << result.reason;
    EXPECT_TRUE(result.exported);
    EXPECT_TRUE(result.problems.empty());
    EXPECT_EQ(1u, result.current);
    ASSERT_EQ(1u, result.versions.size());
    EXPECT_EQ(3u, result.versions[0].journal_lines);
    ASSERT_EQ(3u, result.files.size());
    EXPECT_EQ(".chksum.appdb", result.files[0].name);
    EXPECT_EQ("appdb.1", result.files[1].name);
    EXPECT_TRUE(result.files[1].linked);
    EXPECT_EQ("appdb.1.journal", result.files[2].name);
    EXPECT_FALSE(result.files[2].linked);
    EXPECT_EQ(recorded, kt::read_file(out_ + "/one/appdb.1.journal"));
    EXPECT_EQ(recorded.size(), result.files[2].size);
    EXPECT_EQ(kt::read_file(s1_ + "/.chksum.appdb"), kt::read_file(out_ + "/one/.chksum.appdb"));

    // No version in a shadow: nothing exported, and said why.
    ShadowExport none;
    ASSERT_EQ(CR_STATUS_OK,
              export_database_shadow(p1_, out_parent_.file("empty"), "appdb", out_ + "/two", ShadowExportOptions(),
                                     &none));
    EXPECT_FALSE(none.exported);
    ASSERT_EQ(1u, none.problems.size());
    EXPECT_EQ("no version in the shadow, nothing to export", none.problems[0].what);
    EXPECT_FALSE(kt::file_exists(out_ + "/two"));
}

TEST_F(OffsiteExportTest, ExportsThePoolWithItsRowsAndTheExportVerifies) {
    std::unique_ptr<CatalogShadowContext> ctx = context();
    kshadow::ExportReport report;
    ASSERT_EQ(CR_STATUS_OK, kshadow::export_shadow(*ctx, out_, &report)) << report.reason;
    ASSERT_EQ(2u, report.databases.size());
    EXPECT_EQ(p1_, report.databases[0].target.dir);
    EXPECT_EQ("1/c1/p1", report.databases[0].relative);
    EXPECT_TRUE(report.databases[0].rows_known);
    EXPECT_EQ(3u, report.databases[0].rows);
    EXPECT_EQ(2u, report.databases[1].rows);
    EXPECT_TRUE(report.problems.empty());
    kshadow::ExportReport manifest;
    EXPECT_EQ(std::vector<std::string>(), verify_problems(&manifest));
    EXPECT_EQ(pool_.root(), manifest.pool);
    ASSERT_EQ(2u, manifest.databases.size());
    EXPECT_EQ(report.databases[0].files.size(), manifest.databases[0].files.size());
    EXPECT_EQ(3u, manifest.databases[0].rows);
}

TEST_F(OffsiteExportTest, AFullDiskAtAnyWriteLeavesNothingAndTheNextExportWorks) {
    std::unique_ptr<CatalogShadowContext> ctx = context();
    const auto before = pool_snapshot();
    kt::LogCapture log;
    long at = 1;
    for (;; ++at) {
        log.clear();
        kshadow::ExportReport report;
        cr_status_t status;
        {
            kt::FaultCountdown fault(at, ENOSPC, {dct::fault_op::write, dct::fault_op::open_write}, out_);
            status = kshadow::export_shadow(*ctx, out_, &report);
            if (!fault.fired()) {
                ASSERT_EQ(CR_STATUS_OK, status) << report.reason;
                break;
            }
        }
        EXPECT_EQ(CR_STATUS_IO, status) << at;
        EXPECT_EQ(std::string::npos, report.reason.find('\n'));
        EXPECT_NE(std::string::npos, report.reason.find(": No space left on device")) << report.reason;
        EXPECT_EQ(0u, report.reason.find("cannot ")) << report.reason;
        EXPECT_TRUE(report.databases.empty());
        size_t errors = 0;
        for (const kt::LogRecord& rec : log.records()) errors += rec.level == dct::log_level::error ? 1 : 0;
        EXPECT_EQ(1u, errors) << log.dump();
        EXPECT_EQ(1u, log.count_containing("No space left on device")) << log.dump();
        EXPECT_FALSE(kt::file_exists(out_)) << at;
        EXPECT_TRUE(before == pool_snapshot()) << at;
    }
    // Per database the checksum file and the journal opened and written and
    // the version linked, then the manifest: each failed in turn.
    EXPECT_EQ(2 * 5 + 2 + 1, at) << "the sweep met every write";
    kshadow::ExportReport manifest;
    EXPECT_EQ(std::vector<std::string>(), verify_problems(&manifest));

    // An existing empty directory is emptied again, not removed.
    ASSERT_EQ(0, wa_deletetree(out_));
    ASSERT_EQ(0, mkdir(out_.c_str(), 0750));
    kshadow::ExportReport report;
    {
        kt::FaultCountdown fault(3, ENOSPC, {dct::fault_op::write}, out_);
        EXPECT_EQ(CR_STATUS_IO, kshadow::export_shadow(*ctx, out_, &report));
    }
    EXPECT_EQ(std::vector<std::string>(), kt::list_dir(out_));
    EXPECT_TRUE(wa_isdir(out_));
    EXPECT_EQ(CR_STATUS_OK, kshadow::export_shadow(*ctx, out_, &report)) << report.reason;
}


// A manifest that cannot be taken is a status with its reason, logged once:
// nothing is thrown, nothing of it is used.
TEST_F(OffsiteExportTest, ADamagedManifestIsAStatusWithItsReason) {
    kt::TempDir dir;
    const std::string path = dir.file("MANIFEST.json");
    const std::string head = "{\"format\":1,\"pool\":\"p\",\"host\":\"h\",\"database_root\":\"r\",\"shadow_root\":\"s\","
                             "\"started\":1,\"finished\":2,\"databases\":[";
    const std::string db = "{\"type\":\"appdb\",\"dir\":\"/d\",\"shadow\":\"1/c/p\",\"database\":\"/d/app.db\","
                           "\"current\":1,\"versions\":[{\"version\":1,\"journal_lines\":";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"not json at all", "damaged: not JSON"},
        {"{}", "damaged: no \"format\""},
        {"{\"format\":2}", "damaged: unknown format"},
        {"{\"format\":1}", "damaged: no \"pool\""},
        {"{\"format\":1,\"pool\":\"p\",\"host\":\"h\",\"database_root\":\"r\",\"shadow_root\":\"s\","
         "\"started\":1,\"finished\":\"late\"}",
         "damaged: bad \"finished\""},
        {head + "{\"type\":\"nodb\"}]}", "damaged: unknown type nodb"},
        {head + db + "4294967296}],\"files\":[],\"rows\":null}]}", "damaged: bad \"journal_lines\""},
        {head + db + "3}],\"files\":[{\"name\":\"../x\",\"size\":1,\"adler32\":1}],\"rows\":null}]}",
         "damaged: path ../x leads out of the export"},
        {head + db + "3}],\"files\":[{\"name\":\"f\",\"size\":1,\"adler32\":4294967296}],\"rows\":null}]}",
         "damaged: bad \"adler32\""},
        {head + db + "3}],\"files\":[],\"rows\":\"many\"}]}", "damaged: bad \"rows\""},
    };
    for (const auto& c : cases) {
        const std::string& text = c.first;
        kt::write_file(path, text);
        kshadow::ExportReport manifest;
        std::string reason;
        kt::LogCapture log;
        EXPECT_EQ(CR_STATUS_CORRUPT, kshadow::read_manifest(dir.path(), &manifest, &reason)) << text;
        EXPECT_EQ(c.second, reason) << text;
        EXPECT_TRUE(manifest.databases.empty());
        EXPECT_EQ(1u, log.count(dct::log_level::error, CR_STATUS_CORRUPT, "read_manifest: " + path + " " + c.second))
            << log.dump();
    }
    kt::write_file(path, head + db + "3}],\"files\":[{\"name\":\"f\",\"size\":1,\"adler32\":7}],\"rows\":5}]}");
    kshadow::ExportReport manifest;
    std::string reason;
    ASSERT_EQ(CR_STATUS_OK, kshadow::read_manifest(dir.path(), &manifest, &reason)) << reason;
    ASSERT_EQ(1u, manifest.databases.size());
    EXPECT_EQ(dir.path() + "/1/c/p", manifest.databases[0].target.shadow_dir);
    EXPECT_EQ(7u, manifest.databases[0].files[0].adler32);
    EXPECT_EQ(5u, manifest.databases[0].rows);

    ASSERT_EQ(0, unlink(path.c_str()));
    EXPECT_EQ(CR_STATUS_MISSING, kshadow::read_manifest(dir.path(), &manifest, &reason));
}

TEST(OffsiteExportDir, ProbeSaysWhyADirectoryHoldsNoExportToCheck) {
    kt::TempDir dir;
    std::string why;
    EXPECT_EQ(CR_STATUS_OK, kshadow::probe_export_dir(dir.path(), &why));
    EXPECT_EQ(CR_STATUS_MISSING, kshadow::probe_export_dir(dir.file("none"), &why));
    EXPECT_EQ(dir.file("none") + " does not exist", why);
    kt::write_file(dir.file("file"), "x");
    EXPECT_EQ(CR_STATUS_FAILED, kshadow::probe_export_dir(dir.file("file"), &why));
    EXPECT_EQ(dir.file("file") + " is not a directory", why);
}

}  // namespace
