// A database file that another process replaces (a rebuilt file renamed over
// it) or removes between two operations is noticed by the next operation,
// whichever way the kept connection is checked: before its file's identity is
// known (the connection's own check by the whole path) and after (a lookup in
// the locked directory).
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_impl.h"
#include "catalog_test_helpers.h"
#include "common/child_process.h"
#include "common/test_util.h"

namespace {

using appdb::app_catalog_item;
using catt::make_item;
using dct::log_level;

class ReplacedFile : public catt::catalog_fixture {
protected:
    std::string db_dir() const { return root + "/application/2/c/p"; }
    std::string replaced_line() const {
        return "open_db_with_cached: app db " + db_dir() + " was replaced, reopen it";
    }
    size_t replaced_records() const { return log.count_containing("was replaced, reopen it"); }

    // A database of client c, policy p, with one row `name`, made through a
    // second catalog under another root; its path.
    std::string rebuilt_with(const std::string& name) {
        const std::string other_root = tmp.path() + "/other";
        std::unique_ptr<appdb::catalog_application_impl> other(
            new appdb::catalog_application_impl(2, other_root, 5));
        other->dir_lock.reset(new CatalogDirectoryLock());
        EXPECT_EQ(0u, other->update_catalog("admin", 1, make_item("c", "p", name, "c_9").to_string()));
        other.reset();
        return other_root + "/application/2/c/p/app.db";
    }

    std::vector<app_catalog_item> find_name(const std::string& name) {
        std::vector<app_catalog_item> items;
        EXPECT_EQ(0u, app->find_catalog("admin", appdb::APP_ROLE_ADMIN,
                                        appdb::to_query_by_file_name("c", "p", name), items))
            << log.dump();
        return items;
    }

    // `queries` operations on the kept connection before the change.
    void use(int queries) {
        for (int i = 0; i < queries; ++i) EXPECT_EQ(1u, find_name("f0").size());
    }

    void replace_from_other_process() {
        const std::string rebuilt = rebuilt_with("g0");
        const std::string file = db_file("c", "p");
        ASSERT_EQ(0, kt::run_in_child([&]() { return rename(rebuilt.c_str(), file.c_str()) == 0 ? 0 : 1; }));
    }
    void remove_from_other_process() {
        const std::string file = db_file("c", "p");
        ASSERT_EQ(0, kt::run_in_child([&]() { return unlink(file.c_str()) == 0 ? 0 : 1; }));
    }
};

// 0: replaced before any check of the kept connection; 1: after the first
// (its identity recorded); 3: after several.
class ReplacedFileAfter : public ReplacedFile, public ::testing::WithParamInterface<int> {};

TEST_P(ReplacedFileAfter, AQueryReadsTheFileRenamedOverIt) {
    insert(make_item("c", "p", "f0", "c_1"));
    use(GetParam());
    replace_from_other_process();
    log.clear();

    const std::vector<app_catalog_item> found = find_name("g0");
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ("g0", found[0].file_name);
    EXPECT_TRUE(logged(log_level::info, CR_STATUS_OK, replaced_line())) << log.dump();
    EXPECT_EQ(1u, replaced_records());
    EXPECT_TRUE(find_name("f0").empty());
    EXPECT_EQ(1u, replaced_records()) << log.dump();
    EXPECT_EQ(1, catt::open_fds_on(db_file("c", "p")));
}

TEST_P(ReplacedFileAfter, AnInsertGoesIntoTheFileRenamedOverIt) {
    insert(make_item("c", "p", "f0", "c_1"));
    use(GetParam());
    replace_from_other_process();
    log.clear();

    insert(make_item("c", "p", "f1", "c_1"));
    EXPECT_TRUE(logged(log_level::info, CR_STATUS_OK, replaced_line())) << log.dump();
    EXPECT_EQ(1u, replaced_records());
    // The acknowledged row is in the file the name leads to.
    EXPECT_EQ(2, catt::raw_count(db_file("c", "p")));
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p"), "name = 'f1'"));
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p"), "name = 'g0'"));
}

TEST_P(ReplacedFileAfter, AQueryOfARemovedFileFindsNoDatabase) {
    insert(make_item("c", "p", "f0", "c_1"));
    use(GetParam());
    remove_from_other_process();
    log.clear();

    EXPECT_TRUE(find_name("f0").empty());
    EXPECT_TRUE(logged(log_level::info, CR_STATUS_OK, "try_do_db_query: no app db for c p")) << log.dump();
    EXPECT_EQ(0u, replaced_records());
}

TEST_P(ReplacedFileAfter, AnInsertAfterARemovalGoesIntoTheNewFile) {
    insert(make_item("c", "p", "f0", "c_1"));
    use(GetParam());
    remove_from_other_process();
    log.clear();

    insert(make_item("c", "p", "f1", "c_1"));
    EXPECT_TRUE(logged(log_level::info, CR_STATUS_OK,
                       "need_create_db: app db " + db_file("c", "p") + " doesn't exist, going to create it"))
        << log.dump();
    // The kept connection leads to the removed file: it is closed, and the
    // row goes into the file created under the name.
    EXPECT_TRUE(logged(log_level::info, CR_STATUS_OK, replaced_line())) << log.dump();
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p"), "name = 'f1'"));
    EXPECT_EQ(1, catt::open_fds_on(db_file("c", "p")));
}

INSTANTIATE_TEST_SUITE_P(Checks, ReplacedFileAfter, ::testing::Values(0, 1, 3));

TEST_F(ReplacedFile, AnUnchangedFileKeepsItsConnection) {
    insert(make_item("c", "p", "f0", "c_1"));
    log.clear();
    use(5);
    EXPECT_EQ(0u, replaced_records()) << log.dump();
    EXPECT_EQ(1, catt::open_fds_on(db_file("c", "p")));
}

}  // namespace
