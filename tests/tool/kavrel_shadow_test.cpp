// End-to-end tests of kavrel-shadow: the built binary on pools the tests build
// through the library (shadow-protected catalogs, factory type 2), healthy and
// damaged in each of the ways an operator meets: a damaged version, a truncated
// journal, a missing database, a corrupted live row. Each case checks the exit
// status, the text and the JSON, and that the read-only commands leave every
// file as it was, also when run by a user without write access.
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kavrel_shadow_fixture.h"

namespace {

using namespace kshadowt;

TEST_F(KavrelShadowTest, HealthyPool) {
    kt::RunResult r = run_read_only({"status"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ("appdb " + p1_ + "\n"
              "  live          present, 16384 bytes, 3 rows, integrity unknown, row checksums unknown\n"
              "  checksums     ok\n"
              "  version 1     16384 bytes, age N, checksum ok, journal ok (3 lines), integrity ok\n"
              "  journal       3 lines since version 1, age N\n"
              "  recovery      possible from version 1, 3 journal lines, 3 rows afterwards, replaces the live file\n"
              "\n"
              "appdb " + p2_ + "\n"
              "  live          present, 16384 bytes, 2 rows, integrity unknown, row checksums unknown\n"
              "  checksums     ok\n"
              "  version 1     16384 bytes, age N, checksum ok, journal ok (2 lines), integrity ok\n"
              "  journal       2 lines since version 1, age N\n"
              "  recovery      possible from version 1, 2 journal lines, 2 rows afterwards, replaces the live file\n"
              "\n"
              "status: 2 databases, 0 with problems, 0 problems, 2 recoverable\n",
              mask_ages(r.out));

    r = run_read_only({"--json", "verify"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    kt::Json doc = kt::JsonParser::parse(r.out);
    EXPECT_EQ("verify", doc["command"].s);
    EXPECT_EQ(2u, doc["databases"].items.size());
    const kt::Json& db = doc["databases"][0];
    EXPECT_EQ(p1_, db["dir"].s);
    EXPECT_EQ("ok", db["live"]["integrity"].s);
    EXPECT_EQ("ok", db["live"]["row_checksums"].s);
    EXPECT_EQ(3, db["live"]["rows"].n);
    EXPECT_EQ("ok", db["versions"][0]["integrity"].s);
    EXPECT_TRUE(db["recovery"]["possible"].b);
    EXPECT_EQ(3, db["recovery"]["rows_after"].n);
    EXPECT_EQ(0, doc["summary"]["problems"].n);
    EXPECT_EQ(0, doc["summary"]["exit_code"].n);

    r = run_read_only({"recover", "--dry-run", p1_});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_NE(std::string::npos,
              r.out.find("  plan          would use version 1, 3 journal lines, 3 rows afterwards, replaces the live file\n"))
        << r.out;
}

TEST_F(KavrelShadowTest, JsonSchemaIsPinned) {
    kt::RunResult r = run_read_only({"--json", "status"});
    ASSERT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(
        "{schema:number,command:string,databases:[{dir:string,type:string,"
        "live:{path:string,exists:bool,readable:bool,size:number,rows:number,integrity:string,row_checksums:string},"
        "checksum_file:string,versions:[{version:number,path:string,exists:bool,size:number,age_seconds:number,"
        "checksum:string,journal:{path:string,lines:number,recorded_lines:number,checksum:string},integrity:string}],"
        "journal_lines_since_newest:number,newest_age_seconds:number,"
        "recovery:{possible:bool,base_version:number,base_path:string,journal_lines:number,rows_after:number,"
        "passed_over:[],set_aside:[],reason:null},problems:[],action:null}],"
        "summary:{databases:number,with_problems:number,problems:number,recoverable:number,exit_code:number,"
        "not_readable:number,unreadable:[],pool_problems:[]}}",
        kt::JsonParser::parse(r.out).shape());
    EXPECT_EQ(1, kt::JsonParser::parse(r.out)["schema"].n);

    // JSON Lines: one record per database, then the summary.
    r = run_read_only({"--json-lines", "verify"});
    ASSERT_EQ(0, r.exit_status) << r.err;
    std::vector<std::string> lines = kt::split_lines(r.out);
    ASSERT_EQ(3u, lines.size()) << r.out;
    EXPECT_EQ(kt::JsonParser::parse(lines[0]).shape(), kt::JsonParser::parse(lines[1]).shape());
    EXPECT_EQ("{schema:number,command:string,summary:{databases:number,with_problems:number,problems:number,"
              "recoverable:number,exit_code:number,not_readable:number,unreadable:[],pool_problems:[]}}",
              kt::JsonParser::parse(lines[2]).shape());

    // A failed check fills the nullable members with their other kinds.
    kt::write_file(s1_ + "/appdb.1", "not a database");
    r = run_read_only({"--json", "verify", p1_});
    ASSERT_EQ(1, r.exit_status) << r.err;
    const kt::Json db = kt::JsonParser::parse(r.out)["databases"][0];
    EXPECT_EQ("{possible:bool,base_version:null,base_path:null,journal_lines:number,rows_after:null,"
              "passed_over:[number],set_aside:[],reason:string}",
              db["recovery"].shape());
    EXPECT_EQ("[{path:string,problem:string,not_readable:bool}]", db["problems"].shape());

    r = run({"--json", "backup", p2_});
    ASSERT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ("{name:string,result:string,status:number,version:number,detail:string,journal_lines:number,"
              "passed_over:[],set_aside:[]}",
              kt::JsonParser::parse(r.out)["databases"][0]["action"].shape());
}

TEST_F(KavrelShadowTest, DamagedVersion) {
    std::string data = kt::read_file(s1_ + "/appdb.1");
    data[data.size() / 2] ^= 0x5a;
    kt::write_file(s1_ + "/appdb.1", data);

    kt::RunResult r = run_read_only({"verify", p1_});
    EXPECT_EQ(1, r.exit_status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("  version 1     16384 bytes, age ")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find(", checksum bad, journal ok (3 lines), integrity unknown\n")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("  recovery      impossible: no usable shadow version\n")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("  problem       " + s1_ + "/appdb.1: version checksum mismatch\n"));
    EXPECT_NE(std::string::npos,
              r.out.find("  problem       " + s1_ + ": recovery impossible: no usable shadow version\n"));
    EXPECT_NE(std::string::npos, r.out.find("verify: 1 database, 1 with problems, 2 problems, 0 recoverable\n"));

    r = run_read_only({"--json", "status"});
    EXPECT_EQ(1, r.exit_status);
    kt::Json doc = kt::JsonParser::parse(r.out);
    const kt::Json& db = doc["databases"][0];
    EXPECT_EQ("bad", db["versions"][0]["checksum"].s);
    EXPECT_FALSE(db["recovery"]["possible"].b);
    EXPECT_EQ("no usable shadow version", db["recovery"]["reason"].s);
    EXPECT_EQ(1, db["recovery"]["passed_over"][0].n);
    EXPECT_EQ(1, doc["summary"]["with_problems"].n);
    EXPECT_EQ(1, doc["summary"]["exit_code"].n);
    EXPECT_TRUE(doc["databases"][1]["recovery"]["possible"].b);

    // A fresh backup gives the database a good version again; the damaged
    // one is still reported until it ages out.
    r = run({"backup", p1_});
    EXPECT_EQ(1, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("  backup        kept version 2\n")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("  recovery      possible from version 2, 0 journal lines")) << r.out;
}

TEST_F(KavrelShadowTest, TruncatedJournal) {
    const std::string journal = s1_ + "/appdb.1.journal";
    std::string text = kt::read_file(journal);
    text.erase(text.rfind('\n', text.size() - 2) + 1);  // the last line goes
    kt::write_file(journal, text);

    kt::RunResult r = run_read_only({"status"});
    EXPECT_EQ(1, r.exit_status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find(", checksum ok, journal bad (2 lines), integrity unknown\n")) << r.out;
    EXPECT_NE(std::string::npos,
              r.out.find("  problem       " + journal +
                         ": journal does not match the checksum file (2 lines, 3 recorded)\n"))
        << r.out;
    EXPECT_NE(std::string::npos, r.out.find("status: 2 databases, 1 with problems, 2 problems, 1 recoverable\n"));

    r = run_read_only({"--json", "recover", "--dry-run", p1_});
    EXPECT_EQ(1, r.exit_status);
    const kt::Json db = kt::JsonParser::parse(r.out)["databases"][0];
    EXPECT_EQ("bad", db["versions"][0]["journal"]["checksum"].s);
    EXPECT_EQ(2, db["versions"][0]["journal"]["lines"].n);
    EXPECT_EQ(3, db["versions"][0]["journal"]["recorded_lines"].n);
    EXPECT_FALSE(db["recovery"]["possible"].b);
    // The journal was left as it was found: a check never repairs.
    EXPECT_EQ(text, kt::read_file(journal));
}

TEST_F(KavrelShadowTest, MissingDatabase) {
    ASSERT_EQ(0, unlink((p1_ + "/app.db").c_str()));

    kt::RunResult r = run_read_only({"status"});
    EXPECT_EQ(1, r.exit_status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find(live_block(p1_, "missing"))) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("  problem       " + p1_ + "/app.db: live database missing\n"));

    r = run_read_only({"--json", "recover", "--dry-run", p1_});
    EXPECT_EQ(1, r.exit_status);
    kt::Json db = kt::JsonParser::parse(r.out)["databases"][0];
    EXPECT_FALSE(db["live"]["exists"].b);
    EXPECT_TRUE(db["recovery"]["possible"].b);
    EXPECT_EQ(1, db["recovery"]["base_version"].n);
    EXPECT_EQ(3, db["recovery"]["journal_lines"].n);
    EXPECT_EQ(3, db["recovery"]["rows_after"].n);

    r = run({"recover", "--missing"});
    EXPECT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos,
              r.out.find(live_block(p1_, "present, 16384 bytes, 3 rows, integrity ok, row checksums ok")))
        << r.out;
    EXPECT_NE(std::string::npos, r.out.find("  recover       recovered from version 1 (3 journal lines)\n"));
    EXPECT_NE(std::string::npos, r.out.find("recover --missing: 1 database, 0 with problems, 0 problems, 1 recoverable\n"));
    EXPECT_EQ(std::string::npos, r.out.find(p2_)) << "a present database is left alone";

    // Every acknowledged row is back.
    r = run({"--json", "verify"});
    EXPECT_EQ(0, r.exit_status) << r.out;
    EXPECT_EQ(3, kt::JsonParser::parse(r.out)["databases"][0]["live"]["rows"].n);
}

TEST_F(KavrelShadowTest, CorruptedLiveRow) {
    tamper_second_row(p1_ + "/app.db");

    // status reads no rows: the damage shows in verify.
    kt::RunResult r = run_read_only({"status"});
    EXPECT_EQ(0, r.exit_status) << r.out;
    r = run_read_only({"verify"});
    EXPECT_EQ(1, r.exit_status);
    EXPECT_NE(std::string::npos,
              r.out.find(live_block(p1_, "present, 16384 bytes, 3 rows, integrity ok, row checksums bad")))
        << r.out;
    EXPECT_NE(std::string::npos, r.out.find("  problem       " + p1_ + "/app.db: row checksum mismatch: ")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("verify: 2 databases, 1 with problems, 1 problem, 2 recoverable\n"));

    r = run_read_only({"--json", "verify", p1_});
    EXPECT_EQ(1, r.exit_status);
    kt::Json doc = kt::JsonParser::parse(r.out);
    EXPECT_EQ("bad", doc["databases"][0]["live"]["row_checksums"].s);
    EXPECT_EQ(1u, doc["databases"][0]["problems"].items.size());

    // Recovery rebuilds it from the shadow, and the check after it passes.
    r = run({"recover", p1_});
    EXPECT_EQ(0, r.exit_status) << r.out;
    EXPECT_NE(std::string::npos,
              r.out.find(live_block(p1_, "present, 16384 bytes, 3 rows, integrity ok, row checksums ok")))
        << r.out;
    EXPECT_EQ(0, run({"verify"}).exit_status);
}

TEST_F(KavrelShadowTest, ReadOnlyUserChangesNothing) {
    std::string data = kt::read_file(s1_ + "/appdb.1");
    data[data.size() / 2] ^= 0x5a;
    kt::write_file(s1_ + "/appdb.1", data);
    nftw(pool_.dir().path().c_str(), make_read_only, 16, FTW_PHYS);
    chmod(pool_.dir().path().c_str(), 0755);
    const auto before = snapshot(pool_.dir().path());
    kt::RunOptions o;
    o.in_child = drop_privileges;
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"status"}, {"verify"}, {"recover", "--dry-run", p1_}, {"recover", "--dry-run", p2_}}) {
        kt::RunResult r = run(args, o);
        ASSERT_LT(r.exit_status, 120) << "could not drop privileges";
        const bool damaged = args.back() != p2_;
        EXPECT_EQ(damaged ? 1 : 0, r.exit_status) << args[0] << r.out << r.err;
        EXPECT_EQ(damaged, r.out.find("version checksum mismatch") != std::string::npos) << args[0] << r.out;
    }
    kt::RunResult r = run({"--json", "verify", p2_}, o);
    EXPECT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_EQ(2, kt::JsonParser::parse(r.out)["databases"][0]["recovery"]["rows_after"].n);
    EXPECT_EQ(before, snapshot(pool_.dir().path()));
    nftw(pool_.dir().path().c_str(), make_writable, 16, FTW_PHYS | FTW_DEPTH);
}

TEST_F(KavrelShadowTest, UsageAndCannotRun) {
    kt::RunResult r = run({});
    EXPECT_EQ(2, r.exit_status);
    EXPECT_EQ("", r.out);
    EXPECT_NE(std::string::npos, r.err.find("kavrel-shadow: no command given\nCheck, back up and restore")) << r.err;
    EXPECT_EQ(2, run({"frobnicate"}).exit_status);
    EXPECT_EQ(2, run({"recover"}).exit_status);
    EXPECT_EQ(2, run({"recover", "--all"}).exit_status);
    EXPECT_EQ(2, run({"status", "--dry-run"}).exit_status);
    EXPECT_EQ(2, run({"backup"}).exit_status);
    EXPECT_EQ(2, run({"status", "/not/below/the/pool"}).exit_status);
    r = run({"--help"});
    EXPECT_EQ(0, r.exit_status);
    EXPECT_NE(std::string::npos, r.out.find("Exit status: 0 all well, 1 problems found, 2 usage, 3 could not run,\n"
                                            "\t4 some file or directory could not be read (permission denied).\n"));

    r = run({"--registry", pool_.dir().file("no-such-registry.cfg"), "status"});
    EXPECT_EQ(3, r.exit_status);
    EXPECT_NE(std::string::npos, r.err.find("kavrel-shadow: no CR configuration file found through ")) << r.err;

    // A shadow root that lost its identity file is not used.
    ASSERT_EQ(0, unlink((shadow_root_ + "/" + CatalogShadowIdentity::the_file_name()).c_str()));
    r = run({"status"});
    EXPECT_EQ(3, r.exit_status);
    EXPECT_EQ("", r.out);
}

// A service process keeps adding rows while verify runs again and again: the
// journal lines it has not yet counted in the checksum file, and the rows of
// a transaction in flight, are never taken for damage. Afterwards every row
// the writer had acknowledged is there, and a rehearsal replays all of them.
TEST_F(KavrelShadowTest, VerifyBesideAWritingProcess) {
    const int kRows = 60;
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    fflush(nullptr);
    pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        close(ready[0]);
        CatalogShadowContext context(new ConfigFileShadowProxy(pool_.config(), pool_.root()),
                                     new CatalogDirectoryLock());
        if (context.init() != CR_STATUS_OK) _exit(2);
        std::unique_ptr<appdb::catalog_application> catalog(appdb::catalog_application_factory::create_catalog(
            1, pool_.root() + "/databases", appdb::APP_D_CATALOG_SHADOW, &context, 5));
        if (!catalog || write(ready[1], "r", 1) != 1) _exit(3);
        for (int i = 0; i < kRows; ++i) {
            if (catalog->update_catalog("svc", appdb::APP_ROLE_APP, item("c1", "p1", 100 + i).to_string()) != 0) {
                _exit(4);
            }
        }
        _exit(0);
    }
    close(ready[1]);
    char c = 0;
    ASSERT_EQ(1, read(ready[0], &c, 1));
    close(ready[0]);

    int runs = 0;
    int status = 0;
    for (;;) {
        const bool writer_done = waitpid(writer, &status, WNOHANG) == writer;
        kt::RunResult r = run({"verify", p1_});
        ++runs;
        EXPECT_EQ(0, r.exit_status) << "run " << runs << ":\n" << r.out << r.err;
        if (writer_done || r.exit_status != 0) break;
    }
    RecordProperty("verify_runs", runs);
    if (!WIFEXITED(status)) {
        ASSERT_EQ(writer, waitpid(writer, &status, 0));
    }
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(0, WEXITSTATUS(status));

    kt::RunResult r = run({"--json", "verify", p1_});
    EXPECT_EQ(0, r.exit_status) << r.out;
    const kt::Json db = kt::JsonParser::parse(r.out)["databases"][0];
    EXPECT_EQ(3 + kRows, db["live"]["rows"].n);
    EXPECT_EQ(3 + kRows, db["recovery"]["rows_after"].n);
    EXPECT_EQ(3 + kRows, db["recovery"]["journal_lines"].n);
}

// The pool's PO and UL databases are found below DBROOT/databases/po, backed
// up like the service backs them up, and reported without a row count (they
// hold no catalog table).
TEST_F(KavrelShadowTest, PoolDatabasesAreBackedUpAndReported) {
    const std::string po_dir = pool_.root() + "/databases/po/1";
    kt::make_dirs(po_dir);
    for (const char* name : {"po.db", "ul.db"}) {
        sqlite3* db = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open((po_dir + "/" + name).c_str(), &db));
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "CREATE TABLE po (basename TEXT); INSERT INTO po VALUES ('a');",
                                          nullptr, nullptr, nullptr));
        sqlite3_close(db);
    }
    kt::RunResult r = run_read_only({"status", po_dir});
    EXPECT_EQ(1, r.exit_status) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("  recovery      impossible: no shadow version\n")) << r.out;

    r = run({"backup", "--all"});
    EXPECT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("podb " + po_dir + "\n  live          present, ")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("uldb " + po_dir + "\n")) << r.out;
    size_t kept = 0;
    for (size_t at = r.out.find("  backup        kept version 1\n"); at != std::string::npos;
         at = r.out.find("  backup        kept version 1\n", at + 1)) {
        ++kept;
    }
    EXPECT_EQ(2u, kept) << r.out;  // the two pool databases; the catalogs are unchanged
    EXPECT_NE(std::string::npos, r.out.find("backup: 4 databases, 0 with problems, 0 problems, 4 recoverable\n"));

    r = run_read_only({"--json", "verify", po_dir});
    EXPECT_EQ(0, r.exit_status) << r.out;
    const kt::Json doc = kt::JsonParser::parse(r.out);
    ASSERT_EQ(2u, doc["databases"].items.size());
    EXPECT_EQ("podb", doc["databases"][0]["type"].s);
    EXPECT_EQ("uldb", doc["databases"][1]["type"].s);
    EXPECT_TRUE(doc["databases"][0]["live"]["rows"].is_null());
    EXPECT_EQ("ok", doc["databases"][0]["live"]["integrity"].s);
    EXPECT_TRUE(doc["databases"][0]["recovery"]["possible"].b);
}

TEST_F(KavrelShadowTest, NoProgressLineWhenStderrIsNoTerminal) {
    kt::RunResult r = run({"verify"}, kt::RunOptions());
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ("", r.err);
}

}  // namespace

namespace {

// The shadow context reads "[Log] Level" from its configuration file when it
// loads it, so kavrel-shadow's records follow it; DCT_LOG_LEVEL, when set, wins.
TEST_F(KavrelShadowTest, LogLevelFromTheConfigurationFile) {
    kt::RunOptions to_stderr;
    to_stderr.set_env.emplace(appdb::kRegistryEnv, pool_.registry());
    to_stderr.unset_env.push_back("DCT_LOG_LEVEL");
    kt::RunResult r = kt::run_program(shadow_binary(), {"status"}, to_stderr);
    EXPECT_EQ(0, r.exit_status) << r.err;
    ASSERT_NE(std::string::npos, r.err.find("INFO [0] Catalog auto recovery is enabled.")) << r.err;

    const std::string plain_config = kt::read_file(pool_.config());
    kt::write_file(pool_.config(), plain_config + "[Log]\nLevel = warning\n");
    r = kt::run_program(shadow_binary(), {"status"}, to_stderr);
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(std::string::npos, r.err.find("INFO [")) << r.err;

    kt::RunOptions from_environment = to_stderr;
    from_environment.unset_env.clear();
    from_environment.set_env["DCT_LOG_LEVEL"] = "info";
    r = kt::run_program(shadow_binary(), {"status"}, from_environment);
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("INFO [0] Catalog auto recovery is enabled.")) << r.err;
}

}  // namespace
