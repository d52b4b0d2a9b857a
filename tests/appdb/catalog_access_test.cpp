// The access rule, case by case: roles 1-4, access kinds 1-3, owner equal or
// not, owner role 1 or 4, with and without logging; and the catalog's
// wrapper around it.
#include <string>

#include <gtest/gtest.h>

#include "appdb/catalog_application_base.h"
#include "catalog_test_helpers.h"
#include "common/test_util.h"

namespace {

using appdb::app_catalog_item;
using appdb::auth_application_ac;
using dct::log_level;

struct expectation {
    cr_status_t status;
    std::string message;  // the one error line, "" when none
    bool logged_even_quiet;
};

// The rule written out independently of the code under test.
expectation expected(unsigned role, unsigned access, bool owner_equal, unsigned owner_role) {
    if (access == 2 || role == 1) return {0, "", false};
    if (role != 4) {
        return {106, "authenticate: unsupported user role " + std::to_string(role) + " for app",
                true};
    }
    if (owner_equal) {
        if (owner_role != 1) return {0, "", false};
        return {106, "authenticate: cur app catalog role is admin, only admin can read", false};
    }
    return {106,
            "authenticate: bad access, cur user bob, role 4, owner alice, owner role " +
                std::to_string(owner_role),
            false};
}

TEST(AccessRule, FullTable) {
    appdb::authentication_application& rule = appdb::auth_app_factory::get_instance();
    int cases = 0;
    for (unsigned role : {1u, 2u, 3u, 4u}) {
        for (unsigned access : {1u, 2u, 3u}) {
            for (bool owner_equal : {true, false}) {
                for (unsigned owner_role : {1u, 4u}) {
                    for (bool log_on : {true, false}) {
                        app_catalog_item item;
                        item.owner = "alice";
                        item.owner_role = owner_role;
                        const std::string user = owner_equal ? "alice" : "bob";
                        expectation e = expected(role, access, owner_equal, owner_role);
                        kt::LogCapture log;
                        const cr_status_t st = rule.authenticate(
                            user, role, &item, static_cast<auth_application_ac>(access), log_on);
                        SCOPED_TRACE("role " + std::to_string(role) + " access " +
                                     std::to_string(access) + " owner_equal " +
                                     std::to_string(owner_equal) + " owner_role " +
                                     std::to_string(owner_role) + " log " + std::to_string(log_on));
                        EXPECT_EQ(e.status, st);
                        const bool want_line = !e.message.empty() && (log_on || e.logged_even_quiet);
                        const auto records = log.records();
                        if (want_line) {
                            ASSERT_EQ(1u, records.size()) << log.dump();
                            EXPECT_EQ(log_level::error, records[0].level);
                            EXPECT_EQ(e.status, records[0].status);
                            EXPECT_EQ(e.message, records[0].message);
                        } else {
                            EXPECT_TRUE(records.empty()) << log.dump();
                        }
                        ++cases;
                    }
                }
            }
        }
    }
    EXPECT_EQ(4 * 3 * 2 * 2 * 2, cases);
}

TEST(AccessRule, InsertIsGrantedForAnyRoleAndANullItem) {
    appdb::authentication_application& rule = appdb::auth_app_factory::get_instance();
    kt::LogCapture log;
    for (unsigned role : {0u, 1u, 2u, 3u, 4u, 99u}) {
        EXPECT_EQ(0u, rule.authenticate("x", role, nullptr, appdb::AUTH_AC_INSERT, true));
    }
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST(AccessRule, NullItemForReadOrRemoveIsABadArgument) {
    appdb::authentication_application& rule = appdb::auth_app_factory::get_instance();
    for (auto access : {appdb::AUTH_AC_READ, appdb::AUTH_AC_REMOVE}) {
        kt::LogCapture log;
        EXPECT_EQ(4u, rule.authenticate("x", 4, nullptr, access, false));
        EXPECT_EQ(1u, log.count(log_level::error, 4, "authenticate: app_c_i is null")) << log.dump();
    }
    // An administrator needs no item.
    EXPECT_EQ(0u, rule.authenticate("x", 1, nullptr, appdb::AUTH_AC_READ, true));
}

TEST(AccessRule, OwnerComparisonIsExactAndCaseSensitive) {
    appdb::authentication_application& rule = appdb::auth_app_factory::get_instance();
    app_catalog_item item;
    item.owner = "Alice";
    item.owner_role = 4;
    kt::LogCapture log;
    EXPECT_EQ(106u, rule.authenticate("alice", 4, &item, appdb::AUTH_AC_READ, false));
    EXPECT_EQ(106u, rule.authenticate("Alice ", 4, &item, appdb::AUTH_AC_READ, false));
    EXPECT_EQ(0u, rule.authenticate("Alice", 4, &item, appdb::AUTH_AC_READ, false));
}

class AccessWrapper : public catt::catalog_fixture {};

TEST_F(AccessWrapper, LoggedDenialAddsTheWrapperLine) {
    app_catalog_item item;
    item.owner = "alice";
    item.owner_role = 4;
    EXPECT_EQ(106u, app->authenticate("bob", 4, &item, appdb::AUTH_AC_REMOVE, true));
    const auto records = log.records();
    ASSERT_EQ(2u, records.size()) << log.dump();
    EXPECT_EQ("authenticate: bad access, cur user bob, role 4, owner alice, owner role 4",
              records[0].message);
    EXPECT_EQ(log_level::error, records[1].level);
    EXPECT_EQ(106u, records[1].status);
    EXPECT_EQ("authenticate: auth failed owner alice user bob", records[1].message);
}

TEST_F(AccessWrapper, QuietDenialLogsNothingOfItsOwn) {
    app_catalog_item item;
    item.owner = "alice";
    EXPECT_EQ(106u, app->authenticate("bob", 4, &item, appdb::AUTH_AC_READ, false));
    EXPECT_TRUE(log.records().empty()) << log.dump();
    // An unsupported role is still reported by the rule, but not by the wrapper.
    EXPECT_EQ(106u, app->authenticate("bob", 3, &item, appdb::AUTH_AC_READ, false));
    EXPECT_EQ(1u, log.records().size()) << log.dump();
}

TEST_F(AccessWrapper, NullItemShowsAnEmptyOwner) {
    EXPECT_EQ(4u, app->authenticate("bob", 4, nullptr, appdb::AUTH_AC_READ, true));
    EXPECT_TRUE(logged(log_level::error, 4, "authenticate: app_c_i is null"));
    EXPECT_TRUE(logged(log_level::error, 4, "authenticate: auth failed owner  user bob"))
        << log.dump();
}

TEST_F(AccessWrapper, GrantLogsNothing) {
    app_catalog_item item;
    item.owner = "alice";
    EXPECT_EQ(0u, app->authenticate("alice", 4, &item, appdb::AUTH_AC_READ, true));
    EXPECT_EQ(0u, app->authenticate("bob", 1, &item, appdb::AUTH_AC_REMOVE, true));
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

}  // namespace
