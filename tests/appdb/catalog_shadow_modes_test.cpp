// The shadow is as private as the catalog: every directory it makes is at most
// 0750 and every file at most 0640, whatever the umask, through creation,
// backup, recovery and the setting aside of damaged material; a shadow made
// with wider modes is brought down by the next backup of each database.
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>

#include <gtest/gtest.h>

#include "catalog_shadow_fixture.h"
#include "common/test_util.h"

namespace {

using shadowt::make_shadow_app;
using shadowt::pool_layout;

// Every entry below `root` (the root included, links not followed): path ->
// permission bits.
std::map<std::string, mode_t>* g_modes = nullptr;
int record_mode(const char* path, const struct stat* st, int, struct FTW*) {
    (*g_modes)[path] = st->st_mode & 07777;
    return 0;
}
std::map<std::string, mode_t> modes_below(const std::string& root) {
    std::map<std::string, mode_t> modes;
    g_modes = &modes;
    nftw(root.c_str(), record_mode, 16, FTW_PHYS);
    g_modes = nullptr;
    return modes;
}

bool is_dir(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Each entry below `root` within the private modes; the failures name the
// entries.
void expect_private(const std::string& root, const std::string& when) {
    const auto modes = modes_below(root);
    ASSERT_FALSE(modes.empty()) << root;
    for (const auto& entry : modes) {
        const mode_t limit = is_dir(entry.first) ? 0750 : 0640;
        EXPECT_EQ(0u, entry.second & ~limit)
            << when << ": " << entry.first << " has mode 0" << std::oct << entry.second;
    }
}

// Sets the widest umask for the test and restores the old one.
class WideUmask {
public:
    WideUmask() : old_(umask(0)) {}
    ~WideUmask() { umask(old_); }

private:
    mode_t old_;
};

shadowt::app_catalog_item row(int n) {
    return catt::make_item("c1", "p1", "f" + std::to_string(n), "B" + std::to_string(n), 1700000000 + n, "svc");
}

class ShadowModesTest : public ::testing::Test {
protected:
    void SetUp() override {
        pool_.prepare();
        ctx_ = pool_.context();
        ASSERT_TRUE(ctx_->enabled);
        app_ = make_shadow_app(pool_, ctx_.get());
        ASSERT_TRUE(app_);
        for (int i = 0; i < 3; ++i) {
            ASSERT_EQ(CR_STATUS_OK, app_->update_catalog("svc", appdb::APP_ROLE_APP, row(i).to_string()));
        }
    }

    WideUmask umask_;
    kt::TempDir tmp_;
    pool_layout pool_{tmp_.path()};
    std::unique_ptr<CatalogShadowContext> ctx_;
    std::unique_ptr<appdb::catalog_application> app_;
};

TEST_F(ShadowModesTest, CreationAndJournalsArePrivateWhateverTheUmask) {
    expect_private(pool_.shadow, "after creation");
    // The identity file and the root too.
    EXPECT_EQ(0750u, modes_below(pool_.shadow)[pool_.shadow]);
    EXPECT_EQ(0640u, modes_below(pool_.shadow)[pool_.shadow + "/" + CatalogShadowIdentity::the_file_name()]);
    // The live catalog directories the shadow mirrors.
    expect_private(pool_.db_dir(2, "c1", "p1"), "live directory");
    EXPECT_EQ(0640u, modes_below(pool_.shadow_dir(2, "c1", "p1"))[pool_.shadow_dir(2, "c1", "p1") + "/appdb.1.journal"]);
}

TEST_F(ShadowModesTest, BackupKeepsItPrivate) {
    ASSERT_EQ(CR_STATUS_OK, ctx_->backup(pool_.db_dir(2, "c1", "p1"), "appdb"));
    ASSERT_EQ(CR_STATUS_OK, ctx_->backup_all(true));
    expect_private(pool_.shadow, "after backup");
}

TEST_F(ShadowModesTest, AShadowMadeWithWiderModesIsTightenedByTheNextBackup) {
    // A shadow as it was made before: directories 0755, files 0644.
    for (const auto& entry : modes_below(pool_.shadow)) {
        ASSERT_EQ(0, chmod(entry.first.c_str(), is_dir(entry.first) ? 0755 : 0644));
    }
    ASSERT_EQ(CR_STATUS_OK, app_->update_catalog("svc", appdb::APP_ROLE_APP, row(9).to_string()));
    ASSERT_EQ(CR_STATUS_OK, ctx_->backup(pool_.db_dir(2, "c1", "p1"), "appdb"));
    // Everything on the way from the root to the database's shadow, and all
    // it holds; the root itself, and the identity file, are the root's.
    const std::string dir = pool_.shadow_dir(2, "c1", "p1");
    expect_private(dir, "after the next backup");
    const auto modes = modes_below(pool_.shadow);
    EXPECT_EQ(0750u, modes.at(pool_.shadow + "/2"));
    EXPECT_EQ(0750u, modes.at(pool_.shadow + "/2/c1"));
    EXPECT_EQ(0750u, modes.at(pool_.shadow));
    // A mode narrower than the private one stays as narrow.
    ASSERT_EQ(0, chmod((dir + "/appdb.1").c_str(), 0600));
    ASSERT_EQ(CR_STATUS_OK, ctx_->backup(pool_.db_dir(2, "c1", "p1"), "appdb"));
    EXPECT_EQ(0600u, modes_below(dir).at(dir + "/appdb.1"));
}

TEST_F(ShadowModesTest, RecoveryAndSetAsideArePrivate) {
    const std::string db = pool_.db_file(2, "c1", "p1");
    // A hot journal beside the damaged database, made with SQLite's own
    // wider mode: it is set aside with the recovery.
    kt::write_file(db + "-journal", "left by a dead writer");
    ASSERT_EQ(0, chmod((db + "-journal").c_str(), 0644));
    kt::write_file(db, "not a database any more");
    // A database made before the private modes: the old file is kept beside
    // its journal, and private there too.
    ASSERT_EQ(0, chmod(db.c_str(), 0644));
    ASSERT_EQ(CR_STATUS_OK, ctx_->recover(pool_.db_dir(2, "c1", "p1"), "appdb", 0));
    expect_private(pool_.shadow, "after recovery");
    EXPECT_EQ(0640u, modes_below(db)[db]) << "the rebuilt database";
    // The set-aside journal and the old file lie in a "#corrupt_" directory.
    size_t found = 0;
    for (const auto& entry : modes_below(pool_.shadow)) {
        if (entry.first.find("#corrupt_appdb_") != std::string::npos && !is_dir(entry.first)) {
            ++found;
            EXPECT_EQ(0640u, entry.second) << entry.first;
        }
    }
    EXPECT_EQ(2u, found);
    // A lost database and its directory come back private too.
    ASSERT_EQ(0, unlink(db.c_str()));
    ASSERT_EQ(0, rmdir(pool_.db_dir(2, "c1", "p1").c_str()));
    ASSERT_EQ(CR_STATUS_OK, ctx_->recover_all_missing(true));
    expect_private(pool_.db_dir(2, "c1", "p1"), "after recovery of a lost database");
}

}  // namespace
