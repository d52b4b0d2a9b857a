// Removals check the rows they remove: del_catalog and expire_catalog apply
// the access rule to every row their statement selects, inside the
// removal's transaction, remove only the caller's rows, and journal exactly
// those, so that a replay removes the same rows.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_impl.h"
#include "catalog_shadow_fixture.h"
#include "catalog_test_helpers.h"
#include "common/test_util.h"

namespace {

using appdb::app_catalog_item;
using catt::make_item;
using dct::log_level;

// ---- the plain catalog ----

// The names of the rows of `file`, in order, joined by ",".
std::string stored_names(const std::string& file) {
    return catt::raw_scalar(file, "SELECT group_concat(name, ',') FROM (SELECT name FROM catalog ORDER BY name)");
}

class RemovalCheck : public catt::catalog_fixture {
protected:
    std::string names() const { return stored_names(db_file("c", "p")); }
};

// Owner A owns "Za"; owner B owns a record literally named "Z*". A pattern
// character in a delete's name is a plain character: A's delete of "Z*"
// selects only B's record, is refused, and removes nothing.
TEST_F(RemovalCheck, DeleteOfAnotherOwnersRecordNamedLikeAPatternIsRefused) {
    insert(make_item("c", "p", "Za", "B1", 100, "A", 4));
    insert(make_item("c", "p", "Z*", "B2", 200, "B", 4));
    log.clear();
    EXPECT_EQ(106u, app->del_catalog("A", 4, "name|c,p,Z*"));
    EXPECT_EQ(1u, log.count(log_level::error, 106, "del_catalog: authenticate failed for user A , app owner B"))
        << log.dump();
    EXPECT_EQ(1u, log.count_containing("authenticate")) << log.dump();
    EXPECT_EQ("Z*,Za", names());
}

// B's delete of "Z*" removes its own record, although "Za" (A's) is the
// first record the pattern would match.
TEST_F(RemovalCheck, DeleteOfOwnRecordNamedLikeAPatternRemovesOnlyIt) {
    insert(make_item("c", "p", "Za", "B1", 100, "A", 4));
    insert(make_item("c", "p", "Z*", "B2", 200, "B", 4));
    log.clear();
    EXPECT_EQ(0u, app->del_catalog("B", 4, "name|c,p,Z*")) << log.dump();
    EXPECT_EQ("Za", names());
    EXPECT_EQ(0u, log.count_containing("authenticate failed")) << log.dump();
}

TEST_F(RemovalCheck, DeleteOfAMissingNameIsNotFound) {
    insert(make_item("c", "p", "Za", "B1", 100, "A", 4));
    log.clear();
    EXPECT_EQ(72u, app->del_catalog("A", 4, "name|c,p,Z*"));
    EXPECT_EQ(1u, log.count(log_level::error, 72, "del_catalog: can't find app catalog from name|c,p,Z*"))
        << log.dump();
    EXPECT_EQ("Za", names());
}

// A backup whose records have two owners: each removes only its own, a
// warning says how many stay; a caller who owns none is refused with 106.
TEST_F(RemovalCheck, ExpireRemovesOnlyTheCallersRecordsOfABackup) {
    insert(make_item("c", "p", "a1", "cl_1", 100, "A", 4));
    insert(make_item("c", "p", "b1", "cl_1", 150, "B", 4));
    insert(make_item("c", "p", "a2", "cl_1", 200, "A", 4));
    insert(make_item("c", "p", "x", "cl_2", 200, "A", 4));
    log.clear();
    EXPECT_EQ(106u, app->expire_catalog("C", 4, "c", "p", "cl_1_C1_HDR", true));
    EXPECT_EQ(1u, log.count(log_level::error, 106, "expire_catalog: authenticate failed for user C , app owner A"))
        << log.dump();
    EXPECT_EQ("a1,a2,b1,x", names());
    log.clear();
    EXPECT_EQ(0u, app->expire_catalog("A", 4, "c", "p", "cl_1_C1_HDR", true)) << log.dump();
    EXPECT_EQ(1u, log.count(log_level::warning, 0,
                            "expire_catalog: removed 2 of 3 records of cl_1; 1 of other owners (first B) stay"))
        << log.dump();
    EXPECT_EQ("b1,x", names());
    log.clear();
    EXPECT_EQ(0u, app->expire_catalog("B", 4, "c", "p", "cl_1_C1_HDR", true)) << log.dump();
    EXPECT_EQ(0u, log.count_containing("records of cl_1")) << log.dump();
    EXPECT_EQ("x", names());
}

// An administrator's record is not removed by its owner-named user either.
TEST_F(RemovalCheck, AdministratorRecordsStayForAnApplicationUser) {
    insert(make_item("c", "p", "f", "cl_1", 100, "A", 1));
    log.clear();
    EXPECT_EQ(106u, app->del_catalog("A", 4, "name|c,p,f"));
    EXPECT_EQ(106u, app->expire_catalog("A", 4, "c", "p", "cl_1_C1_HDR", true));
    EXPECT_EQ("f", names());
    EXPECT_EQ(0u, app->del_catalog("admin", 1, "name|c,p,f"));
    EXPECT_EQ(0, catt::raw_count(db_file("c", "p")));
}

// The check is made inside the removal's own transaction: while another
// connection holds the database, the removal waits (busy retries), and the
// owner it checks is the owner when it runs, not when it was asked.
TEST_F(RemovalCheck, TheRowCheckedIsTheRowAsTheRemovalFindsIt) {
    insert(make_item("c", "p", "f", "cl_1", 100, "B", 4));
    const std::string file = db_file("c", "p");
    // Connections opened from here on give up a lock wait at once.
    ASSERT_EQ(0u, app->close_db(root + "/application/2/c/p", 0, true));
    catt::busy_timeout_scope fast_busy{2};
    catt::exclusive_holder holder(file);
    sleeps.on_sleep = [&](int call) {
        if (call != 2) return;
        // Meanwhile the record changes hands: B's goes, A's comes.
        holder.release();
        appdb::catalog_application_impl other(2, root, 5);
        other.dir_lock.reset(new CatalogDirectoryLock());
        ASSERT_EQ(0u, other.del_catalog("B", 4, "name|c,p,f"));
        ASSERT_EQ(0u, other.update_catalog("A", 4, make_item("c", "p", "f", "cl_1", 100, "A", 4).to_string()));
    };
    log.clear();
    EXPECT_EQ(0u, app->del_catalog("A", 4, "name|c,p,f")) << log.dump();
    EXPECT_EQ(2, sleeps.calls());
    EXPECT_TRUE(log.contains(log_level::warning, 11, "do_db_delete_by_file_name: 0 busy when deleting f"))
        << log.dump();
    EXPECT_EQ(0, catt::raw_count(file));
}

// ---- the protected catalog: what the journal holds ----

class ShadowRemovalCheck : public shadowt::shadow_fixture {
protected:
    std::vector<std::string> journal() const {
        std::vector<std::string> out;
        const std::string dir = shadow_dir("c", "p");
        for (const std::string& name : kt::list_dir(dir)) {
            if (name.size() < 8 || name.compare(name.size() - 8, 8, ".journal") != 0) continue;
            const std::string text = kt::read_file(dir + "/" + name);
            size_t start = 0;
            for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
                out.push_back(text.substr(start, nl - start));
            }
        }
        return out;
    }
    // Loses the database and recovers it from its copy and journal.
    void lose_and_recover() {
        restart_app();
        shadowt::delete_database(db_file("c", "p"));
        ASSERT_EQ(0u, ctx->recover(db_dir("c", "p"), "appdb", 0)) << log.dump();
    }
    std::string names() const { return stored_names(db_file("c", "p")); }
};

TEST_F(ShadowRemovalCheck, PartialExpireJournalsExactlyTheRowsRemoved) {
    insert(make_item("c", "p", "a'1", "cl_1", 100, "A", 4));
    insert(make_item("c", "p", "b1", "cl_1", 150, "B", 4));
    insert(make_item("c", "p", "a2", "cl_1", 200, "A", 4));
    const size_t lines = journal().size();
    EXPECT_EQ(0u, app->expire_catalog("A", 4, "c", "p", "cl_1_C1_HDR", true)) << log.dump();
    const std::vector<std::string> after = journal();
    ASSERT_EQ(lines + 1, after.size());
    EXPECT_EQ("DELETE FROM catalog WHERE name IN ('a''1', 'a2');", after.back());
    EXPECT_EQ("b1", names());
    lose_and_recover();
    EXPECT_EQ("b1", names());
}

TEST_F(ShadowRemovalCheck, RefusedRemovalsJournalNothing) {
    insert(make_item("c", "p", "Za", "cl_1", 100, "A", 4));
    insert(make_item("c", "p", "Z*", "cl_1", 200, "B", 4));
    const size_t lines = journal().size();
    EXPECT_EQ(106u, app->del_catalog("A", 4, "name|c,p,Z*"));
    EXPECT_EQ(106u, app->expire_catalog("C", 4, "c", "p", "cl_1_C1_HDR", true));
    EXPECT_EQ(1u, log.count(log_level::error, 106, "del_catalog: authenticate failed for user A , app owner B"))
        << log.dump();
    EXPECT_EQ(1u, log.count(log_level::error, 106, "expire_catalog: authenticate failed for user C, app owner A"))
        << log.dump();
    EXPECT_EQ(lines, journal().size());
    lose_and_recover();
    EXPECT_EQ("Z*,Za", names());
}

// When every selected row may go, the statement journalled is the key's own
// delete, as before.
TEST_F(ShadowRemovalCheck, WholeRemovalsJournalTheKeysDelete) {
    insert(make_item("c", "p", "Za", "cl_1", 100, "A", 4));
    insert(make_item("c", "p", "Z*", "cl_1", 200, "B", 4));
    insert(make_item("c", "p", "y", "cl_2", 200, "A", 4));
    EXPECT_EQ(0u, app->del_catalog("B", 4, "name|c,p,Z*")) << log.dump();
    EXPECT_EQ("DELETE FROM catalog WHERE name = ('Z*');", journal().back());
    EXPECT_EQ(0u, app->expire_catalog("admin", 1, "c", "p", "cl_1_C1_HDR", true)) << log.dump();
    EXPECT_EQ("DELETE FROM catalog WHERE backupid = ('cl_1');", journal().back());
    lose_and_recover();
    EXPECT_EQ("y", names());
}

}  // namespace
