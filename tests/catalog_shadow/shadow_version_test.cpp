// Verifying a version's database and journal against the checksum file.
#include <errno.h>

#include <gtest/gtest.h>

#include "common/power_loss.h"
#include "common/test_util.h"
#include "dct/config.h"
#include "dct/fault.h"
#include "dct/fs.h"
#include "shadow_test_helpers.h"

using dct::log_level;
using shadow_test::adler;

namespace {

struct VersionDir {
    kt::TempDir tmp;
    std::string dir = tmp.path();
    ShadowVersion version{dir, "podb", 7};
};

// Installs a process configuration for one scope.
class ScopedConfig {
public:
    explicit ScopedConfig(bool disable_auto_fix) {
        config_.SetDisableCatalogAutoFixJournal(disable_auto_fix);
        _crConfigClass::SetInstance(&config_);
    }
    ~ScopedConfig() { _crConfigClass::SetInstance(nullptr); }

private:
    _crConfigClass config_;
};

}  // namespace

TEST(ShadowVersionDb, BlockSizedFileMatches) {
    VersionDir v;
    std::string content(32768, '\0');
    for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7);
    kt::write_file(v.version.db_path, content);
    v.version.db_crc = adler(content);
    EXPECT_TRUE(v.version.check_crc_db());
    EXPECT_TRUE(v.version.db_verified);
}

TEST(ShadowVersionDb, FileAcrossSeveralBlocksMatches) {
    VersionDir v;
    std::string content(3 * 32768 + 5, 'q');
    kt::write_file(v.version.db_path, content);
    v.version.db_crc = adler(content);
    EXPECT_TRUE(v.version.check_crc_db());
}

TEST(ShadowVersionDb, EmptyFileHasChecksumOne) {
    VersionDir v;
    kt::write_file(v.version.db_path, "");
    v.version.db_crc = 1;
    EXPECT_TRUE(v.version.check_crc_db());
}

TEST(ShadowVersionDb, MismatchIsReported) {
    VersionDir v;
    kt::write_file(v.version.db_path, "abc");
    v.version.db_crc = adler("abd");
    kt::LogCapture log;
    EXPECT_FALSE(v.version.check_crc_db());
    EXPECT_FALSE(v.version.db_verified);
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE,
                            "Detected CRC mismatch for " + v.version.db_path + ". Expected " +
                                std::to_string(adler("abd")) + ", actually " + std::to_string(adler("abc"))))
        << log.dump();
}

TEST(ShadowVersionDb, MissingFileFails) {
    VersionDir v;
    kt::LogCapture log;
    EXPECT_FALSE(v.version.check_crc_db());
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_MISSING,
                            "check_crc_db: can not open file: " + v.version.db_path + " (" + strerror(ENOENT) + ")"))
        << log.dump();
}

TEST(ShadowVersionJournal, MatchingJournalPasses) {
    VersionDir v;
    kt::write_file(v.version.journal_path, "A;\nB;;\n");
    v.version.journal_crc = adler("B;;", adler("A;"));
    v.version.journal_lines = 2;
    kt::LogCapture log;
    EXPECT_TRUE(v.version.check_crc_journal());
    EXPECT_TRUE(v.version.journal_verified);
    EXPECT_EQ(0u, log.records().size()) << log.dump();
}

TEST(ShadowVersionJournal, MissingJournalIsAnEmptyOne) {
    VersionDir v;
    EXPECT_TRUE(v.version.check_crc_journal());
    EXPECT_EQ(0u, v.version.journal_lines);
}

TEST(ShadowVersionJournal, TwoExtraLinesAreCutAway) {
    VersionDir v;
    kt::write_file(v.version.journal_path, "A;\nB;\nC;\nD;\n");
    v.version.journal_crc = adler("B;", adler("A;"));
    v.version.journal_lines = 2;
    kt::LogCapture log;
    EXPECT_TRUE(v.version.check_crc_journal());
    EXPECT_EQ("A;\nB;\n", kt::read_file(v.version.journal_path));
    EXPECT_EQ(2u, v.version.journal_lines);
    EXPECT_EQ(1u, log.count(log_level::warning, CR_STATUS_NONE,
                            "Journal file " + v.version.journal_path +
                                " was corrupted, and it was fixed by truncation."))
        << log.dump();
}

TEST(ShadowVersionJournal, TornLastLineIsCutAway) {
    VersionDir v;
    kt::write_file(v.version.journal_path, "A;\nB;\nINSERT INTO x VAL");
    v.version.journal_crc = adler("B;", adler("A;"));
    v.version.journal_lines = 2;
    EXPECT_TRUE(v.version.check_crc_journal());
    EXPECT_EQ("A;\nB;\n", kt::read_file(v.version.journal_path));
}

TEST(ShadowVersionJournal, ExtraLinesAfterADamagedPrefixAreNotFixed) {
    VersionDir v;
    const std::string content = "A;\nX;\nC;\n";
    kt::write_file(v.version.journal_path, content);
    v.version.journal_crc = adler("B;", adler("A;"));
    v.version.journal_lines = 2;
    kt::LogCapture log;
    EXPECT_FALSE(v.version.check_crc_journal());
    EXPECT_FALSE(v.version.journal_verified);
    EXPECT_EQ(content, kt::read_file(v.version.journal_path));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE,
                            "Journal file " + v.version.journal_path + " was corrupted, tried to fix but failed."))
        << log.dump();
    EXPECT_EQ(1u, log.count_containing("Detected CRC mismatch for " + v.version.journal_path));
}

TEST(ShadowVersionJournal, FailedTruncationIsReported) {
    VersionDir v;
    kt::write_file(v.version.journal_path, "A;\nB;\n");
    v.version.journal_crc = adler("A;");
    v.version.journal_lines = 1;
    kt::LogCapture log;
    dct::set_fault_hook([](dct::fault_op op, const char*) { return op == dct::fault_op::ftruncate ? EIO : 0; });
    EXPECT_FALSE(v.version.check_crc_journal());
    dct::set_fault_hook(nullptr);
    EXPECT_EQ("A;\nB;\n", kt::read_file(v.version.journal_path));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_IO,
                            "fix_journal: ftruncate file failed: " + v.version.journal_path + " (" + strerror(EIO) +
                                ")"))
        << log.dump();
    EXPECT_EQ(1u, log.count_message("Journal file " + v.version.journal_path +
                                    " was corrupted, tried to fix but failed."));
}

TEST(ShadowVersionJournal, FewerLinesThanRecordedFails) {
    VersionDir v;
    kt::write_file(v.version.journal_path, "A;\n");
    v.version.journal_crc = adler("B;", adler("A;"));
    v.version.journal_lines = 2;
    kt::LogCapture log;
    EXPECT_FALSE(v.version.check_crc_journal());
    EXPECT_EQ(1u, log.count_message("Detected CRC mismatch for " + v.version.journal_path + ". Expected " +
                                    std::to_string(adler("B;", adler("A;"))) + ", actually " +
                                    std::to_string(adler("A;"))))
        << log.dump();
}

TEST(ShadowVersionJournal, ZeroRecordedLinesTakesTheWholeJournalAndFillsTheCount) {
    VersionDir v;
    kt::write_file(v.version.journal_path, "A;\nB;\nC;\n");
    v.version.journal_crc = adler("C;", adler("B;", adler("A;")));
    v.version.journal_lines = 0;
    EXPECT_TRUE(v.version.check_crc_journal());
    EXPECT_EQ(3u, v.version.journal_lines);
    EXPECT_EQ("A;\nB;\nC;\n", kt::read_file(v.version.journal_path));
}

// A recorded count of 0 with the starting checksum 1 describes an empty
// journal: lines found in it were written after that (a writer that died
// before its first line was counted) and were never acknowledged.
TEST(ShadowVersionJournal, EmptyRecordedJournalCutsEveryLine) {
    VersionDir v;
    kt::write_file(v.version.journal_path, "A;\nB;\n");
    v.version.journal_crc = 1;
    v.version.journal_lines = 0;
    kt::LogCapture log;
    EXPECT_TRUE(v.version.check_crc_journal()) << log.dump();
    EXPECT_EQ(0u, v.version.journal_lines);
    EXPECT_EQ("", kt::read_file(v.version.journal_path));
    EXPECT_EQ(1u, log.count(log_level::warning, CR_STATUS_NONE,
                            "Journal file " + v.version.journal_path +
                                " was corrupted, and it was fixed by truncation."))
        << log.dump();
}

TEST(ShadowVersionJournal, EmptyRecordedJournalThatCannotBeCutFails) {
    VersionDir v;
    kt::write_file(v.version.journal_path, "A;\n");
    v.version.journal_crc = 1;
    v.version.journal_lines = 0;
    kt::LogCapture log;
    dct::set_fault_hook([](dct::fault_op op, const char*) { return op == dct::fault_op::ftruncate ? EIO : 0; });
    EXPECT_FALSE(v.version.check_crc_journal());
    dct::set_fault_hook(nullptr);
    EXPECT_EQ(1u, log.count_message("Journal file " + v.version.journal_path +
                                    " was corrupted, tried to fix but failed."))
        << log.dump();
    EXPECT_EQ("A;\n", kt::read_file(v.version.journal_path));
}

TEST(ShadowVersionJournal, EmptyRecordedJournalStaysEmpty) {
    VersionDir v;
    kt::write_file(v.version.journal_path, "");
    v.version.journal_crc = 1;
    v.version.journal_lines = 0;
    EXPECT_TRUE(v.version.check_crc_journal());
    EXPECT_EQ("", kt::read_file(v.version.journal_path));
}

// The cut is synced: a power loss right after it keeps it.
TEST(ShadowVersionJournal, TruncationSurvivesAPowerLoss) {
    VersionDir v;
    kt::write_file(v.version.journal_path, "A;\nB;\nC;\n");
    v.version.journal_crc = adler("A;");
    v.version.journal_lines = 1;
    kt::PowerLossModel model({v.dir});
    EXPECT_TRUE(v.version.check_crc_journal());
    model.restore();  // the disk as a power loss now would leave it
    EXPECT_EQ("A;\n", kt::read_file(v.version.journal_path));
    EXPECT_EQ(0, model.unattributed_syncs());
}

TEST(ShadowVersionJournal, ZeroRecordedLinesStayZeroWithAutoFixDisabled) {
    VersionDir v;
    ScopedConfig config(true);
    kt::write_file(v.version.journal_path, "A;\nB;\n");
    v.version.journal_crc = adler("B;", adler("A;"));
    v.version.journal_lines = 0;
    EXPECT_TRUE(v.version.check_crc_journal());
    EXPECT_EQ(0u, v.version.journal_lines);
}

TEST(ShadowVersionJournal, ZeroRecordedLinesFilledWithAutoFixEnabledInConfig) {
    VersionDir v;
    ScopedConfig config(false);
    kt::write_file(v.version.journal_path, "A;\n");
    v.version.journal_crc = adler("A;");
    EXPECT_TRUE(v.version.check_crc_journal());
    EXPECT_EQ(1u, v.version.journal_lines);
}

TEST(ShadowVersionJournal, FixJournalTruncates) {
    VersionDir v;
    kt::write_file(v.version.journal_path, "0123456789");
    EXPECT_EQ(0u, v.version.fix_journal(4));
    EXPECT_EQ("0123", kt::read_file(v.version.journal_path));
}

TEST(ShadowVersionJournal, FixJournalOfMissingFile) {
    VersionDir v;
    kt::LogCapture log;
    *__cr_errno_location() = 0;
    EXPECT_EQ(CR_STATUS_MISSING, v.version.fix_journal(4));
    EXPECT_EQ(CR_STATUS_MISSING, *__cr_errno_location());
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_MISSING,
                            "fix_journal: can not open file: " + v.version.journal_path + " (" + strerror(ENOENT) +
                                ")"))
        << log.dump();
}

// The inspecting check never repairs: lines past the recorded count stay, and
// the recorded count is left as it is.
TEST(ShadowVersionJournalInspect, ExtraLinesAreAcceptedAndKept) {
    VersionDir v;
    const std::string content = "A;\nB;\nC;\nD;\n";
    kt::write_file(v.version.journal_path, content);
    v.version.journal_crc = adler("B;", adler("A;"));
    v.version.journal_lines = 2;
    kt::LogCapture log;
    ShadowVersion::JournalScan scan;
    EXPECT_TRUE(v.version.verify_journal(&scan));
    EXPECT_TRUE(scan.exists);
    EXPECT_EQ(4u, scan.lines);
    EXPECT_EQ(content, kt::read_file(v.version.journal_path));
    EXPECT_EQ(2u, v.version.journal_lines);
    EXPECT_EQ(0u, log.records().size()) << log.dump();
}

TEST(ShadowVersionJournalInspect, ZeroRecordedLinesTakeTheWholeJournalWithoutFillingIn) {
    VersionDir v;
    kt::write_file(v.version.journal_path, "A;\nB;\n");
    v.version.journal_crc = adler("B;", adler("A;"));
    EXPECT_TRUE(v.version.verify_journal());
    EXPECT_EQ(0u, v.version.journal_lines);
}

TEST(ShadowVersionJournalInspect, ShortOrDamagedJournalFails) {
    VersionDir v;
    kt::write_file(v.version.journal_path, "A;\n");
    v.version.journal_crc = adler("B;", adler("A;"));
    v.version.journal_lines = 2;
    kt::LogCapture log;
    ShadowVersion::JournalScan scan;
    EXPECT_FALSE(v.version.verify_journal(&scan));
    EXPECT_EQ(1u, scan.lines);
    EXPECT_EQ("A;\n", kt::read_file(v.version.journal_path));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_NONE,
                            "Detected CRC mismatch for " + v.version.journal_path + ". Expected " +
                                std::to_string(v.version.journal_crc) + ", actually " +
                                std::to_string(adler("A;")))) << log.dump();

    kt::write_file(v.version.journal_path, "A;\nX;\nC;\n");
    EXPECT_FALSE(v.version.verify_journal());
    EXPECT_EQ("A;\nX;\nC;\n", kt::read_file(v.version.journal_path));
}

TEST(ShadowVersionJournalInspect, MissingJournalIsAnEmptyOne) {
    VersionDir v;
    ShadowVersion::JournalScan scan;
    EXPECT_TRUE(v.version.verify_journal(&scan));
    EXPECT_FALSE(scan.exists);
    EXPECT_EQ(0u, scan.lines);
}
