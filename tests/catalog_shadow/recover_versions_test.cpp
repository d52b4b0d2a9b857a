// Choice of the base version: damaged newer versions are passed over, the
// journals from the base up to the newest are replayed in order.
#include <gtest/gtest.h>

#include <tuple>

#include "backup_fixtures.h"

using backup_test::AppPool;
using dct::log_level;

namespace {

enum class Damage {
    db_checksum,       // recorded database checksum wrong, file intact
    journal_checksum,  // recorded journal checksum wrong, journal intact
    integrity,         // file damaged, recorded checksum matches the damage
};

const char* damage_name(Damage d) {
    switch (d) {
        case Damage::db_checksum:
            return "db_checksum";
        case Damage::journal_checksum:
            return "journal_checksum";
        case Damage::integrity:
            return "integrity";
    }
    return "?";
}

void damage(ShadowVersion& v, Damage kind) {
    switch (kind) {
        case Damage::db_checksum:
            v.db_crc += 1;
            break;
        case Damage::journal_checksum:
            v.journal_crc += 1;
            break;
        case Damage::integrity:
            backup_test::damage_index(v.db_path);
            v.db_crc = backup_test::file_crc(v.db_path);
            break;
    }
}

// A pool with versions 1..count of its database, one journalled insert after
// each backup.
void versions_with_journals(AppPool& p, int count) {
    p.create(10);
    for (int n = 1; n <= count; ++n) {
        ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
        p.apply(backup_test::insert_row(100 + n));
    }
    ASSERT_EQ(static_cast<uint32_t>(count), p.shadow()->get_version_count("appdb"));
}

// The "Applying journal file" lines, in order.
std::vector<std::string> applied(const kt::LogCapture& log) {
    std::vector<std::string> out;
    const std::string prefix = "Applying journal file ";
    for (const kt::LogRecord& r : log.records()) {
        if (r.message.compare(0, prefix.size(), prefix) == 0) out.push_back(r.message.substr(prefix.size()));
    }
    return out;
}

class NewestTwoDamagedTest : public ::testing::TestWithParam<std::tuple<Damage, Damage>> {};

TEST_P(NewestTwoDamagedTest, ThirdVersionIsTheBaseAndThreeJournalsAreReplayed) {
    AppPool p;
    versions_with_journals(p, 5);
    const Damage newest = std::get<0>(GetParam());
    const Damage second = std::get<1>(GetParam());
    {
        boost::shared_ptr<PODBShadow> shadow = p.shadow();
        std::lock_guard<std::recursive_mutex> guard(shadow->mutex());
        ShadowVersionList& list = *shadow->get_db_versions_("appdb");
        auto it = list.begin();
        ASSERT_EQ(5u, it->version);
        damage(*it, newest);
        ++it;
        damage(*it, second);
        ASSERT_EQ(0u, shadow->persist_chksum("appdb"));
    }
    // A context that reads the damaged history from disk.
    std::unique_ptr<CatalogShadowContext> ctx = p.layout.context();
    ASSERT_EQ(0, unlink(p.db.c_str()));
    const std::string v4 = p.shadow_file("appdb.4");
    const std::string v5 = p.shadow_file("appdb.5");
    const std::string v4_bytes = backup_test::read_bytes(v4);
    const std::string v5_bytes = backup_test::read_bytes(v5);

    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, ctx->recover(p.dir, "appdb", 0)) << log.dump();
    EXPECT_EQ(backup_test::catalog_rows(p.reference), backup_test::catalog_rows(p.db));
    EXPECT_EQ(15u, backup_test::catalog_rows(p.db).size());
    EXPECT_TRUE(log.contains(log_level::info, 0,
                             "merge_shadows: Using " + p.shadow_file("appdb.3") + " as the base dbfile, duplicate it to " +
                                 p.db + ".tmp"))
        << log.dump();
    EXPECT_EQ((std::vector<std::string>{p.shadow_file("appdb.3.journal"), p.shadow_file("appdb.4.journal"),
                                        p.shadow_file("appdb.5.journal")}),
              applied(log));

    for (const auto& v : {std::make_pair(v5, newest), std::make_pair(v4, second)}) {
        const std::string corrupt = "merge_shadows: " + v.first + " is corrupt, will try to use an earlier shadow copy.";
        const std::string unsound = "merge_shadows: " + v.first +
                                    " did not pass the SQLite integrity check, will try to use an earlier shadow copy.";
        if (v.second == Damage::integrity) {
            EXPECT_TRUE(log.contains(log_level::warning, CR_STATUS_CORRUPT, unsound)) << log.dump();
            EXPECT_FALSE(log.contains(log_level::warning, CR_STATUS_CORRUPT, corrupt)) << log.dump();
        } else {
            EXPECT_TRUE(log.contains(log_level::warning, CR_STATUS_CORRUPT, corrupt)) << log.dump();
            EXPECT_FALSE(log.contains(log_level::warning, CR_STATUS_CORRUPT, unsound)) << log.dump();
        }
    }
    // Passed over, never deleted.
    EXPECT_EQ(v4_bytes, backup_test::read_bytes(v4));
    EXPECT_EQ(v5_bytes, backup_test::read_bytes(v5));
    EXPECT_EQ(5u, ctx->pool->get(p.dir)->get_version_count("appdb"));
}

INSTANTIATE_TEST_SUITE_P(
    AllPairs, NewestTwoDamagedTest,
    ::testing::Values(std::make_tuple(Damage::db_checksum, Damage::journal_checksum),
                      std::make_tuple(Damage::journal_checksum, Damage::db_checksum),
                      std::make_tuple(Damage::db_checksum, Damage::integrity),
                      std::make_tuple(Damage::integrity, Damage::db_checksum),
                      std::make_tuple(Damage::journal_checksum, Damage::integrity),
                      std::make_tuple(Damage::integrity, Damage::journal_checksum)),
    [](const ::testing::TestParamInfo<std::tuple<Damage, Damage>>& info) {
        return std::string(damage_name(std::get<0>(info.param))) + "_then_" + damage_name(std::get<1>(info.param));
    });

TEST(RecoverVersionsTest, NewestChecksumBadOlderGoodReplaysBothJournals) {
    AppPool p;
    versions_with_journals(p, 2);
    backup_test::overwrite(p.shadow_file("appdb.2"), 300, "garbage");
    ASSERT_EQ(0, unlink(p.db.c_str()));
    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, p.ctx->recover(p.dir, "appdb", 0)) << log.dump();
    EXPECT_EQ(backup_test::catalog_rows(p.reference), backup_test::catalog_rows(p.db));
    EXPECT_EQ((std::vector<std::string>{p.shadow_file("appdb.1.journal"), p.shadow_file("appdb.2.journal")}),
              applied(log));
    EXPECT_EQ(1u, log.count_containing("Detected CRC mismatch for " + p.shadow_file("appdb.2") + ".")) << log.dump();
}

TEST(RecoverVersionsTest, NewestGoodVersionNeedsOnlyItsOwnJournal) {
    AppPool p;
    versions_with_journals(p, 3);
    ASSERT_EQ(0, unlink(p.db.c_str()));
    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, p.ctx->recover(p.dir, "appdb", 0)) << log.dump();
    EXPECT_EQ(backup_test::catalog_rows(p.reference), backup_test::catalog_rows(p.db));
    EXPECT_EQ(std::vector<std::string>{p.shadow_file("appdb.3.journal")}, applied(log));
}

// Versions with no journal (nothing was written after them) are skipped by
// the replay.
TEST(RecoverVersionsTest, VersionsWithoutJournalsAreSkipped) {
    AppPool p;
    p.create(5);
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));
    p.apply(backup_test::insert_row(6));
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));  // version 2, never journalled
    backup_test::sql_exec(p.db, backup_test::insert_row(7));
    backup_test::sql_exec(p.reference, backup_test::insert_row(7));
    ASSERT_EQ(CR_STATUS_OK, p.ctx->backup(p.dir, "appdb"));  // version 3
    p.apply(backup_test::insert_row(8));
    backup_test::overwrite(p.shadow_file("appdb.3"), 100, "X");
    backup_test::overwrite(p.shadow_file("appdb.2"), 100, "X");
    ASSERT_FALSE(kt::file_exists(p.shadow_file("appdb.2.journal")));
    ASSERT_EQ(0, unlink(p.db.c_str()));

    kt::LogCapture log;
    ASSERT_EQ(CR_STATUS_OK, p.ctx->recover(p.dir, "appdb", 0)) << log.dump();
    // Row 7 was never journalled: only versions 2 and 3 held it.
    std::vector<std::string> expected = backup_test::catalog_rows(p.reference);
    expected.erase(expected.begin() + 6);
    EXPECT_EQ(expected, backup_test::catalog_rows(p.db));
    EXPECT_EQ((std::vector<std::string>{p.shadow_file("appdb.1.journal"), p.shadow_file("appdb.3.journal")}),
              applied(log));
}

}  // namespace
