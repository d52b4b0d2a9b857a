// kavrel-shadow and the catalog library where permissions are the question:
// a file or directory that is there but may not be read is reported as
// exactly that (never missing, never damaged, never something to rebuild);
// what the shadow makes is private whatever the umask; init makes a shadow
// root belong to the pool; and the recovery plan shown by a dry run is the
// one the recovery then carries out.
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/app_query.h"
#include "kavrel_shadow_fixture.h"

namespace {

using namespace kshadowt;

const uid_t kNobody = 65534;

// Every entry below `root` within 0750 (directories) or 0640 (files).
std::vector<std::string>* g_wide = nullptr;
int note_wide(const char* path, const struct stat* st, int, struct FTW*) {
    const mode_t limit = S_ISDIR(st->st_mode) ? 0750 : 0640;
    if ((st->st_mode & 07777 & ~limit) != 0) g_wide->push_back(path);
    return 0;
}
std::vector<std::string> wider_than_private(const std::string& root) {
    std::vector<std::string> wide;
    g_wide = &wide;
    nftw(root.c_str(), note_wide, 16, FTW_PHYS);
    g_wide = nullptr;
    return wide;
}

int chown_to_nobody(const char* path, const struct stat*, int, struct FTW*) {
    return lchown(path, kNobody, kNobody) == 0 ? 0 : 1;
}

ino_t inode_of(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

size_t count_of(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

class KavrelShadowAccessTest : public KavrelShadowTest {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
        KavrelShadowTest::SetUp();
    }

    kt::RunOptions as_nobody() const {
        kt::RunOptions o;
        o.in_child = drop_privileges;
        return o;
    }
};

// The pool as the library makes it: live and shadow directories 0750. A user
// outside the owner's group sees nothing below them, and is told so.
TEST_F(KavrelShadowAccessTest, PrivatePoolIsReportedNotReadableNeverMissing) {
    // Not even the shadow root's identity file: that is no lost root.
    const std::string identity = shadow_root_ + "/" + CatalogShadowIdentity::the_file_name();
    for (const char* command : {"status", "verify"}) {
        kt::RunResult r = run({command}, as_nobody());
        ASSERT_LT(r.exit_status, 120) << "could not drop privileges";
        EXPECT_EQ(4, r.exit_status) << command << "\n" << r.out << r.err;
        EXPECT_EQ("", r.out);
        EXPECT_EQ("kavrel-shadow: " + identity + ": not readable (permission denied)\n", r.err);
    }

    // The shadow root open to all, the database directories still private.
    ASSERT_EQ(0, chmod(storage_.c_str(), 0755));
    ASSERT_EQ(0, chmod(shadow_root_.c_str(), 0755));
    ASSERT_EQ(0, chmod(identity.c_str(), 0644));
    for (const char* command : {"status", "verify"}) {
        kt::RunResult r = run({command}, as_nobody());
        EXPECT_EQ(4, r.exit_status) << command << "\n" << r.out << r.err;
        EXPECT_EQ("  problem       " + pool_.root() + "/databases/application: not readable (permission denied)\n"
                  "  problem       " + pool_.root() + "/databases/po: not readable (permission denied)\n"
                  "  problem       " + shadow_root_ + "/1: not readable (permission denied)\n"
                  "\n" +
                      command + ": 0 databases, 0 with problems, 3 problems, 0 recoverable, 3 not readable\n",
                  r.out);
    }
    kt::RunResult r = run({"--json", "status"}, as_nobody());
    EXPECT_EQ(4, r.exit_status);
    const kt::Json doc = kt::JsonParser::parse(r.out);
    EXPECT_EQ(3, doc["summary"]["not_readable"].n);
    EXPECT_EQ(4, doc["summary"]["exit_code"].n);
    ASSERT_EQ(3u, doc["summary"]["unreadable"].items.size());
    EXPECT_EQ(pool_.root() + "/databases/application", doc["summary"]["unreadable"][0].s);

    // One database named: its file and its shadow are not readable, which is
    // not a loss and nothing to recover.
    r = run({"recover", "--dry-run", p1_}, as_nobody());
    EXPECT_EQ(4, r.exit_status) << r.out << r.err;
    EXPECT_EQ(live_block(p1_, "not readable (permission denied)") +
                  "  checksums     not readable (permission denied)\n"
                  "  plan          impossible: not readable (permission denied)\n"
                  "  problem       " + p1_ + "/app.db: not readable (permission denied)\n"
                  "  problem       " + s1_ + "/.chksum.appdb: not readable (permission denied)\n"
                  "\n"
                  "recover --dry-run: 1 database, 1 with problems, 2 problems, 0 recoverable, 2 not readable\n",
              r.out);
    // The same pool, read by its owner, is sound.
    EXPECT_EQ(0, run({"verify"}).exit_status);
}

// One database file made unreadable among readable ones.
TEST_F(KavrelShadowAccessTest, UnreadableFileIsNotTakenForDamage) {
    nftw(pool_.dir().path().c_str(), make_read_only, 16, FTW_PHYS);
    const std::string db = p1_ + "/app.db";
    ASSERT_EQ(0, chmod(db.c_str(), 0));
    const auto before = snapshot(pool_.dir().path());

    kt::RunResult r = run({"status"}, as_nobody());
    EXPECT_EQ(4, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find(live_block(p1_, "not readable (permission denied)"))) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("  problem       " + db + ": not readable (permission denied)\n"));
    EXPECT_NE(std::string::npos,
              r.out.find("status: 2 databases, 1 with problems, 1 problem, 2 recoverable, 1 not readable\n"))
        << r.out;

    r = run({"verify"}, as_nobody());
    EXPECT_EQ(4, r.exit_status) << r.out << r.err;
    EXPECT_EQ(std::string::npos, r.out.find("integrity bad")) << r.out;
    EXPECT_EQ(std::string::npos, r.out.find("fails the SQLite integrity check")) << r.out;
    EXPECT_EQ(std::string::npos, r.out.find("could not be read")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("verify: 2 databases, 1 with problems, 1 problem, 2 recoverable, "
                                            "1 not readable\n"))
        << r.out;

    r = run({"--json", "verify", p1_}, as_nobody());
    EXPECT_EQ(4, r.exit_status);
    const kt::Json live = kt::JsonParser::parse(r.out)["databases"][0]["live"];
    EXPECT_FALSE(live["exists"].b);
    EXPECT_FALSE(live["readable"].b);
    EXPECT_EQ("unknown", live["integrity"].s);
    const kt::Json problem = kt::JsonParser::parse(r.out)["databases"][0]["problems"][0];
    EXPECT_EQ("not readable (permission denied)", problem["problem"].s);
    EXPECT_TRUE(problem["not_readable"].b);

    // Something else wrong as well: that is what the exit status says.
    std::string version = kt::read_file(s1_ + "/appdb.1");
    EXPECT_EQ(before, snapshot(pool_.dir().path()));
    nftw(pool_.dir().path().c_str(), make_writable, 16, FTW_PHYS | FTW_DEPTH);
    version[version.size() / 2] ^= 0x5a;
    kt::write_file(s1_ + "/appdb.1", version);
    ASSERT_EQ(0, chmod(db.c_str(), 0));
    nftw(pool_.dir().path().c_str(), make_read_only, 16, FTW_PHYS);
    ASSERT_EQ(0, chmod(db.c_str(), 0));
    r = run({"status"}, as_nobody());
    EXPECT_EQ(1, r.exit_status) << r.out;

    // Root reads the file: it verifies clean but for the damaged version.
    nftw(pool_.dir().path().c_str(), make_writable, 16, FTW_PHYS | FTW_DEPTH);
    ASSERT_EQ(0, chmod(db.c_str(), 0));
    r = run({"verify", p1_});
    EXPECT_NE(std::string::npos, r.out.find(live_block(p1_, "present, 16384 bytes, 3 rows, integrity ok, "
                                                            "row checksums ok")))
        << r.out;
    ASSERT_EQ(0, chmod(db.c_str(), 0644));
}

// A service running as a user that may not read one database but may write
// its directory: the failed open is not taken for damage, nothing is rebuilt
// over the file, and the operation returns its status with one record why.
TEST_F(KavrelShadowAccessTest, ShadowKindNeverRecoversForLackOfPermission) {
    ASSERT_EQ(0, nftw(pool_.dir().path().c_str(), chown_to_nobody, 16, FTW_PHYS));
    const std::string db = p1_ + "/app.db";
    ASSERT_EQ(0, chown(db.c_str(), 0, 0));
    ASSERT_EQ(0, chmod(db.c_str(), 0600));
    const ino_t inode = inode_of(db);
    const std::string bytes = kt::read_file(db);

    int report[2];
    ASSERT_EQ(0, pipe(report));
    fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(report[0]);
        if (drop_privileges() != 0) _exit(120);
        std::string records;
        dct::set_log_sink([&records](dct::log_level level, cr_status_t status, const std::string& message) {
            records += std::string(dct::log_level_name(level)) + " [" + std::to_string(status) + "] " + message + "\n";
        });
        CatalogShadowContext context(new ConfigFileShadowProxy(pool_.config(), pool_.root()),
                                     new CatalogDirectoryLock());
        if (context.init() != CR_STATUS_OK) _exit(121);
        std::unique_ptr<appdb::catalog_application> catalog(appdb::catalog_application_factory::create_catalog(
            1, pool_.root() + "/databases", appdb::APP_D_CATALOG_SHADOW, &context, 5));
        std::vector<appdb::app_catalog_item> found;
        const cr_status_t find = catalog->find_catalog("svc", appdb::APP_ROLE_APP,
                                                       appdb::to_query_by_backup_id("c1", "p1", "*"), found);
        const cr_status_t insert =
            catalog->update_catalog("svc", appdb::APP_ROLE_APP, item("c1", "p1", 50).to_string());
        const std::string out = std::to_string(find) + " " + std::to_string(insert) + "\n" + records;
        if (write(report[1], out.data(), out.size()) != static_cast<ssize_t>(out.size())) _exit(122);
        _exit(0);
    }
    close(report[1]);
    std::string out;
    char buf[4096];
    for (ssize_t n; (n = read(report[0], buf, sizeof(buf))) > 0;) out.append(buf, static_cast<size_t>(n));
    close(report[0]);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(0, WEXITSTATUS(status)) << out;

    const std::string why = "ERROR [106] need_recover_after_db_operation: app db " + db +
                            " is not readable (permission denied)\n";
    EXPECT_EQ("21 21\n", out.substr(0, out.find('\n') + 1)) << out;
    EXPECT_EQ(2u, count_of(out, why)) << out;  // once per operation
    EXPECT_EQ(0u, count_of(out, "to do recover from shadow")) << out;
    EXPECT_EQ(0u, count_of(out, "Recover database")) << out;
    // The file is the one it was, and nothing of it was set aside.
    EXPECT_EQ(inode, inode_of(db));
    EXPECT_EQ(bytes, kt::read_file(db));
    for (const std::string& name : kt::list_dir(s1_)) EXPECT_EQ(std::string::npos, name.find("#corrupt_")) << name;
}

// What the shadow and the commands make is private whatever the umask of the
// operator who runs them.
TEST_F(KavrelShadowAccessTest, CommandsRunAsRootLeaveThePoolPrivate) {
    kt::RunOptions wide;
    wide.in_child = [] {
        umask(0);
        return 0;
    };
    kt::RunResult r = run({"backup", "--all"}, wide);
    EXPECT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_EQ(std::vector<std::string>(), wider_than_private(shadow_root_));
    kt::write_file(p1_ + "/app.db", "damaged beyond use");
    r = run({"recover", p1_}, wide);
    EXPECT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_EQ(std::vector<std::string>(), wider_than_private(shadow_root_));
    EXPECT_EQ(std::vector<std::string>(), wider_than_private(p1_));
    ASSERT_EQ(0, unlink((p1_ + "/app.db").c_str()));
    ASSERT_EQ(0, rmdir(p1_.c_str()));
    r = run({"recover", "--missing"}, wide);
    EXPECT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_EQ(std::vector<std::string>(), wider_than_private(p1_));
    EXPECT_EQ(std::vector<std::string>(), wider_than_private(shadow_root_));
}

// A fresh pool: its configuration names the storage, nothing exists yet.
class KavrelShadowInitTest : public ::testing::Test {
protected:
    void SetUp() override {
        chmod(pool_.dir().path().c_str(), 0755);
        storage_ = pool_.dir().file("storage");
        shadow_root_ = storage_ + "/catalogshadow";
        write_config("");
    }
    void write_config(const std::string& extra) {
        kt::write_file(pool_.config(), "[Paths]\nDatabase = " + pool_.root() + "\nStorageDatabase = " +
                                           pool_.root() + "\n" + extra + "[Storage]\nStorage Path = " + storage_ +
                                           "\n");
    }
    kt::RunResult run(const std::vector<std::string>& args, const std::string& log = "none") {
        kt::RunOptions o;
        o.set_env.emplace(appdb::kRegistryEnv, pool_.registry());
        o.set_env["DCT_LOG"] = log;
        o.in_child = [] {
            umask(0);
            return 0;
        };
        return kt::run_program(shadow_binary(), args, o);
    }
    std::string identity() const { return shadow_root_ + "/" + CatalogShadowIdentity::the_file_name(); }

    kt::TestPool pool_;
    std::string storage_, shadow_root_;
};

TEST_F(KavrelShadowInitTest, CreatesTheRootAndItsIdentityAndPrintsTheConfiguration) {
    // Without it the shadow cannot run, and says where to read why.
    kt::RunResult r = run({"status"}, "stderr");
    EXPECT_EQ(3, r.exit_status);
    EXPECT_NE(std::string::npos,
              r.err.find("kavrel-shadow: the catalog shadow of this pool is disabled or has lost its identity file " +
                         identity() + " (log records went to standard error)\n"))
        << r.err;

    r = run({"init"});
    EXPECT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_EQ("init " + shadow_root_ + "\n"
              "  configuration " + pool_.config() + "\n"
              "  app databases " + pool_.root() + "/databases/application\n"
              "  PO/UL dbs     " + pool_.root() + "/databases/po\n"
              "  shadow root   " + shadow_root_ + "\n"
              "  backup        on\n"
              "  auto recovery on\n"
              "  versions kept 5\n"
              "  pool size     64\n"
              "  identity      created " + identity() + "\n",
              r.out);
    struct stat st;
    ASSERT_EQ(0, stat(shadow_root_.c_str(), &st));
    EXPECT_EQ(0750u, st.st_mode & 07777);
    ASSERT_EQ(0, stat(identity().c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 07777);
    EXPECT_EQ(std::vector<std::string>({CatalogShadowIdentity::the_file_name()}), kt::list_dir(shadow_root_));

    // The shadow now runs; a second init changes nothing.
    EXPECT_EQ(0, run({"status"}).exit_status);
    r = run({"--json", "init"});
    EXPECT_EQ(0, r.exit_status) << r.out;
    const kt::Json doc = kt::JsonParser::parse(r.out);
    EXPECT_EQ("init", doc["command"].s);
    EXPECT_EQ("exists", doc["init"]["result"].s);
    EXPECT_EQ(shadow_root_, doc["init"]["shadow_root"].s);
    EXPECT_EQ(5, doc["init"]["versions"].n);
    EXPECT_TRUE(doc["init"]["reason"].is_null());
}

TEST_F(KavrelShadowInitTest, RefusesARootThatHoldsAnythingElse) {
    kt::make_dirs(shadow_root_ + "/1/c1/p1");
    kt::RunResult r = run({"init"});
    EXPECT_EQ(1, r.exit_status) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("  identity      refused " + identity() + " (" + shadow_root_ +
                                            " holds 1 but no identity file; only a new or empty root is made the "
                                            "shadow of this pool)\n"))
        << r.out;
    EXPECT_EQ(std::vector<std::string>({"1"}), kt::list_dir(shadow_root_));

    // Switched off, or no storage named: nothing to make.
    ASSERT_EQ(0, rmdir((shadow_root_ + "/1/c1/p1").c_str()));
    write_config("CatalogBackup = off\n");
    r = run({"init"});
    EXPECT_EQ(1, r.exit_status) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("refused (the configuration turns the catalog shadow off ([Paths] "
                                            "CatalogBackup))\n"))
        << r.out;
    kt::write_file(pool_.config(), "[Paths]\nDatabase = " + pool_.root() + "\n");
    r = run({"init"});
    EXPECT_EQ(3, r.exit_status) << r.out;
    EXPECT_NE(std::string::npos, r.err.find("kavrel-shadow: the configuration names no [Paths] StorageDatabase or no "
                                            "[Storage] Storage Path (log records went to nowhere (DCT_LOG=none))\n"))
        << r.err;
    EXPECT_EQ(2, run({"init", "--all"}).exit_status);
}

}  // namespace
