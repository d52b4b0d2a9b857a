// Group commit: changes that threads of one process make to one database at
// the same moment wait in line, and the first in line commits them together
// (one transaction, a savepoint each, one journal append and sync), handing
// each caller its own status. A group is formed deterministically here:
// another thread holds the database's directory while the callers get in
// line, and lets it go once all of them wait.
#include <string.h>

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_shadow.h"
#include "catalog_group_helpers.h"
#include "catalog_shadow/shadow_test_helpers.h"
#include "catalog_shadow_fixture.h"
#include "common/sqlite_test_vfs.h"
#include "dct/fault.h"

namespace {

using appdb::app_catalog_item;
using appdb::catalog_application_base;

using groupt::one_group;

// Counts the syncs of the catalog's files: SQLite's (the test file layer)
// and those of the shadow's journal and checksum file (the fault seam).
class sync_counter {
public:
    sync_counter() {
        kt::SqliteTestVfs::set_hooks(nullptr, [this](kt::vfs_op op, const std::string& path, int) {
            if (op == kt::vfs_op::sync && path.find("/app.db") != std::string::npos) ++database;
        });
        dct::set_fault_hook([this](dct::fault_op op, const char* path) {
            const std::string p = path != nullptr ? path : "";
            if (p.find(".journal") != std::string::npos) {
                if (op == dct::fault_op::write) ++journal_writes;
                if (op == dct::fault_op::fsync) ++journal_syncs;
            }
            if (op == dct::fault_op::fsync && p.find(".chksum.appdb") != std::string::npos) ++checksum_syncs;
            return 0;
        });
    }
    ~sync_counter() {
        kt::SqliteTestVfs::set_hooks(nullptr, nullptr);
        dct::set_fault_hook(dct::fault_hook());
    }
    void reset() { database = journal_writes = journal_syncs = checksum_syncs = 0; }

    std::atomic<int> database{0};
    std::atomic<int> journal_writes{0};
    std::atomic<int> journal_syncs{0};
    std::atomic<int> checksum_syncs{0};
};

class GroupCommit : public shadowt::shadow_fixture {
protected:
    void SetUp() override {
        // Before any connection is opened: every one goes through it.
        kt::SqliteTestVfs::install();
        shadowt::shadow_fixture::SetUp();
    }

    catalog_application_base& base() { return *dynamic_cast<catalog_application_base*>(app.get()); }

    std::function<cr_status_t()> insert_call(const app_catalog_item& item) {
        return [this, item] { return app->update_catalog("alice", 4, item.to_string()); };
    }

    // Journal text of every version of the database of c/p.
    std::string journal_text() {
        std::string text;
        for (const std::string& name : kt::list_dir(shadow_dir("c", "p"))) {
            if (name.size() > 8 && name.compare(name.size() - 8, 8, ".journal") == 0) {
                text += kt::read_file(shadow_dir("c", "p") + "/" + name);
            }
        }
        return text;
    }

    // The rows after the database is lost and recovered from its shadow.
    std::map<std::string, std::string> rows_after_recovery() {
        restart_app();
        shadowt::delete_database(db_file("c", "p"));
        EXPECT_EQ(0u, ctx->recover(db_dir("c", "p"), "appdb", 0)) << log.dump();
        return shadowt::read_back(*app, "c", "p");
    }
};

TEST_F(GroupCommit, ChangesWaitingInLineAreCommittedTogetherWithOneSyncChain) {
    insert(catt::make_item("c", "p", "seed", "bid"));
    // What one change alone costs.
    sync_counter syncs;
    insert(catt::make_item("c", "p", "lone", "bid"));
    const int lone_database_syncs = syncs.database;
    EXPECT_GT(lone_database_syncs, 0);
    EXPECT_EQ(1, syncs.journal_writes);
    EXPECT_EQ(1, syncs.journal_syncs);
    EXPECT_EQ(1, syncs.checksum_syncs);

    syncs.reset();
    std::vector<std::function<cr_status_t()>> calls;
    std::vector<app_catalog_item> items;
    for (int i = 1; i <= 6; ++i) {
        items.push_back(catt::make_item("c", "p", "g" + std::to_string(i), "bid"));
        calls.push_back(insert_call(items.back()));
    }
    const std::vector<cr_status_t> statuses = one_group(base(), db_dir("c", "p"), calls);
    EXPECT_EQ(std::vector<cr_status_t>(6, 0), statuses) << log.dump();
    for (const app_catalog_item& item : items) model.insert(item);

    const appdb::commit_statistics stats = base().group_statistics();
    EXPECT_EQ(1u, stats.groups);
    EXPECT_EQ(6u, stats.grouped);
    EXPECT_EQ(6u, stats.largest);
    EXPECT_EQ(0u, stats.given_up);
    // Six rows for the syncs of one: one commit, one journal append and sync,
    // one checksum file.
    EXPECT_EQ(lone_database_syncs, syncs.database.load());
    EXPECT_EQ(1, syncs.journal_writes);
    EXPECT_EQ(1, syncs.journal_syncs);
    EXPECT_EQ(1, syncs.checksum_syncs);
    EXPECT_EQ(8u, shadowt::journal_lines(shadow_dir("c", "p")));
    EXPECT_EQ(0u, base().waiting_changes(db_dir("c", "p")));

    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p")));
    EXPECT_TRUE(shadowt::same_rows(model.rows(), rows_after_recovery())) << log.dump();
}

// In one group: inserts, a second row of one file name (4), a row over
// SQLite's length limit (4), a delete the caller may not make (106), a
// delete it may make. Each caller gets its own status, the refused changes
// leave nothing (no row, no journal line), the others are committed,
// journalled and recovered. (An expiry joins a line too, but only after its
// lookup, which needs the directory this test holds.)
TEST_F(GroupCommit, EachChangeOfAGroupKeepsItsOwnStatus) {
    insert(catt::make_item("c", "p", "keep", "bid"));
    insert(catt::make_item("c", "p", "bobs", "bid", 100, "bob"));
    insert(catt::make_item("c", "p", "gone", "bid"));
    // Rows longer than 100000 bytes are refused by the cached connection.
    {
        appdb::appdb_value* value = base().cache->get_db(db_dir("c", "p"));
        ASSERT_NE(nullptr, value);
        sqlite3_limit(value->store->connection(), SQLITE_LIMIT_LENGTH, 100000);
        ASSERT_TRUE(base().cache->return_db(db_dir("c", "p"), value));
    }
    app_catalog_item twice = catt::make_item("c", "p", "keep", "second_bid");
    app_catalog_item too_long = catt::make_item("c", "p", "long", "bid");
    too_long.description = std::string(40000, 'd');
    too_long.reserver0 = std::string(40000, 'e');
    too_long.reserver1 = std::string(40000, 'f');
    const app_catalog_item n1 = catt::make_item("c", "p", "new1", "bid");
    const app_catalog_item n2 = catt::make_item("c", "p", "new2", "bid");

    log.clear();
    const std::vector<cr_status_t> statuses = one_group(
        base(), db_dir("c", "p"),
        {insert_call(n1), insert_call(twice), insert_call(too_long),
         [this] { return app->del_catalog("alice", 4, "name|c,p,bobs"); },
         [this] { return app->del_catalog("alice", 4, "name|c,p,gone"); }, insert_call(n2)});
    EXPECT_EQ(std::vector<cr_status_t>({0, CR_STATUS_FAILED, CR_STATUS_FAILED, CR_STATUS_ACCESS_DENIED, 0, 0}),
              statuses)
        << log.dump();
    const appdb::commit_statistics stats = base().group_statistics();
    EXPECT_EQ(1u, stats.groups);
    EXPECT_EQ(6u, stats.largest) << log.dump();
    EXPECT_EQ(0u, stats.given_up);

    // Each refusal logged as it is when the change runs alone.
    EXPECT_EQ(1u, log.count(dct::log_level::error, CR_STATUS_FAILED,
                            "do_db_insert: failed to insert keep to db " + db_file("c", "p")))
        << log.dump();
    EXPECT_EQ(1u, log.count(dct::log_level::error, CR_STATUS_FAILED,
                            "do_db_insert: failed to insert long to db " + db_file("c", "p")))
        << log.dump();
    EXPECT_EQ(1u, log.count(dct::log_level::error, CR_STATUS_ACCESS_DENIED,
                            "del_catalog: authenticate failed for user alice , app owner bob"))
        << log.dump();

    model.insert(n1);
    model.insert(n2);
    model.erase("gone");
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p")));
    const std::string journal = journal_text();
    EXPECT_EQ(std::string::npos, journal.find("second_bid")) << journal;
    EXPECT_EQ(std::string::npos, journal.find("ddddd"));
    EXPECT_EQ(std::string::npos, journal.find("WHERE name = ('bobs')"));
    EXPECT_NE(std::string::npos, journal.find("'new1'"));
    EXPECT_NE(std::string::npos, journal.find("'new2'"));
    EXPECT_NE(std::string::npos, journal.find("WHERE name = ('gone')"));
    EXPECT_TRUE(shadowt::same_rows(model.rows(), rows_after_recovery())) << log.dump();
}

TEST_F(GroupCommit, GroupsKeepTheirBounds) {
    insert(catt::make_item("c", "p", "seed", "bid"));
    base().use_commit_bounds(3u, std::nullopt);
    std::vector<std::function<cr_status_t()>> calls;
    for (int i = 1; i <= 7; ++i) {
        const app_catalog_item item = catt::make_item("c", "p", "a" + std::to_string(i), "bid");
        model.insert(item);
        calls.push_back(insert_call(item));
    }
    EXPECT_EQ(std::vector<cr_status_t>(7, 0), one_group(base(), db_dir("c", "p"), calls)) << log.dump();
    appdb::commit_statistics stats = base().group_statistics();
    EXPECT_EQ(3u, stats.largest);
    EXPECT_EQ(2u, stats.sizes[3]);
    EXPECT_EQ(1u, stats.alone);

    // Bytes: room for two rows of this size in a group, not three.
    const size_t row = catt::make_item("c", "p", "b1", "bid").to_string().size();
    base().use_commit_bounds(std::nullopt, 2 * row + row / 2);
    calls.clear();
    for (int i = 1; i <= 5; ++i) {
        const app_catalog_item item = catt::make_item("c", "p", "b" + std::to_string(i), "bid");
        model.insert(item);
        calls.push_back(insert_call(item));
    }
    EXPECT_EQ(std::vector<cr_status_t>(5, 0), one_group(base(), db_dir("c", "p"), calls)) << log.dump();
    stats = base().group_statistics();
    EXPECT_EQ(2u, stats.largest);
    EXPECT_EQ(2u, stats.sizes[2]);
    EXPECT_EQ(1u, stats.alone);

    // A bound of one change: no line at all, every change on its own.
    base().use_commit_bounds(1u, std::nullopt);
    calls.clear();
    for (int i = 1; i <= 3; ++i) {
        const app_catalog_item item = catt::make_item("c", "p", "s" + std::to_string(i), "bid");
        model.insert(item);
        calls.push_back(insert_call(item));
    }
    {
        shadow_test::held_directory holder(db_dir("c", "p"));
        std::vector<std::thread> threads;
        for (auto& call : calls) threads.emplace_back([&call] { EXPECT_EQ(0u, call()); });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(0u, base().waiting_changes(db_dir("c", "p")));
        holder.release();
        for (std::thread& t : threads) t.join();
    }
    stats = base().group_statistics();
    EXPECT_EQ(0u, stats.groups + stats.alone);
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p")));
}

// The records captured, as "LEVEL STATUS message", sorted, with `from`
// replaced by `to` in every message, and what depends on the name or the
// moment beyond it (the row checksum in a journal text, the cache's visit
// times) made the same.
std::vector<std::string> records_as(const kt::LogCapture& log, const std::string& from, const std::string& to) {
    static const std::regex crc("'r9', -?[0-9]+\\)");
    static const std::regex visit("time_visit_ [0-9]+");
    std::vector<std::string> out;
    for (const kt::LogRecord& r : log.records()) {
        std::string m = r.message;
        for (size_t at = m.find(from); at != std::string::npos; at = m.find(from, at + to.size())) {
            m.replace(at, from.size(), to);
        }
        m = std::regex_replace(std::regex_replace(m, crc, "'r9', CRC)"), visit, "time_visit_ T");
        out.push_back(std::to_string(static_cast<int>(r.level)) + " " + std::to_string(r.status) + " " + m);
    }
    std::sort(out.begin(), out.end());
    return out;
}

TEST_F(GroupCommit, LoneWriterGoesStraightThroughWithTheRecordsOfBefore) {
    kt::TraceSwitch trace(true);
    insert(catt::make_item("c", "p", "seed", "bid"));
    log.clear();
    insert(catt::make_item("c", "p", "via_line", "bid"));
    const std::vector<std::string> through_line = records_as(log, "via_line", "the_item");
    appdb::commit_statistics stats = base().group_statistics();
    EXPECT_EQ(2u, stats.alone);
    EXPECT_EQ(0u, stats.groups);
    EXPECT_EQ(0u, base().waiting_changes(db_dir("c", "p")));

    // The same insert with no line at all.
    base().use_commit_bounds(1u, std::nullopt);
    log.clear();
    insert(catt::make_item("c", "p", "no__line", "bid"));
    EXPECT_EQ(through_line, records_as(log, "no__line", "the_item"));
}

// Every record of a change (its operation's, its row's, its journal line's)
// is the same in a group as alone; only what the group does once for all of
// them is not repeated.
TEST_F(GroupCommit, RecordsOfAGroupAreThoseOfItsChangesRunAlone) {
    kt::TraceSwitch trace(true);
    insert(catt::make_item("c", "p", "seed", "bid"));
    std::vector<std::function<cr_status_t()>> calls;
    for (int i = 1; i <= 4; ++i) calls.push_back(insert_call(catt::make_item("c", "p", "grp" + std::to_string(i), "bid")));
    calls.push_back(insert_call(catt::make_item("c", "p", "seed", "again")));  // refused: 4
    log.clear();
    EXPECT_EQ(std::vector<cr_status_t>({0, 0, 0, 0, CR_STATUS_FAILED}), one_group(base(), db_dir("c", "p"), calls));
    std::vector<std::string> grouped = records_as(log, "grp", "one");
    // The group's own record is the one that alone runs do not have.
    const std::string own = "3 " + std::to_string(CR_STATUS_NONE) + " commit_change: 5 changes to " + db_dir("c", "p") + " committed together";
    auto at = std::find(grouped.begin(), grouped.end(), own);
    ASSERT_NE(grouped.end(), at) << log.dump();
    grouped.erase(at);

    base().use_commit_bounds(1u, std::nullopt);
    log.clear();
    for (int i = 1; i <= 4; ++i) {
        EXPECT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("c", "p", "one" + std::to_string(i), "bid").to_string()));
    }
    EXPECT_EQ(CR_STATUS_FAILED, app->update_catalog("alice", 4, catt::make_item("c", "p", "seed", "again").to_string()));
    std::vector<std::string> alone = records_as(log, "grp", "one");
    // What a group does once for all its changes: borrow the store from the
    // cache and give it back, write the checksum file.
    const auto shared = [](const std::string& r) {
        for (const char* once : {" get_db: ", " return_db: ", " add_priority: ", " Persist the shadow checksum file "}) {
            if (r.find(once) != std::string::npos) return true;
        }
        return false;
    };
    EXPECT_EQ(4, std::count_if(grouped.begin(), grouped.end(), shared));
    EXPECT_EQ(5 * 3 + 4, std::count_if(alone.begin(), alone.end(), shared));
    grouped.erase(std::remove_if(grouped.begin(), grouped.end(), shared), grouped.end());
    alone.erase(std::remove_if(alone.begin(), alone.end(), shared), alone.end());
    EXPECT_EQ(alone, grouped);
}

// A database that turns out damaged when a group starts: the group is given
// up before anything is written, and each change runs alone, where the first
// recovers the database (once) and every change is committed.
TEST_F(GroupCommit, DamagedDatabaseGivesTheGroupUpAndTheChangesRecoverAlone) {
    for (int i = 0; i < 5; ++i) insert(catt::make_item("c", "p", "r" + std::to_string(i), "bid"));
    restart_app();
    std::mt19937 rng(7);
    shadowt::damage_header(db_file("c", "p"), rng);
    std::vector<std::function<cr_status_t()>> calls;
    for (int i = 1; i <= 3; ++i) {
        const app_catalog_item item = catt::make_item("c", "p", "g" + std::to_string(i), "bid");
        model.insert(item);
        calls.push_back(insert_call(item));
    }
    log.clear();
    EXPECT_EQ(std::vector<cr_status_t>(3, 0), one_group(base(), db_dir("c", "p"), calls)) << log.dump();
    const appdb::commit_statistics stats = base().group_statistics();
    EXPECT_EQ(1u, stats.groups);
    EXPECT_EQ(1u, stats.given_up);
    EXPECT_EQ(1u, log.count_containing("corrupt, to do recover from shadow")) << log.dump();
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p")));
    EXPECT_TRUE(shadowt::same_rows(model.rows(), rows_after_recovery())) << log.dump();
}

// A thread that holds the directory itself is never put in line behind a
// front that waits for that very directory.
TEST_F(GroupCommit, ThreadHoldingTheDirectoryDoesNotWaitInLine) {
    insert(catt::make_item("c", "p", "seed", "bid"));
    CatalogDirectoryLock lock;
    ASSERT_EQ(0u, lock.Lock(db_dir("c", "p"), 2));
    cr_status_t other = CR_STATUS_NONE;
    std::thread front([&] { other = app->update_catalog("alice", 4, catt::make_item("c", "p", "other", "bid").to_string()); });
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(4);
    while (base().waiting_changes(db_dir("c", "p")) < 1 && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(1u, base().waiting_changes(db_dir("c", "p")));
    EXPECT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("c", "p", "mine", "bid").to_string())) << log.dump();
    lock.Unlock(db_dir("c", "p"), 2);
    front.join();
    EXPECT_EQ(0u, other) << log.dump();
    EXPECT_EQ(3u, shadowt::read_back(*app, "c", "p").size());
}

// The plain catalog groups its changes the same way, without a journal.
TEST(PlainGroupCommit, ChangesAreCommittedTogetherWithTheirOwnStatuses) {
    kt::TempDir tmp;
    kt::LogCapture log;
    kt::SqliteTestVfs::install();
    std::unique_ptr<appdb::catalog_application> app(appdb::catalog_application_factory::create_catalog(
        2, tmp.path() + "/databases", appdb::APP_D_CATALOG, nullptr, 5));
    ASSERT_NE(nullptr, app);
    auto& base = *dynamic_cast<catalog_application_base*>(app.get());
    const std::string dir = base.to_db_full_path("c", "p");
    ASSERT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("c", "p", "seed", "bid").to_string()));
    sync_counter syncs;
    ASSERT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("c", "p", "lone", "bid").to_string()));
    const int lone = syncs.database;
    EXPECT_GT(lone, 0);
    syncs.reset();

    std::vector<std::function<cr_status_t()>> calls;
    for (const char* name : {"p1", "p2", "seed", "p3", "p4"}) {
        const std::string text = catt::make_item("c", "p", name, "bid2").to_string();
        calls.push_back([&app, text] { return app->update_catalog("alice", 4, text); });
    }
    EXPECT_EQ(std::vector<cr_status_t>({0, 0, CR_STATUS_FAILED, 0, 0}), one_group(base, dir, calls)) << log.dump();
    EXPECT_EQ(lone, syncs.database.load());
    const appdb::commit_statistics stats = base.group_statistics();
    EXPECT_EQ(1u, stats.groups);
    EXPECT_EQ(5u, stats.largest);
    std::vector<app_catalog_item> found;
    ASSERT_EQ(0u, app->find_catalog("admin", 1, "backup_id|c,p,*", found));
    EXPECT_EQ(6u, found.size());
    for (const app_catalog_item& item : found) {
        if (item.file_name == "seed") {
            EXPECT_EQ("bid", item.backup_id);
        }
    }
}

}  // namespace
