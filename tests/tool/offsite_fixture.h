// The pool of the off-site tests: the kavrel-shadow pool with an
// [Offsite] section naming a local restic repository in its temporary
// directory, and the backup ids of a catalog file to compare pools with.
#ifndef KAVREL_TESTS_TOOL_OFFSITE_FIXTURE_H_
#define KAVREL_TESTS_TOOL_OFFSITE_FIXTURE_H_

#include <sqlite3.h>
#include <sys/stat.h>

#include <set>
#include <string>
#include <vector>

#include "dct/fs.h"
#include "kavrel_shadow_fixture.h"
#include "offsite/json_text.h"

namespace kshadowt {

// The backup ids in a catalog database file, sorted.
inline std::set<std::string> backup_ids(const std::string& db_file) {
    std::set<std::string> ids;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(db_file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        ADD_FAILURE() << "cannot open " << db_file;
        return ids;
    }
    sqlite3_stmt* st = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, "SELECT backupid FROM catalog", -1, &st, nullptr));
    while (st != nullptr && sqlite3_step(st) == SQLITE_ROW) {
        ids.insert(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)));
    }
    sqlite3_finalize(st);
    sqlite3_close(db);
    return ids;
}

inline std::string backup_id(const std::string& client, int n) { return kst::item(client, "p", n).backup_id; }

class OffsiteTest : public KavrelShadowTest {
protected:
    void SetUp() override {
        KavrelShadowTest::SetUp();
        repo_ = pool_.dir().file("repo");
        pass_ = pool_.dir().file("offsite.pass");
        kt::write_file(pass_, "correct horse battery staple\n");
        chmod(pass_.c_str(), 0600);
        base_config_ = kt::read_file(pool_.config());
        configure("Repository = " + repo_ + "\nPasswordFile = " + pass_ + "\nKeepLast = 5\n");
        const kt::RunResult made = offsite({"init"});
        ASSERT_EQ(0, made.exit_status) << made.out << made.err;
    }

    void configure(const std::string& offsite) {
        kt::write_file(pool_.config(), base_config_ + (offsite.empty() ? "" : "[Offsite]\n" + offsite));
    }

    kt::RunResult offsite(std::vector<std::string> args, kt::RunOptions options = kt::RunOptions()) {
        args.insert(args.begin(), "offsite");
        options.timeout_seconds = 120;
        options.set_env["RESTIC_CACHE_DIR"] = pool_.dir().file("restic-cache");
        return run(args, options);
    }

    // The real trees a disaster takes away.
    void lose_the_server() {
        ASSERT_EQ(0, wa_deletetree(pool_.root()));
        ASSERT_EQ(0, wa_deletetree(shadow_root_));
    }

    std::string db(const std::string& dir) const { return dir + "/app.db"; }

    std::string repo_, pass_, base_config_;
};

}  // namespace kshadowt

#endif  // KAVREL_TESTS_TOOL_OFFSITE_FIXTURE_H_
