// A journal that cannot be written: the change it records still stands, the
// failure is logged once by the catalog, and the journal keeps what it had,
// so a later recovery brings back every row that was journaled.
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

    std::string journal_failed_line() const {
        return "write_journal: app db write journal failed for " + db_dir("c", "p");
    }

    std::atomic<int> faults{0};
};

TEST_F(ShadowJournalFault, AJournalThatCannotBeOpenedFailsNoInsert) {
    // The first insert creates the database and its first copy; its journal
    // line is the first to open the journal file.
    fail_journal(fault_op::open_write);
    const app_catalog_item item = make_item("c", "p", "f0", "c_1");
    EXPECT_EQ(0u, app->update_catalog("admin", 1, item.to_string()));
    dct::set_fault_hook(nullptr);
    EXPECT_GT(faults.load(), 0);
    ASSERT_EQ(1u, log.count_containing(journal_failed_line())) << log.dump();
    for (const kt::LogRecord& r : log.records()) {
        if (r.message == journal_failed_line()) {
            EXPECT_EQ(log_level::error, r.level);
            EXPECT_NE(0u, r.status);
        }
    }
    EXPECT_EQ(1, catt::raw_count(db_file("c", "p")));
    EXPECT_EQ(0u, journal_lines(shadow_dir("c", "p")));
}

TEST_F(ShadowJournalFault, AJournalLineThatCannotBeWrittenFailsNoInsert) {
    insert(make_item("c", "p", "f0", "c_1"));
    ASSERT_EQ(1u, journal_lines(shadow_dir("c", "p")));
    fail_journal(fault_op::write);
    const app_catalog_item lost = make_item("c", "p", "f1", "c_1");
    EXPECT_EQ(0u, app->update_catalog("admin", 1, lost.to_string()));
    dct::set_fault_hook(nullptr);
    EXPECT_GT(faults.load(), 0);
    EXPECT_EQ(1u, log.count_containing(journal_failed_line())) << log.dump();
    EXPECT_EQ(2, catt::raw_count(db_file("c", "p")));
    // No part of the failed line stays in the journal.
    EXPECT_EQ(1u, journal_lines(shadow_dir("c", "p")));

    // Journaling goes on afterwards; a recovery gives back what was
    // journaled: everything but the row whose line was lost.
    insert(make_item("c", "p", "f2", "c_1"));
    EXPECT_EQ(2u, journal_lines(shadow_dir("c", "p")));
    restart_app();
    shadowt::delete_database(db_file("c", "p"));
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p"))) << log.dump();
}

TEST_F(ShadowJournalFault, AFailedJournalOfADeleteFailsNoDelete) {
    insert(make_item("c", "p", "f0", "c_1"));
    insert(make_item("c", "p", "f1", "c_2"));
    fail_journal(fault_op::write);
    log.clear();
    EXPECT_EQ(0u, app->del_catalog("admin", 1, "name|c,p,f0"));
    EXPECT_EQ(0u, app->expire_catalog("admin", 1, "c", "p", "c_2_C1_HDR", true));
    dct::set_fault_hook(nullptr);
    EXPECT_EQ(2u, log.count_containing(journal_failed_line())) << log.dump();
    EXPECT_EQ(0, catt::raw_count(db_file("c", "p")));
    EXPECT_EQ(2u, journal_lines(shadow_dir("c", "p")));
}

}  // namespace
