// What kavrel-shadow offsite check and restore report about the databases
// they meet: the blocks of a checked snapshot, the live databases a restore
// keeps (counted, and a damaged one named as a problem), and counts in words.
#include <sys/stat.h>

#include <string>

#include "offsite_fixture.h"

namespace {

using kshadowt::OffsiteTest;

TEST_F(OffsiteTest, CheckShowsTheSnapshotsDatabasesAndRestoreCountsWhatItKept) {
    ASSERT_EQ(0, offsite({"push"}).exit_status);
    // Each database of the snapshot with its manifest, not a live file the
    // scratch copy never has.
    kt::RunResult r = offsite({"check"});
    ASSERT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_EQ(std::string::npos, r.out.find("live database missing")) << r.out;
    EXPECT_EQ(std::string::npos, r.out.find("  live          ")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("1/c1/p1\n  manifest      3 files, ")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find(", 3 rows\n  checksums     ok\n")) << r.out;

    // Both shadows lost, both live databases there: the shadows come back,
    // the live databases are kept.
    kt::write_file(s1_ + "/.chksum.appdb", "garbage\n");
    kt::write_file(shadow_root_ + "/1/c2/p2/.chksum.appdb", "garbage\n");
    r = offsite({"restore"});
    ASSERT_EQ(0, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos,
              r.out.find(", 2 databases: 2 shadows restored, 0 databases rebuilt, 2 kept, 0 problems\n"))
        << r.out;

    // A live database that is kept but damaged is a problem of the restore.
    kshadowt::tamper_second_row(p1_ + "/app.db");
    r = offsite({"restore"});
    EXPECT_EQ(1, r.exit_status) << r.out << r.err;
    EXPECT_NE(std::string::npos,
              r.out.find("  problem       the live database that was kept is damaged (integrity ok, row checksums "
                         "bad): kavrel-shadow recover " +
                         p1_ + " rebuilds it\n"))
        << r.out;
    EXPECT_NE(std::string::npos,
              r.out.find(", 2 databases: 0 shadows restored, 0 databases rebuilt, 2 kept, 1 problem\n"))
        << r.out;
}

}  // namespace
