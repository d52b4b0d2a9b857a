// Hostile input to the catalog library: item texts, field contents, query
// strings, client and policy names, damaged database and checksum files, and
// a very large tree. Each case ends in a clear status and log line, or in the
// exact row being stored and recovered; none may crash or hang.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "reliability_fixture.h"

namespace {

using appdb::app_catalog_item;

class BadItemTest : public shadowt::shadow_fixture {
protected:
    // Inserts through the protected catalog, loses the database file, and
    // recovers it; returns the recovery's status.
    cr_status_t store_lose_recover(const app_catalog_item& item, cr_status_t* insert_status) {
        *insert_status = app->update_catalog("alice", 4, item.to_string());
        restart_app();
        const std::string dir = pool.db_dir(2, item.client, item.policy);
        shadowt::delete_database(dir + "/app.db");
        return ctx->recover(dir, "appdb", 0);
    }
    std::map<std::string, std::string> rows(const std::string& client, cr_status_t* status) {
        return shadowt::read_back(*app, client, "pol", status);
    }
    // Every journal of client "cli", policy "pol", one after another.
    std::string journal_text() const {
        const std::string dir = pool.shadow_dir(2, "cli", "pol");
        std::string text;
        if (!kt::file_exists(dir)) return text;
        for (const std::string& name : kt::list_dir(dir)) {
            if (name.size() > 8 && name.compare(name.size() - 8, 8, ".journal") == 0) {
                text += kt::read_file(dir + "/" + name);
            }
        }
        return text;
    }
    std::string app_root() const { return pool.database_root() + "/application/2"; }
    // Stores `items` through the protected catalog, keeps the rows as stored,
    // loses the database and recovers it from its first copy and journal;
    // the recovered rows must be byte for byte the stored ones.
    void expect_exact_after_recovery(const std::vector<app_catalog_item>& items, bool by_line_form) {
        for (const app_catalog_item& item : items) {
            if (by_line_form) {
                ASSERT_EQ(0u, app->update_catalog("alice", 4, item.to_string())) << log.dump();
            } else {
                ASSERT_EQ(0u, shadow_app()->shadow_protected_db_insert(item)) << log.dump();
            }
        }
        const std::string file = pool.db_file(2, "cli", "pol");
        const std::vector<std::string> stored = catt::raw_dump(file);
        ASSERT_EQ(items.size(), stored.size());
        restart_app();
        shadowt::delete_database(file);
        ASSERT_EQ(0u, ctx->recover(pool.db_dir(2, "cli", "pol"), "appdb", 0)) << log.dump();
        EXPECT_EQ(stored, catt::raw_dump(file));
        // Read back through the catalog: every checksum verifies.
        cr_status_t status = 1;
        const auto found = rows("cli", &status);
        EXPECT_EQ(0u, status) << log.dump();
        EXPECT_EQ(items.size(), found.size());
    }
};

TEST_F(BadItemTest, EmptyItemTextIsRefused) {
    EXPECT_EQ(CR_STATUS_FAILED, app->update_catalog("alice", 4, ""));
    EXPECT_TRUE(log.contains(dct::log_level::error, CR_STATUS_FAILED,
                             "update_catalog: failed to generate app catalog item from string "));
    EXPECT_FALSE(kt::file_exists(app_root()));
}

TEST_F(BadItemTest, ItemTextWithTooFewFieldsIsRefused) {
    EXPECT_EQ(CR_STATUS_FAILED, app->update_catalog("alice", 4, "1|f|4096|bid|pol"));
    EXPECT_EQ(1u, log.count_containing("failed to generate app catalog item from string 1|f|4096|bid|pol"));
    EXPECT_FALSE(kt::file_exists(app_root()));
}

// Whatever follows the 28th field is not read: the item of the first 28
// fields is stored, and nothing of the rest.
TEST_F(BadItemTest, ItemTextWithTooManyFieldsStoresTheFirst28) {
    const app_catalog_item item = catt::make_item("cli", "pol", "f", "bid");
    EXPECT_EQ(0u, app->update_catalog("alice", 4, item.to_string() + "extra|fields|x")) << log.dump();
    cr_status_t status = 1;
    const auto found = rows("cli", &status);
    ASSERT_EQ(0u, status);
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(item.to_string(), found.at("f"));
    EXPECT_EQ(std::string::npos, journal_text().find("extra"));
}

// A bar inside a field cannot travel in the line form: it ends the field,
// and every later field moves one place.
TEST_F(BadItemTest, BarInsideFieldShiftsTheFieldsAfterIt) {
    app_catalog_item item = catt::make_item("cli", "pol", "f|x", "bid");
    std::istringstream in(item.to_string());
    app_catalog_item read;
    ASSERT_TRUE(appdb::from_string(in, read));
    EXPECT_EQ("f", read.file_name);
    EXPECT_EQ(0u, read.file_len);  // "x" read as a number
}

// The plain catalog binds values, so any length is stored and read whole.
TEST_F(BadItemTest, MegabyteFieldIsStoredAndReadWholeByThePlainCatalog) {
    appdb::catalog_application_impl plain(3, pool.database_root(), 5);
    app_catalog_item item = catt::make_item("cli", "pol", "big", "bid");
    item.description = std::string(1 << 20, 'd');
    ASSERT_EQ(0u, plain.update_catalog("alice", 4, item.to_string()));
    std::vector<app_catalog_item> found;
    ASSERT_EQ(0u, plain.find_catalog("", 1, "backup_id|cli,pol,bid", found));
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(item.to_string(), found[0].to_string());
}

// Long fields in several columns, with quotes and line breaks inside: the
// journal holds each whole statement, and a recovery from it gives back the
// very rows, checksums included.
TEST_F(BadItemTest, LongFieldsInSeveralColumnsSurviveRecovery) {
    std::vector<app_catalog_item> items;
    for (size_t size : {size_t(4) << 10, size_t(64) << 10, size_t(1) << 20}) {
        app_catalog_item item = catt::make_item("cli", "pol", "long" + std::to_string(size), "bid");
        item.description = "it's\n" + std::string(size, 'x') + "\n'";
        item.data_object = std::string(size, '\'');
        item.reserver0 = std::string(size / 2, 'a') + "\r\n" + std::string(size / 2, 'b');
        item.reserver9 = std::string(size, 'z');
        items.push_back(item);
    }
    expect_exact_after_recovery(items, true);
    EXPECT_EQ(0u, log.count_containing("Failed to apply journal file")) << log.dump();
    // The whole statements are in the journal, quotes doubled (located by
    // their head, then compared once).
    const std::string journal = journal_text();
    const std::string whole = "'it''s\n" + std::string(1 << 20, 'x') + "\n" + std::string(3, '\'');
    const size_t at = journal.rfind("'it''s\n");
    ASSERT_NE(std::string::npos, at);
    EXPECT_EQ(0, journal.compare(at, whole.size(), whole));
}

// An empty field goes through loss and recovery unchanged.
TEST_F(BadItemTest, EmptyFieldsAreRecoveredExactly) {
    app_catalog_item item = catt::make_item("cli", "pol", "edge", "bid");
    item.app_id.clear();
    item.data_object.clear();
    item.owner.clear();
    item.description.clear();
    item.reserver0.clear();
    item.reserver9.clear();
    expect_exact_after_recovery({item}, true);
}

// Signed numbers keep their sign, and the size its stored value, through
// the journal: negative, zero, the int64 extremes in every time column, the
// 32-bit extremes in every 32-bit column, the uint64 maximum as size.
TEST_F(BadItemTest, SignedAndLargestNumbersSurviveRecoveryByteForByte) {
    std::vector<app_catalog_item> items;
    const int64_t times[] = {-1, 0, INT64_MIN, INT64_MAX};
    const uint32_t words[] = {0, 1, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu};
    const uint64_t sizes[] = {0, 1, static_cast<uint64_t>(INT64_MAX), uint64_t(1) << 63, UINT64_MAX};
    for (int i = 0; i < 5; ++i) {
        app_catalog_item item = catt::make_item("cli", "pol", "n" + std::to_string(i), "bid");
        item.app_expire_time = times[i % 4];
        item.orvo_expire_time = times[(i + 1) % 4];
        item.backup_start_time = times[(i + 2) % 4];
        item.backup_stop_time = times[(i + 3) % 4];
        item.version = words[i];
        item.policy_type = words[(i + 1) % 5];
        item.schedule_type = words[(i + 2) % 5];
        item.frag_nums = words[(i + 3) % 5];
        item.owner_role = words[(i + 4) % 5];
        item.file_len = sizes[i];
        items.push_back(item);
    }
    // The line form cannot carry a negative time (it prints the two's
    // complement, which reads back saturated), so the rows go in as items.
    expect_exact_after_recovery(items, false);
    const std::string file = pool.db_file(2, "cli", "pol");
    EXPECT_EQ("-1", catt::raw_scalar(file, "SELECT backup_app_expire_time FROM catalog WHERE name = 'n0'"));
    EXPECT_EQ("-9223372036854775808",
              catt::raw_scalar(file, "SELECT backup_start_time FROM catalog WHERE name = 'n0'"));
    EXPECT_EQ("-1", catt::raw_scalar(file, "SELECT filelen FROM catalog WHERE name = 'n4'"));
    std::vector<app_catalog_item> found;
    ASSERT_EQ(0u, app->find_catalog("admin", 1, "name|cli,pol,n4", found));
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(UINT64_MAX, found[0].file_len);
    EXPECT_EQ(0xFFFFFFFFu, found[0].version);
    EXPECT_EQ(-1, found[0].app_expire_time);
}

// Quotes, GLOB and LIKE metacharacters, a statement separator and a comment
// in every text field: the journal quotes them, so replay rebuilds the exact
// row; an exact query for such a backup id finds exactly it.
TEST_F(BadItemTest, QuotesAndPatternCharactersInEveryFieldSurviveRecovery) {
    const std::string nasty = "a'b\"c*d?e[f]g%h_i;--j\\k";
    app_catalog_item item = catt::make_item("cli", "pol", "name" + nasty, "bid" + nasty);
    for (std::string* f : {&item.app_id, &item.data_object, &item.owner, &item.description, &item.reserver0,
                           &item.reserver1, &item.reserver2, &item.reserver3, &item.reserver4, &item.reserver5,
                           &item.reserver6, &item.reserver7, &item.reserver8, &item.reserver9}) {
        *f = nasty;
    }
    item.owner = "alice";  // the reader's own item
    ASSERT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("cli", "pol", "plain", "bidz").to_string()));
    cr_status_t inserted = 1;
    ASSERT_EQ(0u, store_lose_recover(item, &inserted)) << log.dump();
    ASSERT_EQ(0u, inserted);
    std::vector<app_catalog_item> found;
    ASSERT_EQ(0u, app->find_catalog("alice", 4, "backup_id|cli,pol,bid" + nasty, found)) << log.dump();
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(item.to_string(), found[0].to_string());
    // Pattern characters in a wildcard query are SQLite's GLOB: "[" opens a set.
    found.clear();
    EXPECT_EQ(0u, app->find_catalog("alice", 4, "backup_id|cli,pol,bida'b\"c[*]*", found));
    EXPECT_EQ(1u, found.size());
}

// Bytes that are not UTF-8 and a line break inside a field are stored as
// given and replayed exactly (the journal replays whole files, so a line
// break inside a quoted value does not split the statement).
// Every control byte and every byte above 0x7e in every text field: stored,
// journalled and recovered unchanged.
TEST_F(BadItemTest, ControlBytesAndHighBytesInEveryFieldSurviveRecovery) {
    std::string odd;
    for (int c = 1; c < 0x20; ++c) odd.push_back(static_cast<char>(c));
    for (int c = 0x7f; c < 0x100; ++c) odd.push_back(static_cast<char>(c));
    app_catalog_item item = catt::make_item("cli", "pol", "odd" + odd, "bid" + odd);
    for (std::string* f : {&item.app_id, &item.data_object, &item.owner, &item.description, &item.reserver0,
                           &item.reserver1, &item.reserver2, &item.reserver3, &item.reserver4, &item.reserver5,
                           &item.reserver6, &item.reserver7, &item.reserver8, &item.reserver9}) {
        *f = odd;
    }
    expect_exact_after_recovery({item}, true);
}

TEST_F(BadItemTest, InvalidUtf8AndLineBreakInFieldsSurviveRecovery) {
    app_catalog_item item = catt::make_item("cli", "pol", "bytes\xff\xfe", "bid");
    item.description = "first line\nsecond \xc3\x28 line\r\n";
    cr_status_t inserted = 1;
    ASSERT_EQ(0u, store_lose_recover(item, &inserted)) << log.dump();
    ASSERT_EQ(0u, inserted);
    cr_status_t status = 1;
    const auto found = rows("cli", &status);
    ASSERT_EQ(0u, status);
    ASSERT_EQ(1u, found.count(item.file_name));
    EXPECT_EQ(item.to_string(), found.at(item.file_name));
}

// A NUL byte in any stored text field is refused before anything is
// written or journalled: SQLite and the journal's literal would keep the
// text only up to the NUL while the checksum covers all of it.
TEST_F(BadItemTest, NulByteInAnyTextFieldIsRefusedBeforeAnythingIsWritten) {
    ASSERT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("cli", "pol", "first", "bid").to_string()));
    const std::string file = pool.db_file(2, "cli", "pol");
    const std::vector<std::string> before = catt::raw_dump(file);
    const std::string journal_before = journal_text();
    const std::string nul("be\0fore", 7);
    struct field {
        const char* label;
        std::string app_catalog_item::*member;
    };
    const field fields[] = {
        {"file name:", &app_catalog_item::file_name},     {"backup id:", &app_catalog_item::backup_id},
        {"appid:", &app_catalog_item::app_id},            {"data object:", &app_catalog_item::data_object},
        {"owner:", &app_catalog_item::owner},             {"description:", &app_catalog_item::description},
        {"reserver0:", &app_catalog_item::reserver0},     {"reserver1:", &app_catalog_item::reserver1},
        {"reserver2:", &app_catalog_item::reserver2},     {"reserver3:", &app_catalog_item::reserver3},
        {"reserver4:", &app_catalog_item::reserver4},     {"reserver5:", &app_catalog_item::reserver5},
        {"reserver6:", &app_catalog_item::reserver6},     {"reserver7:", &app_catalog_item::reserver7},
        {"reserver8:", &app_catalog_item::reserver8},     {"reserver9:", &app_catalog_item::reserver9},
    };
    for (const field& f : fields) {
        app_catalog_item item = catt::make_item("cli", "pol", "nul", "bid");
        item.*f.member = nul;
        log.clear();
        EXPECT_EQ(CR_STATUS_FAILED, app->update_catalog("alice", 4, item.to_string())) << f.label;
        // The message prints the file name up to its NUL.
        const std::string name = f.member == &app_catalog_item::file_name ? "be" : "nul";
        EXPECT_EQ(1u, log.count(dct::log_level::error, CR_STATUS_FAILED,
                                std::string("update_catalog: field ") + f.label + " of " + name +
                                    " holds a NUL byte, which a row cannot store"))
            << log.dump();
        EXPECT_EQ(1u, log.count_containing("NUL")) << log.dump();
    }
    EXPECT_EQ(before, catt::raw_dump(file));
    EXPECT_EQ(journal_before, journal_text());
    // A new client and policy get no database either, also in the plain kind.
    appdb::catalog_application_impl plain(2, pool.database_root(), 5);
    app_catalog_item item = catt::make_item("new", "pol", "nul", "bid");
    item.description = nul;
    EXPECT_EQ(CR_STATUS_FAILED, plain.update_catalog("alice", 4, item.to_string()));
    EXPECT_FALSE(kt::file_exists(app_root() + "/new"));
    std::vector<app_catalog_item> found;
    EXPECT_EQ(0u, app->find_catalog("alice", 4, "backup_id|cli,pol,*", found)) << log.dump();
    EXPECT_EQ(1u, found.size());
}

TEST_F(BadItemTest, QueryStringsWithMissingPartsAreRefused) {
    ASSERT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("cli", "pol", "f", "bid").to_string()));
    for (const std::string& q : {std::string(""), std::string("backup_id|"), std::string("backup_id|cli"),
                                 std::string("backup_id|cli,pol"), std::string("name|cli;pol;f"),
                                 std::string("time_range|cli,pol,1"), std::string("nosuch|cli,pol,bid"),
                                 std::string("backup_id cli,pol,bid")}) {
        std::vector<app_catalog_item> found;
        log.clear();
        EXPECT_EQ(CR_STATUS_FAILED, app->find_catalog("alice", 4, q, found)) << q;
        EXPECT_TRUE(found.empty()) << q;
        EXPECT_EQ(1u, log.count_containing("find_catalog: failed to parse " + q)) << q << "\n" << log.dump();
    }
}

// Client and policy names are one directory level each: an empty name, ".",
// "..", a name with "/" or a NUL byte is refused by every operation that
// builds a database path from it, with 4 and one error record, and nothing
// is created, opened or removed.
TEST_F(BadItemTest, BadClientAndPolicyNamesAreRefusedByEveryOperation) {
    ASSERT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("cli", "pol", "f", "b_1").to_string()));
    const std::vector<std::string> before = catt::raw_dump(pool.db_file(2, "cli", "pol"));
    const std::string bad_names[] = {"", ".", "..", "a/b", "../pol", "/", std::string("a\0b", 3)};
    for (const std::string& bad : bad_names) {
        for (bool bad_client : {true, false}) {
            const std::string c = bad_client ? bad : "cli";
            const std::string p = bad_client ? "pol" : bad;
            // The log prints a name up to a NUL.
            const std::string refusal = "bad client or policy name, c " + std::string(c.c_str()) + " p " +
                                        std::string(p.c_str()) + " (empty, \".\", \"..\", \"/\" or NUL)";
            auto expect_refused = [&](const char* fn, cr_status_t status) {
                EXPECT_EQ(CR_STATUS_FAILED, status) << fn << " [" << bad << "]";
                EXPECT_EQ(1u, log.count(dct::log_level::error, CR_STATUS_FAILED, std::string(fn) + ": " + refusal))
                    << fn << " [" << bad << "]\n"
                    << log.dump();
                EXPECT_EQ(1u, log.count_containing("bad client or policy name")) << fn << "\n" << log.dump();
                log.clear();
            };
            log.clear();
            expect_refused("update_catalog",
                           app->update_catalog("alice", 4, catt::make_item(c, p, "f", "b_1").to_string()));
            std::vector<app_catalog_item> found;
            expect_refused("find_catalog", app->find_catalog("alice", 4, "backup_id|" + c + "," + p + ",*", found));
            std::string text;
            EXPECT_EQ(CR_STATUS_FAILED, app->find_catalog("alice", 4, "name|" + c + "," + p + ",f", text));
            EXPECT_EQ(1u, log.count_containing("find_catalog: " + refusal)) << log.dump();
            log.clear();
            expect_refused("expire_catalog", app->expire_catalog("alice", 4, c, p, "b_1_C1_HDR", true));
            expect_refused("del_catalog", app->del_catalog("alice", 4, "name|" + c + "," + p + ",f"));
            app_catalog_item record;
            expect_refused("find_by_image_name", app->find_by_image_name(c, p, "b_1_C1_HDR", record, true));
            expect_refused("find_by_file_name", app->find_by_file_name(c, p, "f", record, true));
            if (bad.find('/') == std::string::npos && bad.find('\0') == std::string::npos) {
                // close_db takes a directory path: its last two components.
                expect_refused("do_db_close", app->close_db(app_root() + "/" + c + "/" + p, 0, true));
            }
        }
    }
    // Nothing was made outside or inside the tree, and the good row stays.
    EXPECT_EQ(std::vector<std::string>({"cli"}), kt::list_dir(app_root()));
    EXPECT_FALSE(kt::file_exists(pool.database_root() + "/app.db"));
    EXPECT_FALSE(kt::file_exists(pool.database_root() + "/application/app.db"));
    EXPECT_EQ(before, catt::raw_dump(pool.db_file(2, "cli", "pol")));
}

// A name longer than the file system allows cannot be created: the insert
// fails with 4 and a query finds nothing; other databases are not disturbed.
TEST_F(BadItemTest, ClientOf4000CharactersIsRefusedByTheFileSystem) {
    const std::string client(4000, 'c');
    EXPECT_EQ(CR_STATUS_FAILED,
              app->update_catalog("alice", 4, catt::make_item(client, "pol", "f", "bid").to_string()));
    EXPECT_EQ(1u, log.count_containing("create_db: can't create folder: ")) << log.dump();
    std::vector<app_catalog_item> found;
    app->find_catalog("alice", 4, "backup_id|" + client + ",pol,bid", found);
    EXPECT_TRUE(found.empty());
    EXPECT_EQ(0u, app->update_catalog("alice", 4, catt::make_item("cli", "pol", "f", "bid").to_string()));
}

}  // namespace
