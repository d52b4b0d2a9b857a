// A checksum file found damaged while the database is missing: the shadow has
// no good version left and there is no database, so nothing may stand in for
// it. Operations fail with the corruption status and one error record, and no
// database is created, until an operator brings one back.
#include <string>

#include <gtest/gtest.h>

#include "catalog_shadow_fixture.h"

namespace {

using catt::make_item;
using dct::log_level;

class ShadowLostHistory : public shadowt::shadow_fixture {
protected:
    // A new context and application, as after a restart of the process.
    void restart_service() {
        app.reset();
        ctx = pool.context();
        app = shadowt::make_shadow_app(pool, ctx.get());
    }

    // One row in a protected database; then, service stopped, its checksum
    // file damaged and (when asked) the database lost; then a new start.
    void lose_history(bool lose_database) {
        insert(make_item("c", "p", "f0", "c_1"));
        app.reset();
        ctx.reset();
        kt::write_file(shadow_dir("c", "p") + "/.chksum.appdb", "format=1\ncurrent=garbage\n");
        if (lose_database) shadowt::delete_database(db_file("c", "p"));
        restart_service();
        log.clear();
    }

    std::string refusal() const {
        return "shadow_protected_db_insert: app db " + db_dir("c", "p") +
               " is missing and its shadow history was found damaged; nothing is created until it is recovered";
    }

    size_t errors() const {
        size_t n = 0;
        for (const kt::LogRecord& r : log.records()) n += r.level == log_level::error ? 1 : 0;
        return n;
    }
};

TEST_F(ShadowLostHistory, MissingDatabaseIsNotCreatedEmpty) {
    lose_history(true);

    EXPECT_EQ(CR_STATUS_CORRUPT, app->update_catalog("admin", 1, make_item("c", "p", "f1", "c_1").to_string()));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_CORRUPT, refusal())) << log.dump();
    EXPECT_FALSE(kt::file_exists(db_file("c", "p")));

    // After the next restart the checksum file is whole again but lists no
    // version: still refused, now with that one error record alone.
    restart_service();
    log.clear();
    EXPECT_EQ(CR_STATUS_CORRUPT, app->update_catalog("admin", 1, make_item("c", "p", "f2", "c_1").to_string()));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_CORRUPT, refusal())) << log.dump();
    EXPECT_EQ(1u, errors()) << log.dump();
    EXPECT_FALSE(kt::file_exists(db_file("c", "p")));
    EXPECT_TRUE(shadowt::shadow_versions(shadow_dir("c", "p")).empty());
}

TEST_F(ShadowLostHistory, DatabaseThatIsThereStartsANewHistory) {
    lose_history(false);

    insert(make_item("c", "p", "f1", "c_1"));
    EXPECT_EQ(0u, log.count_message(refusal())) << log.dump();
    EXPECT_EQ(1u, shadowt::shadow_versions(shadow_dir("c", "p")).size());
    // The new history protects both rows.
    restart_service();
    shadowt::delete_database(db_file("c", "p"));
    EXPECT_TRUE(shadowt::same_rows(model.rows(), shadowt::read_back(*app, "c", "p"))) << log.dump();
}

TEST_F(ShadowLostHistory, QueriesOnTheMissingDatabaseRecoverNothing) {
    lose_history(true);
    cr_status_t status = 0;
    EXPECT_TRUE(shadowt::read_back(*app, "c", "p", &status).empty());
    EXPECT_EQ(0u, log.count_containing("to do recover from shadow")) << log.dump();
    EXPECT_FALSE(kt::file_exists(db_file("c", "p")));
}

}  // namespace
