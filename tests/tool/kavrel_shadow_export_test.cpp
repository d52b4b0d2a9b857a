// kavrel-shadow export and verify --export: the built binary exports the
// fixture's pool (versions linked, journals cut at their recorded count,
// private modes, times kept, a manifest that names every file) and checks the
// export on its own; a full disk met half-way (through the fault seam, in
// process) leaves nothing behind and the pool untouched; writers in other
// processes keep working while the export runs and lose no acknowledged row
// in it; and every kind of damage to an export is found.
#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "catalog_shadow/RecoveryPlan.h"
#include "common/fault_countdown.h"
#include "dct/sleep.h"
#include "kavrel_shadow_fixture.h"
#include "tool/shadow_export.h"

namespace {

using namespace kshadowt;

const uid_t kNobody = 65534;

struct stat stat_of(const std::string& path) {
    struct stat st;
    memset(&st, 0, sizeof(st));
    EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
    return st;
}

uint64_t size_of(const std::string& path) { return static_cast<uint64_t>(stat_of(path).st_size); }

uint32_t adler_of(const std::string& bytes) {
    return static_cast<uint32_t>(
        adler32(adler32(0L, Z_NULL, 0), reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

// Every entry below a root whose mode is not exactly 0750 (directories) or
// 0640 (files).
std::vector<std::string>* g_off = nullptr;
int note_off(const char* path, const struct stat* st, int, struct FTW*) {
    const mode_t want = S_ISDIR(st->st_mode) ? 0750 : 0640;
    if ((st->st_mode & 07777) != want) g_off->push_back(path);
    return 0;
}
std::vector<std::string> not_private(const std::string& root) {
    std::vector<std::string> off;
    g_off = &off;
    nftw(root.c_str(), note_off, 16, FTW_PHYS);
    g_off = nullptr;
    return off;
}

// The first `lines` lines of a file.
std::string first_lines(const std::string& text, size_t lines) {
    size_t at = 0;
    for (size_t i = 0; i < lines && at != std::string::npos; ++i) {
        at = text.find('\n', at);
        if (at != std::string::npos) ++at;
    }
    return at == std::string::npos ? text : text.substr(0, at);
}

// The file names of the catalog rows of an SQLite database.
std::set<std::string> file_names(const std::string& db_file) {
    std::set<std::string> names;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(db_file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db, "SELECT file_name FROM catalog", -1, &stmt, nullptr) == SQLITE_OK) {
            while (sqlite3_step(stmt) == SQLITE_ROW) {
                names.insert(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)));
            }
        }
        sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    return names;
}

class KavrelShadowExportTest : public KavrelShadowTest {
protected:
    void SetUp() override {
        KavrelShadowTest::SetUp();
        chmod(out_parent_.path().c_str(), 0755);
        out_ = out_parent_.file("export");
        e1_ = out_ + "/1/c1/p1";
        e2_ = out_ + "/1/c2/p2";
    }

    // The pool as it lies on disk: databases and shadow.
    std::map<std::string, std::string> pool_snapshot() const { return snapshot(pool_.dir().path()); }

    std::unique_ptr<CatalogShadowContext> context() {
        std::unique_ptr<CatalogShadowContext> c(
            new CatalogShadowContext(new ConfigFileShadowProxy(pool_.config(), pool_.root()), new CatalogDirectoryLock()));
        EXPECT_EQ(CR_STATUS_OK, c->init());
        return c;
    }

    // The bytes the export of a database holds.
    uint64_t exported_bytes(const std::string& dir) const {
        return size_of(dir + "/.chksum.appdb") + size_of(dir + "/appdb.1") + size_of(dir + "/appdb.1.journal");
    }

    kt::TempDir out_parent_;
    std::string out_, e1_, e2_;
};

TEST_F(KavrelShadowExportTest, ExportsEveryDatabaseAndTheExportVerifies) {
    const mode_t old_umask = umask(0);
    const auto before = pool_snapshot();
    kt::RunResult r = run({"export", out_});
    umask(old_umask);
    ASSERT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ("", r.err);
    EXPECT_EQ(before, pool_snapshot());

    // The versions are the shadow's own files; journals and checksum files
    // are copies with the source's times.
    EXPECT_EQ(stat_of(s1_ + "/appdb.1").st_ino, stat_of(e1_ + "/appdb.1").st_ino);
    for (const char* name : {"/appdb.1.journal", "/.chksum.appdb"}) {
        EXPECT_NE(stat_of(s1_ + name).st_ino, stat_of(e1_ + name).st_ino) << name;
        EXPECT_EQ(kt::read_file(s1_ + name), kt::read_file(e1_ + name)) << name;
        EXPECT_EQ(stat_of(s1_ + name).st_mtim.tv_sec, stat_of(e1_ + name).st_mtim.tv_sec) << name;
        EXPECT_EQ(stat_of(s1_ + name).st_mtim.tv_nsec, stat_of(e1_ + name).st_mtim.tv_nsec) << name;
    }
    EXPECT_EQ(std::vector<std::string>(), not_private(out_));
    EXPECT_EQ((std::vector<std::string>{"1", "MANIFEST.json"}), kt::list_dir(out_));
    EXPECT_EQ((std::vector<std::string>{".chksum.appdb", "appdb.1", "appdb.1.journal"}), kt::list_dir(e1_));

    const uint64_t b1 = exported_bytes(e1_), b2 = exported_bytes(e2_);
    EXPECT_EQ("appdb " + p1_ + "\n"
              "  export        1/c1/p1: 3 files (1 linked, 2 copied), " + std::to_string(b1) + " bytes, 3 rows\n"
              "  version 1     journal cut at 3 lines\n"
              "\n"
              "appdb " + p2_ + "\n"
              "  export        1/c2/p2: 3 files (1 linked, 2 copied), " + std::to_string(b2) + " bytes, 2 rows\n"
              "  version 1     journal cut at 2 lines\n"
              "\n"
              "export " + out_ + ": 2 databases, 6 files (2 linked, 4 copied), " + std::to_string(b1 + b2) +
                  " bytes, 5 rows\n",
              r.out);

    const kt::Json m = kt::JsonParser::parse(kt::read_file(out_ + "/MANIFEST.json"));
    EXPECT_EQ(1, m["format"].n);
    EXPECT_EQ(pool_.root(), m["pool"].s);
    EXPECT_EQ(pool_.root(), m["database_root"].s);
    EXPECT_EQ(shadow_root_, m["shadow_root"].s);
    EXPECT_LE(m["started"].n, m["finished"].n);
    ASSERT_EQ(2u, m["databases"].items.size());
    const kt::Json& d = m["databases"][0];
    EXPECT_EQ("appdb", d["type"].s);
    EXPECT_EQ(p1_, d["dir"].s);
    EXPECT_EQ("1/c1/p1", d["shadow"].s);
    EXPECT_EQ(p1_ + "/app.db", d["database"].s);
    EXPECT_EQ(1, d["current"].n);
    ASSERT_EQ(1u, d["versions"].items.size());
    EXPECT_EQ(1, d["versions"][0]["version"].n);
    EXPECT_EQ(3, d["versions"][0]["journal_lines"].n);
    ASSERT_EQ(3u, d["files"].items.size());
    for (const kt::Json& f : d["files"].items) {
        const std::string bytes = kt::read_file(e1_ + "/" + f["name"].s);
        EXPECT_EQ(static_cast<double>(bytes.size()), f["size"].n) << f["name"].s;
        EXPECT_EQ(static_cast<double>(adler_of(bytes)), f["adler32"].n) << f["name"].s;
    }
    EXPECT_EQ(3, d["rows"].n);
    EXPECT_EQ(2, m["databases"][1]["rows"].n);
    EXPECT_EQ(2, m["summary"]["databases"].n);
    EXPECT_EQ(5, m["summary"]["rows"].n);
    EXPECT_EQ(6, m["summary"]["files"].n);
    EXPECT_EQ(static_cast<double>(b1 + b2), m["summary"]["bytes"].n);

    // The check of the export reads only, also as a user who may only read.
    const auto exported = snapshot(out_);
    r = run({"verify", "--export", out_});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(exported, snapshot(out_));
    EXPECT_EQ("appdb " + p1_ + "\n"
              "  manifest      3 files, " + std::to_string(b1) + " bytes, 3 rows\n"
              "  checksums     ok\n"
              "  version 1     16384 bytes, age N, checksum ok, journal ok (3 lines), integrity ok\n"
              "  journal       3 lines since version 1, age N\n"
              "  recovery      possible from version 1, 3 journal lines, 3 rows afterwards\n"
              "\n"
              "appdb " + p2_ + "\n"
              "  manifest      3 files, " + std::to_string(b2) + " bytes, 2 rows\n"
              "  checksums     ok\n"
              "  version 1     16384 bytes, age N, checksum ok, journal ok (2 lines), integrity ok\n"
              "  journal       2 lines since version 1, age N\n"
              "  recovery      possible from version 1, 2 journal lines, 2 rows afterwards\n"
              "\n"
              "verify --export: 2 databases, 0 with problems, 0 problems, 2 recoverable\n",
              mask_ages(r.out));

    r = run({"--json", "verify", "--export", out_});
    EXPECT_EQ(0, r.exit_status) << r.err;
    const kt::Json doc = kt::JsonParser::parse(r.out);
    EXPECT_EQ("verify --export", doc["command"].s);
    EXPECT_EQ(e1_, doc["databases"][0]["versions"][0]["path"].s.substr(0, e1_.size()));
    EXPECT_EQ(3, doc["databases"][0]["recovery"]["rows_after"].n);
    EXPECT_EQ(0u, doc["databases"][0]["problems"].items.size());
    EXPECT_EQ(0, doc["summary"]["exit_code"].n);
    EXPECT_EQ(out_, doc["export"]["dir"].s);

    r = run({"--json-lines", "verify", "--export", out_});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(3, std::count(r.out.begin(), r.out.end(), '\n'));

    if (geteuid() == 0) {
        nftw(out_.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return lchown(p, kNobody, kNobody); },
             16, FTW_PHYS);
        kt::RunOptions o;
        o.in_child = drop_privileges;
        o.set_env[appdb::kRegistryEnv] = pool_.registry();
        o.set_env["DCT_LOG"] = "none";
        r = kt::run_program(shadow_binary(), {"verify", "--export", out_}, o);
        EXPECT_EQ(0, r.exit_status) << r.err << r.out;
    }
}

TEST_F(KavrelShadowExportTest, JsonOutputOfTheExport) {
    kt::RunResult r = run({"--json", "export", out_});
    ASSERT_EQ(0, r.exit_status) << r.err;
    const kt::Json doc = kt::JsonParser::parse(r.out);
    EXPECT_EQ("export", doc["command"].s);
    EXPECT_EQ(p1_, doc["export"]["databases"][0]["dir"].s);
    EXPECT_EQ(2, doc["summary"]["databases"].n);
    EXPECT_EQ(2, doc["summary"]["linked"].n);
    EXPECT_EQ(4, doc["summary"]["copied"].n);
    EXPECT_EQ(5, doc["summary"]["rows"].n);
    EXPECT_EQ(0, doc["summary"]["exit_code"].n);
    EXPECT_EQ(kt::JsonParser::parse(kt::read_file(out_ + "/MANIFEST.json")).shape(), doc["export"].shape());
}

TEST_F(KavrelShadowExportTest, AJournalTailBeyondTheRecordedCountIsCutAway) {
    const std::string journal = s1_ + "/appdb.1.journal";
    const std::string recorded = kt::read_file(journal);
    // A writer that died after its line was synced, before the checksum file
    // counted it: the line was never acknowledged.
    kt::write_file(journal, recorded + "DELETE FROM catalog;\n");
    kt::RunResult r = run({"export", out_});
    ASSERT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(recorded, kt::read_file(e1_ + "/appdb.1.journal"));
    EXPECT_EQ(first_lines(recorded + "DELETE FROM catalog;\n", 3), kt::read_file(e1_ + "/appdb.1.journal"));
    EXPECT_EQ(recorded + "DELETE FROM catalog;\n", kt::read_file(journal));  // the shadow is left as it is
    r = run({"verify", "--export", out_});
    EXPECT_EQ(0, r.exit_status) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("3 journal lines, 3 rows afterwards")) << r.out;
}

TEST_F(KavrelShadowExportTest, ANonEmptyDirectoryIsRefused) {
    ASSERT_EQ(0, mkdir(out_.c_str(), 0755));
    kt::write_file(out_ + "/keep", "mine");
    const auto before = pool_snapshot();
    kt::RunResult r = run({"export", out_});
    EXPECT_EQ(3, r.exit_status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("kavrel-shadow: export " + out_ + ": " + out_ + " is not empty (log records went to nowhere (DCT_LOG=none))\n", r.err);
    EXPECT_EQ((std::vector<std::string>{"keep"}), kt::list_dir(out_));
    EXPECT_EQ(before, pool_snapshot());

    r = run({"export"});
    EXPECT_EQ(2, r.exit_status);
    EXPECT_EQ(0u, r.err.find("kavrel-shadow: export needs a directory to export into\n")) << r.err;
}

TEST_F(KavrelShadowExportTest, AUserWhoMayNotReadThePoolExportsNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
    // What the catalog makes is 0750 / 0640: nobody may not read it.
    ASSERT_EQ(0, chown(out_parent_.path().c_str(), kNobody, kNobody));
    const auto before = pool_snapshot();
    kt::RunOptions o;
    o.in_child = drop_privileges;
    o.set_env[appdb::kRegistryEnv] = pool_.registry();
    o.set_env["DCT_LOG"] = "none";
    kt::RunResult r = kt::run_program(shadow_binary(), {"export", out_}, o);
    EXPECT_EQ(4, r.exit_status) << r.err;
    EXPECT_EQ("kavrel-shadow: " + shadow_root_ + "/.catalog_shadow_identity: not readable (permission denied)\n", r.err);
    EXPECT_EQ("", r.out);
    EXPECT_FALSE(kt::file_exists(out_));
    EXPECT_EQ(before, pool_snapshot());
}

TEST_F(KavrelShadowExportTest, AFullDiskAtAnyWriteLeavesNothingAndTheNextExportWorks) {
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
        EXPECT_EQ(before, pool_snapshot()) << at;
    }
    // Per database the checksum file and the journal opened and written and
    // the version linked, then the manifest: each failed in turn.
    EXPECT_EQ(2 * 5 + 2 + 1, at) << "the sweep met every write";
    EXPECT_EQ(0, run({"verify", "--export", out_}).exit_status);

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

}  // namespace
