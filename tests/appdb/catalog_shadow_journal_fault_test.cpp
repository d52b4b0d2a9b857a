// A journal that cannot be written: the change it records is in the database,
// and it is acknowledged only once protected: a new shadow copy that holds it
// is taken at once and its journal starts clean. The lines written before
// stay. Only when that copy fails too does the operation fail, with one error
// record saying that the change is unprotected.
#include <string.h>

#include <atomic>
#include <string>

#include <gtest/gtest.h>

#include "catalog_shadow_fixture.h"
#include "dct/fault.h"

namespace {

using appdb::app_catalog_item;
using catt::make_item;
using dct::fault_op;
using dct::log_level;
using shadowt::journal_lines;

bool is_journal(const char* path) {
    const size_t n = strlen(path);
    return n > 8 && strcmp(path + n - 8, ".journal") == 0;
}

class ShadowJournalFault : public shadowt::shadow_fixture {
protected:
    void TearDown() override {
        dct::set_fault_hook(nullptr);
        shadowt::shadow_fixture::TearDown();
    }

    // Fails every `op` on a journal file with EIO while installed.
    void fail_journal(fault_op which) {
        dct::set_fault_hook([this, which](fault_op op, const char* path) {
            if (op != which || !is_journal(path)) return 0;
            ++faults;
            return EIO;
        });
    }

    // Fails `op` on journals, and every open for writing of the temporary
    // copy a backup makes, with EIO while installed.
    void fail_journal_and_backup(fault_op which) {
        dct::set_fault_hook([this, which](fault_op op, const char* path) {
            const size_t n = strlen(path);
            const bool copy = op == fault_op::open_write && n > 4 && strcmp(path + n - 4, ".tmp") == 0 &&
                              strstr(path, ".chksum") == nullptr;
            if (!copy && (op != which || !is_journal(path))) return 0;
            ++faults;
            return EIO;
        });
    }

    std::string new_copy_line() const {
        return "write_journal: journal of appdb in " + db_dir("c", "p") + " not written, taking a new shadow copy";
    }
    std::string unprotected_line() const {
        return "write_journal: the change to appdb in " + db_dir("c", "p") +
               " is in the database but not protected by its shadow";
    }

    // The database lost, then recovered from the shadow: every row the
    // model holds is back.
    void expect_recovered() {
        restart_app();
        shadowt::delete_database(db_file("c", "p"));
        EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p"))) << log.dump();
    }

    // A new context and application, as after a restart of the process.
    void restart_service() {
        app.reset();
        ctx = pool.context();
        app = shadowt::make_shadow_app(pool, ctx.get());
    }

    std::atomic<int> faults{0};
};

TEST_F(ShadowJournalFault, AJournalThatCannotBeOpenedIsReplacedByANewCopy) {
    // The first insert creates the database and its first copy; its journal
    // line is the first to open the journal file.
    fail_journal(fault_op::open_write);
    const app_catalog_item item = make_item("c", "p", "f0", "c_1");
    EXPECT_EQ(0u, app->update_catalog("admin", 1, item.to_string())) << log.dump();
    model.insert(item);
    dct::set_fault_hook(nullptr);
    EXPECT_GT(faults.load(), 0);
    EXPECT_EQ(1u, log.count(log_level::info, CR_STATUS_OK, new_copy_line())) << log.dump();
    EXPECT_EQ(0u, log.count_containing("not protected")) << log.dump();
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
    EXPECT_EQ(0u, journal_lines(shadow_dir("c", "p")));
    EXPECT_EQ(2u, shadowt::shadow_versions(shadow_dir("c", "p")).size());
    expect_recovered();
}

TEST_F(ShadowJournalFault, AJournalLineThatCannotBeWrittenIsReplacedByANewCopy) {
    insert(make_item("c", "p", "f0", "c_1"));
    ASSERT_EQ(1u, journal_lines(shadow_dir("c", "p")));
    fail_journal(fault_op::write);
    const app_catalog_item second = make_item("c", "p", "f1", "c_1");
    EXPECT_EQ(0u, app->update_catalog("admin", 1, second.to_string())) << log.dump();
    model.insert(second);
    dct::set_fault_hook(nullptr);
    EXPECT_GT(faults.load(), 0);
    EXPECT_EQ(1u, log.count_message(new_copy_line())) << log.dump();
    EXPECT_EQ(2, catt::raw_count(db_file("c", "p")));
    // The line written before stays; no part of the failed one does.
    EXPECT_EQ(1u, journal_lines(shadow_dir("c", "p")));
    EXPECT_EQ(2u, shadowt::shadow_versions(shadow_dir("c", "p")).size());

    // Journaling goes on in the new copy's journal; a recovery gives back
    // every acknowledged row.
    insert(make_item("c", "p", "f2", "c_1"));
    EXPECT_EQ(2u, journal_lines(shadow_dir("c", "p")));
    expect_recovered();
}

TEST_F(ShadowJournalFault, AFailedSyncIsReplacedByANewCopy) {
    insert(make_item("c", "p", "f0", "c_1"));
    fail_journal(fault_op::fsync);
    const app_catalog_item second = make_item("c", "p", "f1", "c_1");
    EXPECT_EQ(0u, app->update_catalog("admin", 1, second.to_string())) << log.dump();
    model.insert(second);
    dct::set_fault_hook(nullptr);
    EXPECT_GT(faults.load(), 0);
    EXPECT_EQ(1u, log.count_message(new_copy_line())) << log.dump();
    expect_recovered();
}

TEST_F(ShadowJournalFault, AJournalThatFailsItsCheckIsReplacedByANewCopy) {
    insert(make_item("c", "p", "f0", "c_1"));
    restart_service();  // the next line opens and checks the journal again
    for (const std::string& name : kt::list_dir(shadow_dir("c", "p"))) {
        if (is_journal(name.c_str())) kt::write_file(shadow_dir("c", "p") + "/" + name, "garbage;\n");
    }
    const app_catalog_item second = make_item("c", "p", "f1", "c_1");
    EXPECT_EQ(0u, app->update_catalog("admin", 1, second.to_string())) << log.dump();
    model.insert(second);
    EXPECT_EQ(1u, log.count_message(new_copy_line())) << log.dump();
    insert(make_item("c", "p", "f2", "c_1"));
    expect_recovered();
}

TEST_F(ShadowJournalFault, AChangeThatNoCopyCanProtectFails) {
    insert(make_item("c", "p", "f0", "c_1"));
    fail_journal_and_backup(fault_op::write);
    log.clear();
    const app_catalog_item second = make_item("c", "p", "f1", "c_1");
    EXPECT_EQ(CR_STATUS_IO, app->update_catalog("admin", 1, second.to_string())) << log.dump();
    dct::set_fault_hook(nullptr);
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_IO, unprotected_line())) << log.dump();
    // The row is in the database although the call failed.
    EXPECT_EQ(2, catt::raw_count(db_file("c", "p")));
    EXPECT_EQ(1u, shadowt::shadow_versions(shadow_dir("c", "p")).size());
}

TEST_F(ShadowJournalFault, AFailedJournalOfADeleteIsReplacedByANewCopy) {
    insert(make_item("c", "p", "f0", "c_1"));
    insert(make_item("c", "p", "f1", "c_2"));
    fail_journal(fault_op::write);
    log.clear();
    EXPECT_EQ(0u, app->del_catalog("admin", 1, "name|c,p,f0"));
    EXPECT_EQ(0u, app->expire_catalog("admin", 1, "c", "p", "c_2_C1_HDR", true));
    dct::set_fault_hook(nullptr);
    EXPECT_EQ(2u, log.count_message(new_copy_line())) << log.dump();
    EXPECT_EQ(0, catt::raw_count(db_file("c", "p")));
    EXPECT_EQ(2u, journal_lines(shadow_dir("c", "p")));
    restart_app();
    shadowt::delete_database(db_file("c", "p"));
    EXPECT_TRUE(shadowt::read_back(*app, "c", "p").empty()) << log.dump();
}

}  // namespace
