// Operation journals: line layout, counters, durability order, failures,
// crash repair, the context's entry points and replay.

// Shadows live on the heap in these tests: ThreadSanitizer forgets a mutex only
// when its memory is freed, and a stack address reused by another test's mutex
// would otherwise look like one lock taken in two orders.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "common/test_util.h"
#include "dct/config.h"
#include "dct/fault.h"
#include "dct/fs.h"
#include "shadow_test_helpers.h"
#include "sqlitedb/sqlite_wrapper.h"

using dct::log_level;
using shadow_test::add_version;
using shadow_test::adler;
using shadow_test::chksum_text;
using shadow_test::PoolLayout;

namespace {

struct JournalDir {
    kt::TempDir tmp;
    std::string real = tmp.file("real");
    std::string dir = tmp.file("shadow");
    std::string file(const std::string& name) const { return dir + "/" + name; }
};

// A shadow with one persisted podb version and no journal yet.
std::unique_ptr<PODBShadow> shadow_with_version(const JournalDir& d, const std::string& type = "podb") {
    std::unique_ptr<PODBShadow> shadow(new PODBShadow(nullptr, d.real, d.dir));
    add_version(*shadow, type, "base");
    EXPECT_EQ(0u, shadow->persist_chksum(type));
    return shadow;
}

// Records the file operations offered to the fault seam, failing one of them.
struct FaultRecorder {
    std::vector<std::pair<dct::fault_op, std::string>> calls;
    dct::fault_op fail_op = dct::fault_op::touch;
    std::string fail_path;  // "" = never fail
    int error = EIO;

    FaultRecorder() {
        dct::set_fault_hook([this](dct::fault_op op, const char* path) {
            calls.emplace_back(op, path);
            if (!fail_path.empty() && op == fail_op && fail_path == path) return error;
            return 0;
        });
    }
    ~FaultRecorder() { dct::set_fault_hook(nullptr); }
    // Paths offered for `op`, in order, without the anonymous ones.
    std::vector<std::string> paths(dct::fault_op op) const {
        std::vector<std::string> out;
        for (const auto& c : calls) {
            if (c.first == op && !c.second.empty()) out.push_back(c.second);
        }
        return out;
    }
};

// Rows of `sql` from the database file, one "a|b|c\n" per row.
std::string dump(const std::string& file, const std::string& sql) {
    sqlite3* db = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &db));
    std::string out;
    sqlite3_exec(
        db, sql.c_str(),
        [](void* user, int argc, char** values, char**) {
            std::string* o = static_cast<std::string*>(user);
            for (int i = 0; i < argc; ++i) *o += std::string(i ? "|" : "") + (values[i] ? values[i] : "NULL");
            *o += "\n";
            return 0;
        },
        &out, nullptr);
    sqlite3_close(db);
    return out;
}

void run_sql(const std::string& file, const std::string& sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(file.c_str(), &db));
    char* err = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err)) << (err ? err : "");
    sqlite3_close(db);
}

class FakePODB : public PODB {
public:
    FakePODB(const std::string& dir, const std::vector<std::string>& statements)
        : dir_(dir), statements_(statements) {}
    std::string get_dir() const override { return dir_; }
    std::vector<std::string> get_pending_statements() const override { return statements_; }

private:
    std::string dir_;
    std::vector<std::string> statements_;
};

}  // namespace

TEST(ShadowJournal, NoVersionLogsAndWritesNothing) {
    JournalDir d;
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, d.real, d.dir));
    PODBShadow& shadow = *shadow_owner;
    ASSERT_EQ(0u, shadow.initialize("podb"));
    const std::vector<std::string> before = kt::list_dir(d.dir);
    kt::LogCapture log;
    EXPECT_EQ(0u, shadow.write_journal("podb", "INSERT INTO t VALUES(1)"));
    EXPECT_EQ(0u, shadow.flush_journal("podb"));
    EXPECT_EQ(1u, log.count(log_level::info, 0, "Can't write podb operation journal since there's no active shadow."))
        << log.dump();
    EXPECT_EQ(before, kt::list_dir(d.dir));
}

TEST(ShadowJournal, LineLayoutAndCountersPerLine) {
    JournalDir d;
    std::unique_ptr<PODBShadow> shadow = shadow_with_version(d);
    kt::TraceSwitch trace(true);
    kt::LogCapture log;
    const ShadowVersion& newest = shadow->get_db_versions_("podb")->front();

    EXPECT_EQ(0u, shadow->write_journal("podb", "INSERT INTO t VALUES(1)"));
    EXPECT_EQ(adler("INSERT INTO t VALUES(1);"), newest.journal_crc);
    EXPECT_EQ(1u, newest.journal_lines);
    EXPECT_EQ(0u, shadow->write_journal("podb", "DELETE FROM t;"));
    EXPECT_EQ(adler("DELETE FROM t;;", adler("INSERT INTO t VALUES(1);")), newest.journal_crc);
    EXPECT_EQ(2u, newest.journal_lines);
    EXPECT_EQ("INSERT INTO t VALUES(1);\nDELETE FROM t;;\n", kt::read_file(d.file("podb.1.journal")));
    EXPECT_EQ(1u, log.count_message("Write DB operation journal INSERT INTO t VALUES(1).")) << log.dump();

    // The checksum file learns of the lines only when flushed.
    EXPECT_EQ(0u, shadow->flush_journal("podb"));
    const std::string text = kt::read_file(d.file(".chksum.podb"));
    EXPECT_EQ(chksum_text({"format=1", "current=1", "count=1", "podb.1=" + std::to_string(adler("base")),
                           "podb.1.journal=" + std::to_string(newest.journal_crc), "podb.1.journal.len=2"}),
              text);
    // And what was written checks out against it.
        std::unique_ptr<PODBShadow> loaded_owner(new PODBShadow(nullptr, d.real, d.dir));
    PODBShadow& loaded = *loaded_owner;
    ASSERT_EQ(0u, loaded.load_versions("podb", true));
    EXPECT_TRUE(loaded.get_db_versions_("podb")->front().check_crc_journal());
}

TEST(ShadowJournal, StatementWithNewlinesStillChecksOut) {
    JournalDir d;
    std::unique_ptr<PODBShadow> shadow = shadow_with_version(d, "appdb");
    EXPECT_EQ(0u, shadow->write_journal("appdb", "INSERT INTO t VALUES('two\nlines')"));
    EXPECT_EQ(0u, shadow->flush_journal("appdb"));
    EXPECT_EQ(2u, shadow->get_db_versions_("appdb")->front().journal_lines);
        std::unique_ptr<PODBShadow> loaded_owner(new PODBShadow(nullptr, d.real, d.dir));
    PODBShadow& loaded = *loaded_owner;
    ASSERT_EQ(0u, loaded.load_versions("appdb", true));
    EXPECT_EQ(0u, loaded.write_journal("appdb", "DELETE FROM t"));  // reopening checks the journal
    EXPECT_EQ(0u, loaded.flush_journal("appdb"));
    EXPECT_EQ("INSERT INTO t VALUES('two\nlines');\nDELETE FROM t;\n", kt::read_file(d.file("appdb.1.journal")));
}

TEST(ShadowJournal, FlushSyncsTheJournalBeforeTheChecksumFile) {
    JournalDir d;
    std::unique_ptr<PODBShadow> shadow = shadow_with_version(d);
    FaultRecorder rec;
    EXPECT_EQ(0u, shadow->write_journal("podb", "A"));
    EXPECT_EQ(0u, shadow->flush_journal("podb"));
    const std::string journal = d.file("podb.1.journal");
    const std::string tmp = d.file(".chksum.podb.tmp");
    // New journal: its directory entry is synced when it is created.
    EXPECT_EQ((std::vector<std::string>{d.dir, journal, tmp, d.dir}), rec.paths(dct::fault_op::fsync));
    EXPECT_EQ((std::vector<std::string>{journal, tmp}), rec.paths(dct::fault_op::open_write));
    EXPECT_EQ((std::vector<std::string>{journal, tmp}), rec.paths(dct::fault_op::write));
    EXPECT_EQ((std::vector<std::string>{tmp}), rec.paths(dct::fault_op::rename));
    // Order: journal synced, then the checksum file written, renamed, directory synced.
    std::vector<std::string> order;
    for (const auto& c : rec.calls) {
        if (c.second.empty()) continue;
        order.push_back(std::string(dct::fault_op_name(c.first)) + " " + c.second);
    }
    std::vector<std::string> expected = {
        "open_write " + journal, "fsync " + d.dir,  "write " + journal, "fsync " + journal,
        "open_write " + tmp,     "write " + tmp,    "fsync " + tmp,     "rename " + tmp,
        "fsync " + d.dir,
    };
    EXPECT_EQ(expected, order);

    // An existing journal is not synced into the directory again.
    rec.calls.clear();
    EXPECT_EQ(0u, shadow->write_journal("podb", "B"));
    EXPECT_EQ(0u, shadow->flush_journal("podb"));
    EXPECT_EQ((std::vector<std::string>{journal, tmp, d.dir}), rec.paths(dct::fault_op::fsync));
}

TEST(ShadowJournal, UnflushedLinesAreCutAwayOnReopen) {
    JournalDir d;
    {
        std::unique_ptr<PODBShadow> shadow = shadow_with_version(d);
        ASSERT_EQ(0u, shadow->write_journal("podb", "A"));
        ASSERT_EQ(0u, shadow->write_journal("podb", "B"));
        ASSERT_EQ(0u, shadow->flush_journal("podb"));
        // A crash after these reached the journal but before the checksum file.
        ASSERT_EQ(0u, shadow->write_journal("podb", "C"));
        ASSERT_EQ(0u, shadow->write_journal("podb", "D"));
    }
    EXPECT_EQ("A;\nB;\nC;\nD;\n", kt::read_file(d.file("podb.1.journal")));

    std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, d.real, d.dir));

    PODBShadow& shadow = *shadow_owner;
    ASSERT_EQ(0u, shadow.load_versions("podb", true));
    kt::LogCapture log;
    EXPECT_EQ(0u, shadow.write_journal("podb", "E"));
    EXPECT_EQ(0u, shadow.flush_journal("podb"));
    EXPECT_EQ("A;\nB;\nE;\n", kt::read_file(d.file("podb.1.journal")));
    EXPECT_EQ(1u, log.count(log_level::warning, CR_STATUS_NONE,
                            "Journal file " + d.file("podb.1.journal") +
                                " was corrupted, and it was fixed by truncation."))
        << log.dump();
    const ShadowVersion& v = shadow.get_db_versions_("podb")->front();
    EXPECT_EQ(3u, v.journal_lines);
    EXPECT_EQ(adler("E;", adler("B;", adler("A;"))), v.journal_crc);
}

TEST(ShadowJournal, CorruptJournalRefusesNewLines) {
    JournalDir d;
    {
        std::unique_ptr<PODBShadow> shadow = shadow_with_version(d);
        ASSERT_EQ(0u, shadow->write_journal("podb", "INSERT 1"));
        ASSERT_EQ(0u, shadow->flush_journal("podb"));
    }
    kt::write_file(d.file("podb.1.journal"), "INSERT 2;\n");  // same length, other text
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, d.real, d.dir));
    PODBShadow& shadow = *shadow_owner;
    ASSERT_EQ(0u, shadow.load_versions("podb", true));
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_FAILED, shadow.write_journal("podb", "INSERT 3"));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_FAILED, "write_journal: Got exception: [journal corrupted]"))
        << log.dump();
    EXPECT_EQ("INSERT 2;\n", kt::read_file(d.file("podb.1.journal")));
    // Refused again on the next try: nothing ever makes it look valid.
    EXPECT_EQ(CR_STATUS_FAILED, shadow.write_journal("podb", "INSERT 4"));
    EXPECT_EQ("INSERT 2;\n", kt::read_file(d.file("podb.1.journal")));
}

TEST(ShadowJournal, AutoFixDisabledSkipsTheCheckOnOpen) {
    JournalDir d;
    {
        std::unique_ptr<PODBShadow> shadow = shadow_with_version(d);
        ASSERT_EQ(0u, shadow->write_journal("podb", "INSERT 1"));
        ASSERT_EQ(0u, shadow->flush_journal("podb"));
    }
    kt::write_file(d.file("podb.1.journal"), "INSERT 2;\n");
    _crConfigClass config;
    config.SetDisableCatalogAutoFixJournal(true);
    _crConfigClass::SetInstance(&config);
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, d.real, d.dir));
    PODBShadow& shadow = *shadow_owner;
    ASSERT_EQ(0u, shadow.load_versions("podb", true));
    EXPECT_EQ(0u, shadow.write_journal("podb", "INSERT 3"));
    _crConfigClass::SetInstance(nullptr);
    EXPECT_EQ("INSERT 2;\nINSERT 3;\n", kt::read_file(d.file("podb.1.journal")));
}

TEST(ShadowJournal, OpenFailure) {
    JournalDir d;
    std::unique_ptr<PODBShadow> shadow = shadow_with_version(d);
    FaultRecorder rec;
    rec.fail_op = dct::fault_op::open_write;
    rec.fail_path = d.file("podb.1.journal");
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_IO, shadow->write_journal("podb", "A"));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_IO, "failed to open journal file " + d.file("podb.1.journal")))
        << log.dump();
    EXPECT_FALSE(kt::file_exists(d.file("podb.1.journal")));
    EXPECT_EQ(0u, shadow->get_db_versions_("podb")->front().journal_lines);
}

TEST(ShadowJournal, WriteFailureLeavesFileAndCountersAsTheyWere) {
    JournalDir d;
    std::unique_ptr<PODBShadow> shadow = shadow_with_version(d);
    ASSERT_EQ(0u, shadow->write_journal("podb", "A"));
    ASSERT_EQ(0u, shadow->flush_journal("podb"));
    const std::string chksum = kt::read_file(d.file(".chksum.podb"));
    {
        FaultRecorder rec;
        rec.fail_op = dct::fault_op::write;
        rec.fail_path = d.file("podb.1.journal");
        rec.error = ENOSPC;
        kt::LogCapture log;
        EXPECT_EQ(CR_STATUS_IO, shadow->write_journal("podb", "B"));
        EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_IO, "failed to write \"B\" to journal file")) << log.dump();
        EXPECT_EQ(0u, shadow->flush_journal("podb"));  // nothing pending
    }
    EXPECT_EQ("A;\n", kt::read_file(d.file("podb.1.journal")));
    EXPECT_EQ(chksum, kt::read_file(d.file(".chksum.podb")));
    const ShadowVersion& v = shadow->get_db_versions_("podb")->front();
    EXPECT_EQ(1u, v.journal_lines);
    EXPECT_EQ(adler("A;"), v.journal_crc);
    // The journal goes on from there.
    EXPECT_EQ(0u, shadow->write_journal("podb", "C"));
    EXPECT_EQ(0u, shadow->flush_journal("podb"));
    EXPECT_EQ("A;\nC;\n", kt::read_file(d.file("podb.1.journal")));
        std::unique_ptr<PODBShadow> loaded_owner(new PODBShadow(nullptr, d.real, d.dir));
    PODBShadow& loaded = *loaded_owner;
    ASSERT_EQ(0u, loaded.load_versions("podb", true));
    EXPECT_TRUE(loaded.get_db_versions_("podb")->front().check_crc_journal());
}

TEST(ShadowJournal, FailedSyncDropsTheUncountedLines) {
    JournalDir d;
    std::unique_ptr<PODBShadow> shadow = shadow_with_version(d);
    ASSERT_EQ(0u, shadow->write_journal("podb", "A"));
    ASSERT_EQ(0u, shadow->flush_journal("podb"));
    const std::string chksum = kt::read_file(d.file(".chksum.podb"));
    ASSERT_EQ(0u, shadow->write_journal("podb", "B"));
    {
        FaultRecorder rec;
        rec.fail_op = dct::fault_op::fsync;
        rec.fail_path = d.file("podb.1.journal");
        kt::LogCapture log;
        EXPECT_EQ(CR_STATUS_IO, shadow->flush_journal("podb"));
        EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_IO,
                                std::string("Could not fsync journal file (") + strerror(EIO) + ")"))
            << log.dump();
    }
    EXPECT_EQ("A;\n", kt::read_file(d.file("podb.1.journal")));
    EXPECT_EQ(chksum, kt::read_file(d.file(".chksum.podb")));
    EXPECT_EQ(1u, shadow->get_db_versions_("podb")->front().journal_lines);
    EXPECT_EQ(0u, shadow->write_journal("podb", "C"));
    EXPECT_EQ(0u, shadow->flush_journal("podb"));
    EXPECT_EQ("A;\nC;\n", kt::read_file(d.file("podb.1.journal")));
}

TEST(ShadowJournal, FailedChecksumFileKeepsTheLinesForTheNextFlush) {
    JournalDir d;
    std::unique_ptr<PODBShadow> shadow = shadow_with_version(d);
    const std::string chksum = kt::read_file(d.file(".chksum.podb"));
    ASSERT_EQ(0u, shadow->write_journal("podb", "A"));
    {
        FaultRecorder rec;
        rec.fail_op = dct::fault_op::rename;
        rec.fail_path = d.file(".chksum.podb.tmp");
        kt::LogCapture log;
        EXPECT_EQ(CR_STATUS_IO, shadow->flush_journal("podb"));
        EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_IO, "flush_journal: failed to persist chksum file. "))
            << log.dump();
        EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_IO,
                                "can't persist version info file " + d.file(".chksum.podb") + "."));
    }
    EXPECT_EQ(chksum, kt::read_file(d.file(".chksum.podb")));
    EXPECT_EQ("A;\n", kt::read_file(d.file("podb.1.journal")));
    EXPECT_EQ(0u, shadow->flush_journal("podb"));
        std::unique_ptr<PODBShadow> loaded_owner(new PODBShadow(nullptr, d.real, d.dir));
    PODBShadow& loaded = *loaded_owner;
    ASSERT_EQ(0u, loaded.load_versions("podb", true));
    EXPECT_EQ(1u, loaded.get_db_versions_("podb")->front().journal_lines);
}

TEST(ShadowJournal, ResetClosesTheActiveJournal) {
    JournalDir d;
    std::unique_ptr<PODBShadow> shadow = shadow_with_version(d);
    ASSERT_EQ(0u, shadow->write_journal("podb", "A"));
    ASSERT_EQ(0u, shadow->flush_journal("podb"));
    shadow->reset_db_active_journal_("podb", boost::shared_ptr<JournalStream>());
    EXPECT_EQ(0u, shadow->flush_journal("podb"));  // nothing open, nothing to do
    // A new newest version: the next line opens its journal.
    add_version(*shadow, "podb", "second");
    ASSERT_EQ(0u, shadow->persist_chksum("podb"));
    ASSERT_EQ(0u, shadow->write_journal("podb", "B"));
    ASSERT_EQ(0u, shadow->flush_journal("podb"));
    EXPECT_EQ("A;\n", kt::read_file(d.file("podb.1.journal")));
    EXPECT_EQ("B;\n", kt::read_file(d.file("podb.2.journal")));
}

TEST(ShadowJournal, UnknownTypeIsABadParameter) {
    JournalDir d;
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, d.real, d.dir));
    PODBShadow& shadow = *shadow_owner;
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_FAILED, shadow.write_journal("xdb", "A"));
    EXPECT_EQ(1u, log.count_message("write_journal: Got exception: [bad parameter]")) << log.dump();
    EXPECT_EQ(CR_STATUS_FAILED, shadow.flush_journal("xdb"));
    EXPECT_EQ(1u, log.count_message("flush_journal: Got exception: [bad parameter]"));
}

TEST(ShadowJournalContext, ApplicationStatementIsDurableWhenItReturns) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    const std::string dir = l.app_dir("1/c/p");
    boost::shared_ptr<PODBShadow> shadow = ctx->pool->get(dir);
    add_version(*shadow, "appdb", "empty schema");
    ASSERT_EQ(0u, shadow->persist_chksum("appdb"));

    EXPECT_EQ(0u, ctx->write_journal(dir, "appdb", "DELETE FROM catalog WHERE backup_id = ('b1')"));
    const std::string sdir = l.shadow + "/1/c/p";
    EXPECT_EQ("DELETE FROM catalog WHERE backup_id = ('b1');\n", kt::read_file(sdir + "/appdb.1.journal"));
    // The checksum file already counts it.
        std::unique_ptr<PODBShadow> loaded_owner(new PODBShadow(nullptr, dir, sdir));
    PODBShadow& loaded = *loaded_owner;
    ASSERT_EQ(0u, loaded.load_versions("appdb", true));
    EXPECT_EQ(1u, loaded.get_db_versions_("appdb")->front().journal_lines);
    EXPECT_TRUE(loaded.get_db_versions_("appdb")->front().check_crc_journal());
}

TEST(ShadowJournalContext, ApplicationStatementWithoutShadowIsOnlyLogged) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    kt::LogCapture log;
    EXPECT_EQ(0u, ctx->write_journal(l.app_dir("1/c/p"), "appdb", "DELETE FROM catalog"));
    EXPECT_EQ(1u, log.count(log_level::info, 0, "Can't write appdb operation journal since there's no active shadow."))
        << log.dump();
    EXPECT_FALSE(kt::file_exists(l.shadow + "/1/c/p/appdb.1.journal"));
}

TEST(ShadowJournalContext, PoHandleStatementsAreJournalledInOrder) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    const std::string dir = l.po_dir("3");
    boost::shared_ptr<PODBShadow> shadow = ctx->pool->get(dir);
    add_version(*shadow, "podb", "po");
    ASSERT_EQ(0u, shadow->persist_chksum("podb"));
    boost::shared_ptr<PODB> handle(new FakePODB(dir, {"INSERT INTO po VALUES(1)", "INSERT INTO po VALUES(2)"}));
    EXPECT_EQ(0u, ctx->write_journal(handle));
    EXPECT_EQ("INSERT INTO po VALUES(1);\nINSERT INTO po VALUES(2);\n", kt::read_file(l.shadow + "/3/podb.1.journal"));
        std::unique_ptr<PODBShadow> loaded_owner(new PODBShadow(nullptr, dir, l.shadow + "/3"));
    PODBShadow& loaded = *loaded_owner;
    ASSERT_EQ(0u, loaded.load_versions("podb", true));
    EXPECT_EQ(2u, loaded.get_db_versions_("podb")->front().journal_lines);
}

TEST(ShadowJournalContext, PoHandleStopsAtTheFirstFailureAndKeepsTheLinesBefore) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    const std::string dir = l.po_dir("3");
    boost::shared_ptr<PODBShadow> shadow = ctx->pool->get(dir);
    add_version(*shadow, "podb", "po");
    ASSERT_EQ(0u, shadow->persist_chksum("podb"));
    ASSERT_EQ(0u, ctx->write_journal(dir, "podb", "FIRST"));
    const std::string journal = l.shadow + "/3/podb.1.journal";
    int writes = 0;
    dct::set_fault_hook([&](dct::fault_op op, const char* path) {
        if (op == dct::fault_op::write && journal == path && ++writes == 2) return ENOSPC;
        return 0;
    });
    kt::LogCapture log;
    boost::shared_ptr<PODB> handle(new FakePODB(dir, {"S1", "S2", "S3"}));
    EXPECT_EQ(CR_STATUS_IO, ctx->write_journal(handle));
    dct::set_fault_hook(nullptr);
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_IO, "write_journal: failed to write journal line [S2]"))
        << log.dump();
    EXPECT_EQ(0u, log.count_containing("[S3]"));
    // No database to copy in place of the journal: the change is reported
    // unprotected, once.
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_IO,
                            "write_journal: the change to podb in " + dir +
                                " is in the database but not protected by its shadow"))
        << log.dump();
    // The line written before the failed one stays: its change is made.
    EXPECT_EQ("FIRST;\nS1;\n", kt::read_file(journal));
    EXPECT_EQ(0u, ctx->write_journal(dir, "podb", "NEXT"));
    EXPECT_EQ("FIRST;\nS1;\nNEXT;\n", kt::read_file(journal));
}

// A failed line of a PO handle's run is protected by a new version of the
// database instead, whose journal starts clean.
TEST(ShadowJournalContext, PoHandleFailureTakesANewVersion) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    const std::string dir = l.po_dir("3");
    ASSERT_EQ(0, wa_createtree(dir, 0755));
    {
        sqlite3* db = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open((dir + "/" + PODBShadow::db_file_name("podb")).c_str(), &db));
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "CREATE TABLE po(basename TEXT);", nullptr, nullptr, nullptr));
        sqlite3_close(db);
    }
    ASSERT_EQ(0u, ctx->backup(dir, "podb"));
    {
        // The handle's change, made in the database.
        sqlite3* db = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open((dir + "/" + PODBShadow::db_file_name("podb")).c_str(), &db));
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "INSERT INTO po VALUES('S1');", nullptr, nullptr, nullptr));
        sqlite3_close(db);
    }
    const std::string journal = l.shadow + "/3/podb.1.journal";
    dct::set_fault_hook([&](dct::fault_op op, const char* path) {
        return op == dct::fault_op::write && journal == path ? EIO : 0;
    });
    kt::LogCapture log;
    boost::shared_ptr<PODB> handle(new FakePODB(dir, {"S1"}));
    EXPECT_EQ(0u, ctx->write_journal(handle)) << log.dump();
    dct::set_fault_hook(nullptr);
    EXPECT_EQ(1u, log.count(log_level::info, CR_STATUS_OK,
                            "write_journal: journal of podb in " + dir + " not written, taking a new shadow copy"))
        << log.dump();
    EXPECT_EQ(0u, log.count_containing("not protected"));
    EXPECT_EQ(2u, ctx->pool->get(dir)->get_version_count("podb"));
}

// Threads sharing one directory's shadow: every line lands whole, and the
// checksum file counts all of them.
TEST(ShadowJournalContext, ConcurrentWritersKeepTheJournalWhole) {
    PoolLayout l;
    std::unique_ptr<CatalogShadowContext> ctx = l.context();
    const std::string dir = l.app_dir("1/c/p");
    {
        boost::shared_ptr<PODBShadow> shadow = ctx->pool->get(dir);
        add_version(*shadow, "appdb", "base");
        ASSERT_EQ(0u, shadow->persist_chksum("appdb"));
    }
    const int threads = 4;
    const int lines = 10;
    std::atomic<int> failures{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < lines; ++i) {
                std::string stmt = "INSERT INTO catalog VALUES(" + std::to_string(t) + ", " + std::to_string(i) + ")";
                if (ctx->write_journal(dir, "appdb", stmt) != 0) ++failures;
                if (!ctx->has_shadow_copy(dir, "appdb")) ++failures;
            }
        });
    }
    for (std::thread& w : workers) w.join();
    EXPECT_EQ(0, failures.load());

    const std::string sdir = l.shadow + "/1/c/p";
    std::istringstream in(kt::read_file(sdir + "/appdb.1.journal"));
    std::string line;
    std::vector<int> next(threads, 0);
    int count = 0;
    while (std::getline(in, line)) {
        int t = -1, i = -1;
        ASSERT_EQ(2, sscanf(line.c_str(), "INSERT INTO catalog VALUES(%d, %d);", &t, &i)) << line;
        ASSERT_TRUE(t >= 0 && t < threads);
        EXPECT_EQ(next[t]++, i);  // each thread's lines in its own order
        ++count;
    }
    EXPECT_EQ(threads * lines, count);
    std::unique_ptr<PODBShadow> loaded(new PODBShadow(nullptr, dir, sdir));
    ASSERT_EQ(0u, loaded->load_versions("appdb", true));
    ShadowVersion& v = loaded->get_db_versions_("appdb")->front();
    EXPECT_EQ(static_cast<uint32_t>(threads * lines), v.journal_lines);
    EXPECT_TRUE(v.check_crc_journal());
}

// Replay: a copy of the version plus its journal gives the same table as the
// statements run directly.
TEST(ShadowJournalReplay, ReplayEqualsDirectExecution) {
    JournalDir d;
    const std::string base = d.tmp.file("base.db");
    run_sql(base, "CREATE TABLE catalog(id INTEGER PRIMARY KEY, name TEXT, size INTEGER);"
                  "INSERT INTO catalog VALUES(1, 'old', 10);");
    const std::string base_bytes = kt::read_file(base);
    std::unique_ptr<PODBShadow> shadow(new PODBShadow(nullptr, d.real, d.dir));
    add_version(*shadow, "appdb", base_bytes);
    ASSERT_EQ(0u, shadow->persist_chksum("appdb"));

    const std::vector<std::string> statements = {
        "INSERT INTO catalog VALUES(2, 'it''s; here', 20)",
        "UPDATE catalog SET size = size + 1 WHERE id = 1;",
        "INSERT INTO catalog VALUES(3, 'multi\nline', 30)",
        "DELETE FROM catalog WHERE id = 2",
        "INSERT INTO catalog VALUES(4, 'four', 40)",
    };
    for (const std::string& s : statements) {
        ASSERT_EQ(0u, shadow->write_journal("appdb", s));
        ASSERT_EQ(0u, shadow->flush_journal("appdb"));
        run_sql(base, s);
    }

    const std::string target = d.tmp.file("target.db");
    kt::write_file(target, base_bytes);
    kt::LogCapture log;
    {
        sqlitedb::sqlite3_wrapper db(target);
        ASSERT_EQ(0u, db.open_db());
        ShadowVersionListPtr list = shadow->get_db_versions_("appdb");
        EXPECT_EQ(0u, shadow->apply_journals(list->cbegin(), list->cend(), &db));
    }
    EXPECT_EQ(1u, log.count(log_level::info, 0, "Applying journal file " + d.file("appdb.1.journal"))) << log.dump();
    const std::string select = "SELECT id, name, size FROM catalog ORDER BY id;";
    EXPECT_EQ(dump(base, select), dump(target, select));
    EXPECT_EQ("1|old|11\n3|multi\nline|30\n4|four|40\n", dump(target, select));
}

TEST(ShadowJournalReplay, OldestFirstAndVersionsWithoutJournalAreSkipped) {
    JournalDir d;
    const std::string base = d.tmp.file("base.db");
    run_sql(base, "CREATE TABLE t(v TEXT);");
    std::unique_ptr<PODBShadow> shadow(new PODBShadow(nullptr, d.real, d.dir));
    add_version(*shadow, "appdb", "v1");  // journal: first
    ASSERT_EQ(0u, shadow->persist_chksum("appdb"));
    ASSERT_EQ(0u, shadow->write_journal("appdb", "INSERT INTO t VALUES('first')"));
    ASSERT_EQ(0u, shadow->flush_journal("appdb"));
    shadow->reset_db_active_journal_("appdb", boost::shared_ptr<JournalStream>());
    add_version(*shadow, "appdb", "v2");  // no journal file at all
    add_version(*shadow, "appdb", "v3");  // empty journal file
    kt::write_file(d.file("appdb.3.journal"), "");
    add_version(*shadow, "appdb", "v4");  // journal: second
    ASSERT_EQ(0u, shadow->persist_chksum("appdb"));
    ASSERT_EQ(0u, shadow->write_journal("appdb", "INSERT INTO t VALUES('second')"));
    ASSERT_EQ(0u, shadow->flush_journal("appdb"));

    kt::LogCapture log;
    {
        sqlitedb::sqlite3_wrapper db(base);
        ASSERT_EQ(0u, db.open_db());
        ShadowVersionListPtr list = shadow->get_db_versions_("appdb");
        EXPECT_EQ(0u, shadow->apply_journals(list->crbegin(), list->crend(), &db));
    }
    EXPECT_EQ("first\nsecond\n", dump(base, "SELECT v FROM t ORDER BY rowid;"));
    EXPECT_EQ(2u, log.count_containing("Applying journal file")) << log.dump();
    EXPECT_EQ(0u, log.count_containing("appdb.2.journal"));
    EXPECT_EQ(0u, log.count_containing("appdb.3.journal"));
}

TEST(ShadowJournalReplay, FailingJournalIsReported) {
    JournalDir d;
    const std::string base = d.tmp.file("base.db");
    run_sql(base, "CREATE TABLE t(v TEXT);");
    std::unique_ptr<PODBShadow> shadow(new PODBShadow(nullptr, d.real, d.dir));
    add_version(*shadow, "appdb", "v1");
    ASSERT_EQ(0u, shadow->persist_chksum("appdb"));
    ASSERT_EQ(0u, shadow->write_journal("appdb", "INSERT INTO missing_table VALUES(1)"));
    ASSERT_EQ(0u, shadow->flush_journal("appdb"));
    kt::LogCapture log;
    sqlitedb::sqlite3_wrapper db(base);
    ASSERT_EQ(0u, db.open_db());
    ShadowVersionListPtr list = shadow->get_db_versions_("appdb");
    EXPECT_EQ(CR_STATUS_FAILED, shadow->apply_journals(list->cbegin(), list->cend(), &db));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_FAILED, "Failed to apply journal file " + d.file("appdb.1.journal")))
        << log.dump();
}

TEST(ShadowJournalReplay, PoCleanupDropsMarkedRows) {
    JournalDir d;
    const std::string base = d.tmp.file("po.db");
    run_sql(base, "CREATE TABLE po(basename TEXT);");
    std::unique_ptr<PODBShadow> shadow(new PODBShadow(nullptr, d.real, d.dir));
    add_version(*shadow, "podb", "v1");
    ASSERT_EQ(0u, shadow->persist_chksum("podb"));
    ASSERT_EQ(0u, shadow->write_journal("podb", "INSERT INTO po VALUES('keep'), ('drop[R_1]'), ('keep[x]')"));
    ASSERT_EQ(0u, shadow->flush_journal("podb"));
    sqlitedb::sqlite3_wrapper db(base);
    ASSERT_EQ(0u, db.open_db());
    ShadowVersionListPtr list = shadow->get_db_versions_("podb");
    EXPECT_EQ(0u, shadow->apply_journals(list->cbegin(), list->cend(), &db));
    db.close_db(3);
    EXPECT_EQ("keep\nkeep[x]\n", dump(base, "SELECT basename FROM po ORDER BY rowid;"));
}

TEST(ShadowJournalReplay, DatabaseWithoutPoTableIsNotAnError) {
    JournalDir d;
    const std::string base = d.tmp.file("app.db");
    run_sql(base, "CREATE TABLE t(v TEXT);");
    std::unique_ptr<PODBShadow> shadow(new PODBShadow(nullptr, d.real, d.dir));
    add_version(*shadow, "appdb", "v1");
    kt::LogCapture log;
    sqlitedb::sqlite3_wrapper db(base);
    ASSERT_EQ(0u, db.open_db());
    ShadowVersionListPtr list = shadow->get_db_versions_("appdb");
    EXPECT_EQ(0u, shadow->apply_journals(list->cbegin(), list->cend(), &db));
    for (const kt::LogRecord& r : log.records()) EXPECT_NE(log_level::error, r.level) << r.message;
}
