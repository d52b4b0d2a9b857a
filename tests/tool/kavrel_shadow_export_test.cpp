// kavrel-shadow export and verify --export: the built binary exports the
// fixture's pool (versions linked, journals cut at their recorded count,
// private modes, times kept, a manifest that names every file) and checks the
// export on its own (a full disk met half-way is in tests/offsite); writers in other
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
#include "dct/sleep.h"
#include "kavrel_shadow_fixture.h"

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
        const int rc = sqlite3_prepare_v2(db, "SELECT name FROM catalog", -1, &stmt, nullptr);
        EXPECT_EQ(SQLITE_OK, rc) << sqlite3_errmsg(db);
        if (rc == SQLITE_OK) {
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

    // Runs the command as nobody (the test runs as root).
    kt::RunResult run_as_nobody(const std::vector<std::string>& args) {
        kt::RunOptions o;
        o.in_child = drop_privileges;
        return run(args, o);
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
    EXPECT_TRUE(before == pool_snapshot());

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
    EXPECT_TRUE(exported == snapshot(out_));
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
        r = run_as_nobody({"verify", "--export", out_});
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

    r = run({"--json-lines", "export", out_ + "2"});
    ASSERT_EQ(0, r.exit_status) << r.err;
    std::istringstream lines(r.out);
    std::vector<std::string> records;
    for (std::string line; std::getline(lines, line);) records.push_back(line);
    ASSERT_EQ(3u, records.size()) << r.out;
    EXPECT_EQ(p2_, kt::JsonParser::parse(records[1])["dir"].s);
    EXPECT_EQ(5, kt::JsonParser::parse(records[2])["summary"]["rows"].n);
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
    EXPECT_TRUE(before == pool_snapshot());

}

TEST_F(KavrelShadowExportTest, AUserWhoMayNotReadThePoolExportsNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
    // What the catalog makes is 0750 / 0640: nobody may not read it.
    ASSERT_EQ(0, chown(out_parent_.path().c_str(), kNobody, kNobody));
    const auto before = pool_snapshot();
    kt::RunResult r = run_as_nobody({"export", out_});
    EXPECT_EQ(4, r.exit_status) << r.err;
    EXPECT_EQ("kavrel-shadow: " + shadow_root_ + "/.catalog_shadow_identity: not readable (permission denied)\n", r.err);
    EXPECT_EQ("", r.out);
    EXPECT_FALSE(kt::file_exists(out_));
    EXPECT_TRUE(before == pool_snapshot());
}

TEST_F(KavrelShadowExportTest, ADirectoryTheUserMayNotReadStopsTheExport) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
    ASSERT_EQ(0, chown(out_parent_.path().c_str(), kNobody, kNobody));
    nftw(pool_.dir().path().c_str(), make_read_only, 16, FTW_PHYS);
    // Databases may lie unseen below it: an export without them would not
    // be the pool's.
    ASSERT_EQ(0, chmod(s1_.c_str(), 0700));
    const auto before = pool_snapshot();
    kt::RunResult r = run_as_nobody({"export", out_});
    EXPECT_EQ(4, r.exit_status) << r.err;
    EXPECT_EQ("kavrel-shadow: export " + out_ + ": " + s1_ + ": not readable (permission denied)\n", r.err);
    EXPECT_EQ("", r.out);
    EXPECT_FALSE(kt::file_exists(out_));
    EXPECT_TRUE(before == pool_snapshot());

    // With the pool readable, nobody exports it: versions it does not own
    // are copied where the system refuses the link.
    ASSERT_EQ(0, chmod(s1_.c_str(), 0555));
    const auto readable = pool_snapshot();
    r = run_as_nobody({"export", out_});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_TRUE(readable == pool_snapshot());
    EXPECT_NE(stat_of(s1_ + "/appdb.1").st_ino, stat_of(e1_ + "/appdb.1").st_ino);
    EXPECT_EQ(kt::read_file(s1_ + "/appdb.1"), kt::read_file(e1_ + "/appdb.1"));
    EXPECT_EQ(0, run_as_nobody({"verify", "--export", out_}).exit_status);
    nftw(pool_.dir().path().c_str(), make_writable, 16, FTW_PHYS | FTW_DEPTH);
}

TEST_F(KavrelShadowExportTest, ADatabaseWithADamagedChecksumFileIsAProblemTheOthersAreExported) {
    const std::string chksum = s1_ + "/.chksum.appdb";
    kt::write_file(chksum, std::regex_replace(kt::read_file(chksum), std::regex("count=1"), "count=2"));
    // A catalog the shadow has not seen yet: nothing of it to export.
    const std::string p3 = pool_.catalog_dir(1, "c3", "p3");
    ASSERT_EQ(0, system(("mkdir -p " + p3 + " && cp " + p2_ + "/app.db " + p3 + "/").c_str()));
    kt::RunResult r = run({"export", out_});
    EXPECT_EQ(1, r.exit_status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("  problem       " + chksum + ": checksum file damaged (")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("), not exported\n  problem       " + shadow_root_ +
                                            "/1/c3/p3: no version in the shadow, nothing to export\n\nexport " + out_ +
                                            ": 1 database, 3 files"))
        << r.out;
    EXPECT_NE(std::string::npos, r.out.find(", 2 problems\n")) << r.out;
    EXPECT_FALSE(kt::file_exists(e1_));
    r = run({"verify", "--export", out_});
    EXPECT_EQ(0, r.exit_status) << r.out;
}

TEST_F(KavrelShadowExportTest, ADirectoryInsideThePoolIsRefused) {
    const auto before = pool_snapshot();
    for (const std::string& dir : {shadow_root_ + "/export", p1_ + "/export", shadow_root_ + "/../catalogshadow/x"}) {
        const kt::RunResult r = run({"export", dir});
        EXPECT_EQ(3, r.exit_status) << dir;
        EXPECT_EQ("kavrel-shadow: export " + dir + ": " + dir +
                      " lies inside the pool's database or shadow tree (log records went to nowhere (DCT_LOG=none))\n",
                  r.err);
    }
    EXPECT_TRUE(before == pool_snapshot());
}

TEST_F(KavrelShadowExportTest, UsageErrors) {
    const kt::RunResult r = run({"export"});
    EXPECT_EQ(0u, r.err.find("kavrel-shadow: export needs a directory to export into\n")) << r.err;
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"export"}, {"export", "--all"}, {"verify", "--export"},
                                               {"status", "--export", "/tmp"}, {"verify", "--export", "/tmp", p1_}}) {
        const kt::RunResult r = run(args);
        EXPECT_EQ(2, r.exit_status) << args.back();
        EXPECT_NE(std::string::npos, r.err.find("Usage:")) << r.err;
    }
}

// Writer `id` of the writers test, in its own process: inserts rows into the
// catalog of a client and policy through a shadow-protected catalog, deletes
// every third row it inserted, and takes a version now and then, until
// `stop_file` appears. After each acknowledged operation it appends "+NAME"
// or "-NAME" to `ack_file`. 0, or the step that failed.
int run_writer(const kt::TestPool& pool, int id, const std::string& client, const std::string& policy,
               const std::string& ack_file, const std::string& stop_file) {
    dct::set_log_sink([](dct::log_level, cr_status_t, const std::string&) {});
    const int ack = open(ack_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (ack < 0) return 80;
    CatalogShadowContext context(new ConfigFileShadowProxy(pool.config(), pool.root()), new CatalogDirectoryLock());
    if (context.init() != CR_STATUS_OK) return 81;
    std::unique_ptr<appdb::catalog_application> catalog(appdb::catalog_application_factory::create_catalog(
        1, pool.root() + "/databases", appdb::APP_D_CATALOG_SHADOW, &context, 5));
    if (!catalog) return 82;
    const int kMaxOps = 3000;  // a bound, should the stop file never come
    for (int i = 0; i < kMaxOps && access(stop_file.c_str(), F_OK) != 0; ++i) {
        const appdb::app_catalog_item it = item(client, policy, (id + 1) * 100000 + i);
        if (catalog->update_catalog("svc", appdb::APP_ROLE_APP, it.to_string()) != CR_STATUS_OK) return 70;
        std::string line = "+" + it.file_name + "\n";
        if (i % 3 == 2) {
            const std::string gone = item(client, policy, (id + 1) * 100000 + i - 1).file_name;
            if (catalog->del_catalog("svc", appdb::APP_ROLE_APP, "name|" + client + "," + policy + "," + gone) !=
                CR_STATUS_OK) {
                return 71;
            }
            line += "-" + gone + "\n";
        }
        if (i % 25 == 24 && context.backup(pool.catalog_dir(1, client, policy), "appdb") != CR_STATUS_OK) return 72;
        if (write(ack, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return 73;
    }
    close(ack);
    return 0;
}

// Names acknowledged as inserted (+) and as deleted (-) in an ack file.
struct Acks {
    std::set<std::string> inserted, deleted;
};
Acks read_acks(const std::string& path) {
    Acks acks;
    std::istringstream in(kt::read_file(path));
    std::string line;
    while (std::getline(in, line)) {
        if (line.size() > 1) (line[0] == '+' ? acks.inserted : acks.deleted).insert(line.substr(1));
    }
    return acks;
}

// The rows a recovery from the export's directory `dir` gives: the library's
// own plan and replay, on a copy.
std::set<std::string> recovered_rows(const std::string& dir) {
    kt::TempDir scratch;
    const std::string copy = scratch.file("shadow");
    EXPECT_EQ(0, mkdir(copy.c_str(), 0750));
    for (const std::string& name : kt::list_dir(dir)) kt::write_file(copy + "/" + name, kt::read_file(dir + "/" + name));
    uint64_t current = 0;
    ShadowVersionList list;
    std::string reason;
    EXPECT_EQ(CR_STATUS_OK, PODBShadow::read_chksum(copy, "appdb", &current, &list, &reason)) << reason;
    RepairingJudge judge;
    const ::RecoveryPlan plan = plan_recovery(list, scratch.file("app.db"), judge);
    EXPECT_TRUE(plan.possible()) << plan.reason;
    PODBShadow shadow(nullptr, scratch.path(), copy);
    EXPECT_EQ(CR_STATUS_OK, shadow.carry_out(plan, scratch.file("app.db")));
    return file_names(scratch.file("app.db"));
}

TEST_F(KavrelShadowExportTest, WritersInOtherProcessesKeepWorkingAndLoseNothingAcknowledged) {
    const std::vector<std::pair<std::string, std::string>> writers{{"c1", "p1"}, {"c2", "p2"}, {"c1", "p1"}};
    const std::string stop = out_parent_.file("stop");
    auto ack_file = [this](size_t id) { return out_parent_.file("ack." + std::to_string(id)); };
    std::vector<pid_t> pids;
    for (size_t id = 0; id < writers.size(); ++id) {
        const pid_t pid = fork();
        ASSERT_LE(0, pid);
        if (pid == 0) {
            _exit(run_writer(pool_, static_cast<int>(id), writers[id].first, writers[id].second, ack_file(id), stop));
        }
        pids.push_back(pid);
    }
    // Every writer is under way before the export starts.
    for (size_t id = 0; id < writers.size(); ++id) {
        while (read_acks(ack_file(id)).inserted.size() < 10 && waitpid(pids[id], nullptr, WNOHANG) == 0) {
            usleep(2000);
        }
    }
    std::vector<Acks> before;
    for (size_t id = 0; id < writers.size(); ++id) before.push_back(read_acks(ack_file(id)));
    const kt::RunResult r = run({"export", out_});
    kt::write_file(stop, "");
    for (pid_t pid : pids) {
        int status = -1;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    ASSERT_EQ(0, r.exit_status) << r.err << r.out;

    const kt::RunResult v = run({"--json", "verify", "--export", out_});
    EXPECT_EQ(0, v.exit_status) << v.out;
    const kt::Json doc = kt::JsonParser::parse(v.out);
    const kt::Json m = kt::JsonParser::parse(kt::read_file(out_ + "/MANIFEST.json"));
    ASSERT_EQ(2u, doc["databases"].items.size());
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(m["databases"][i]["rows"].n, doc["databases"][i]["recovery"]["rows_after"].n) << i;
    }

    for (size_t db = 0; db < 2; ++db) {
        const std::string dir = db == 0 ? e1_ : e2_;
        const std::set<std::string> rows = recovered_rows(dir);
        EXPECT_EQ(m["databases"][db]["rows"].n, static_cast<double>(rows.size()));
        for (size_t id = 0; id < writers.size(); ++id) {
            if ((writers[id].first == "c1") != (db == 0)) continue;
            const Acks after = read_acks(ack_file(id));
            size_t lost = 0, kept = 0;
            for (const std::string& name : before[id].inserted) {
                // Rows deleted after the export began may or may not be gone.
                if (after.deleted.count(name) == 0 && rows.count(name) == 0 && ++lost <= 5) {
                    ADD_FAILURE() << "acknowledged row missing from the export: " << name;
                }
            }
            for (const std::string& name : before[id].deleted) kept += rows.count(name);
            EXPECT_EQ(0u, lost) << id;
            EXPECT_EQ(0u, kept) << "rows deleted before the export are back, writer " << id;
        }
    }
}

class KavrelShadowExportDamageTest : public KavrelShadowExportTest {
protected:
    void SetUp() override {
        KavrelShadowExportTest::SetUp();
        if (HasFatalFailure()) return;
        const kt::RunResult r = run({"export", out_});
        ASSERT_EQ(0, r.exit_status) << r.err;
    }

    // Runs verify --export: exit 1 and every line of `lines` in the text.
    void expect_found(const std::vector<std::string>& lines) {
        const kt::RunResult r = run({"verify", "--export", out_});
        EXPECT_EQ(1, r.exit_status) << r.out << r.err;
        for (const std::string& line : lines) EXPECT_NE(std::string::npos, r.out.find(line + "\n")) << line << "\n" << r.out;
    }

    // Rewrites a file of the export in place of the shadow's linked one.
    void replace(const std::string& path, const std::string& bytes) {
        ASSERT_EQ(0, unlink(path.c_str()));
        kt::write_file(path, bytes);
    }
};

TEST_F(KavrelShadowExportDamageTest, ATamperedVersionByte) {
    std::string bytes = kt::read_file(e1_ + "/appdb.1");
    bytes[bytes.size() - 100] ^= 0x55;
    replace(e1_ + "/appdb.1", bytes);
    expect_found({"  problem       " + e1_ + "/appdb.1: checksum does not match the manifest",
                  "  problem       " + e1_ + "/appdb.1: version checksum mismatch",
                  "  recovery      impossible: no usable shadow version",
                  "verify --export: 2 databases, 1 with problems, 4 problems, 1 recoverable"});
    EXPECT_NE(kt::read_file(s1_ + "/appdb.1"), bytes);
}

TEST_F(KavrelShadowExportDamageTest, ATruncatedJournal) {
    const std::string journal = e1_ + "/appdb.1.journal";
    const std::string bytes = kt::read_file(journal);
    replace(journal, bytes.substr(0, bytes.size() - 10));
    expect_found({"  problem       " + journal + ": " + std::to_string(bytes.size() - 10) + " bytes, the manifest says " +
                      std::to_string(bytes.size()),
                  "  problem       " + journal + ": journal does not match the checksum file (3 lines, 3 recorded)"});
}

TEST_F(KavrelShadowExportDamageTest, AMissingFile) {
    ASSERT_EQ(0, unlink((e2_ + "/.chksum.appdb").c_str()));
    expect_found({"  problem       " + e2_ + "/.chksum.appdb: missing from the export"});
}

TEST_F(KavrelShadowExportDamageTest, ExtraFiles) {
    kt::write_file(e1_ + "/appdb.7", "stray");
    kt::write_file(out_ + "/notes", "stray");
    expect_found({"  problem       " + e1_ + "/appdb.7: not named in the manifest",
                  "  problem       " + out_ + "/notes: not named in the manifest",
                  "verify --export: 2 databases, 1 with problems, 2 problems, 2 recoverable"});
}

TEST_F(KavrelShadowExportDamageTest, AManifestRowCountThatDoesNotMatch) {
    std::string text = kt::read_file(out_ + "/MANIFEST.json");
    const size_t at = text.find("\"rows\":3");
    ASSERT_NE(std::string::npos, at);
    text.replace(at, 8, "\"rows\":4");
    kt::write_file(out_ + "/MANIFEST.json", text);
    expect_found({"  problem       " + e1_ + ": the recovery gives 3 rows, the manifest says 4"});
}

TEST_F(KavrelShadowExportDamageTest, AMissingOrDamagedManifest) {
    const std::string manifest = out_ + "/MANIFEST.json";
    const std::string text = kt::read_file(manifest);
    ASSERT_EQ(0, unlink(manifest.c_str()));
    kt::RunResult r = run({"verify", "--export", out_});
    EXPECT_EQ(1, r.exit_status);
    EXPECT_EQ("  problem       " + manifest + ": missing: not an export, or an unfinished one\n\n"
              "verify --export: 0 databases, 0 with problems, 1 problem, 0 recoverable\n",
              r.out);
    kt::write_file(manifest, text.substr(0, text.size() / 2));
    r = run({"verify", "--export", out_});
    EXPECT_EQ(1, r.exit_status);
    EXPECT_NE(std::string::npos, r.out.find("  problem       " + manifest + ": damaged: not JSON\n")) << r.out;
    kt::write_file(manifest, "{\"format\":1}");
    r = run({"--json", "verify", "--export", out_});
    EXPECT_EQ(1, r.exit_status);
    EXPECT_EQ("damaged: no \"pool\"", kt::JsonParser::parse(r.out)["export"]["problems"][0]["problem"].s) << r.out;
    // A manifest may not lead the check out of the export.
    kt::write_file(manifest, std::regex_replace(text, std::regex("\"shadow\":\"1/c1/p1\""), "\"shadow\":\"../x\""));
    r = run({"verify", "--export", out_});
    EXPECT_EQ(1, r.exit_status);
    EXPECT_NE(std::string::npos, r.out.find(": damaged: path ../x leads out of the export\n")) << r.out;

    r = run({"verify", "--export", out_ + "/none"});
    EXPECT_EQ(3, r.exit_status);
    EXPECT_EQ("kavrel-shadow: " + out_ + "/none does not exist (log records went to nowhere (DCT_LOG=none))\n", r.err);
}

}  // namespace
