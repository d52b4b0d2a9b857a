// kavrel-shadow offsite with several pools in one repository, and a
// replacement server whose layout is not the lost one's: every pool is
// listed, and a snapshot of any pool is restored into this server's roots,
// locally and over SFTP.
#include <sys/stat.h>

#include <regex>
#include <string>
#include <vector>

#include "common/sshd_server.h"
#include "offsite_fixture.h"

namespace {

using kshadowt::backup_ids;
using kshadowt::OffsiteTest;

// Another server's pool: its own registry, configuration, database root and
// shadow root below `top`, the same [Offsite] section as the first pool.
struct OtherPool {
    std::string registry, config, root, storage;

    OtherPool(const std::string& top, const std::string& offsite) {
        kt::make_dirs(top);
        registry = top + "/registry.cfg";
        config = top + "/pool.cfg";
        root = top + "/var/catalog";
        storage = top + "/store";
        kt::write_file(registry, std::string("[") + appdb::kRegistrySection + "]\n" +
                                     appdb::kRegistryConfigFileKey + " = " + config + "\n");
        kt::write_file(config, "[Paths]\nDatabase = " + root + "\nStorageDatabase = " + root +
                                   "\n[Storage]\nStorage Path = " + storage + "\n[Offsite]\n" + offsite);
        kt::make_dirs(root);
    }

    std::string catalog_dir(const std::string& client, const std::string& policy) const {
        return root + "/databases/application/1/" + client + "/" + policy;
    }

    // One catalog made through the library, as a service makes it.
    void build(const std::string& client, const std::string& policy, int items) const {
        CatalogShadowContext context(new ConfigFileShadowProxy(config, root), new CatalogDirectoryLock());
        ASSERT_EQ(CR_STATUS_OK, context.load_configurations());
        kt::make_dirs(context.shadow_path);
        ASSERT_EQ(CR_STATUS_OK, CatalogShadowIdentity(context.shadow_path.c_str()).create_identity());
        ASSERT_EQ(CR_STATUS_OK, context.init());
        std::unique_ptr<appdb::catalog_application> catalog(appdb::catalog_application_factory::create_catalog(
            1, root + "/databases", appdb::APP_D_CATALOG_SHADOW, &context, 5));
        ASSERT_TRUE(catalog);
        for (int i = 0; i < items; ++i) {
            ASSERT_EQ(CR_STATUS_OK,
                      catalog->update_catalog("svc", appdb::APP_ROLE_APP, kst::item(client, policy, i).to_string()));
        }
    }

    kt::RunOptions options() const {
        kt::RunOptions o;
        o.set_env[appdb::kRegistryEnv] = registry;
        return o;
    }
};

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

class OffsitePoolsTest : public OffsiteTest {
protected:
    // Two pools of different roots push into `repository`; a third server,
    // laid out like neither, restores the first pool's snapshot.
    // `whole`: also what does not depend on the repository's kind (the
    // listing of this pool alone, a restore with no snapshot of this pool,
    // the listing and verify of the restored pool).
    void two_pools_and_a_new_server(const std::string& repository, const std::string& sftp_command, bool whole) {
        const std::string offsite = "Repository = " + repository + "\nPasswordFile = " + pass_ + "\nKeepLast = 5\n" +
                                    (sftp_command.empty() ? "" : "SftpCommand = " + sftp_command + "\n");
        configure(offsite);
        const OtherPool second(pool_.dir().file("second"), offsite);
        second.build("c7", "p7", 2);
        // This pool is pointed at `repository` (made here when it is not there).
        ASSERT_EQ(0, offsite_run({"init"}, kt::RunOptions()).exit_status);
        ASSERT_EQ(0, offsite_run({"push"}, kt::RunOptions()).exit_status);
        kt::RunResult r = offsite_run({"push"}, second.options());
        ASSERT_EQ(0, r.exit_status) << r.out << r.err;

        if (whole) {
            r = offsite_run({"snapshots"}, second.options());
            ASSERT_EQ(0, r.exit_status) << r.err;
            EXPECT_NE(std::string::npos, r.out.find("offsite snapshots: 1 snapshot of pool " + second.root + " in " +
                                                    repository + " (1 of other pools: --all-pools lists them)\n"))
                << r.out;
        }
        r = offsite_run({"snapshots", "--all-pools", "--json"}, second.options());
        ASSERT_EQ(0, r.exit_status) << r.err;
        const auto doc = ktool::json::parse(r.out);
        ASSERT_EQ(2u, doc["snapshots"].size());
        EXPECT_EQ(pool_.root(), doc["snapshots"][0]["pool"]);
        EXPECT_EQ(5, doc["snapshots"][0]["rows"]);
        EXPECT_EQ(second.root, doc["snapshots"][1]["pool"]);
        EXPECT_EQ(2, doc["snapshots"][1]["rows"]);
        EXPECT_TRUE(doc["summary"]["pool"].is_null());
        const std::string first_id = doc["snapshots"][0]["id"];
        const OtherPool fresh(pool_.dir().file("fresh"), offsite);
        if (whole) {
            r = offsite_run({"snapshots", "--all-pools"}, second.options());
            EXPECT_NE(std::string::npos, r.out.find("  " + second.root + "\n")) << r.out;
            EXPECT_NE(std::string::npos, r.out.find("offsite snapshots: 2 snapshots of every pool in ")) << r.out;
            r = offsite_run({"restore"}, fresh.options());
            EXPECT_EQ(1, r.exit_status);
            EXPECT_EQ("kavrel-shadow: offsite restore: no snapshot of this pool (database root " + fresh.root +
                          "); the repository holds 2 snapshots of other pools: offsite snapshots --all-pools lists "
                          "them, offsite restore SNAPSHOT restores one here\n",
                      r.err);
        }
        r = offsite_run({"restore", first_id.substr(0, 8)}, fresh.options());
        ASSERT_EQ(0, r.exit_status) << r.out << r.err;
        EXPECT_TRUE(std::regex_search(r.out, std::regex("^restoring snapshot " + first_id.substr(0, 8) +
                                                        " of [0-9T:Z-]+ \\(host [^,]+, database root " +
                                                        pool_.root() + "\\)\n")))
            << r.out;
        EXPECT_NE(std::string::npos,
                  r.out.find("2 databases: 2 shadows restored, 2 databases rebuilt, 0 kept, 0 problems"))
            << r.out;
        EXPECT_EQ(backup_ids(p1_ + "/app.db"), backup_ids(fresh.catalog_dir("c1", "p1") + "/app.db"));
        EXPECT_EQ(backup_ids(p2_ + "/app.db"), backup_ids(fresh.catalog_dir("c2", "p2") + "/app.db"));
        // Nothing lands in the first server's paths from the new one.
        struct stat st;
        EXPECT_NE(0, stat((fresh.root + pool_.root()).c_str(), &st));

        if (!whole) return;
        // The listing is the first pool's, paths aside; verify finds all well.
        kt::RunOptions listing = fresh.options();
        const kt::RunResult old_list = pool_.run({"-listall"});
        const kt::RunResult new_list = kt::run_program(kt::kavrel_binary(), {"-listall"}, listing);
        ASSERT_EQ(0, new_list.exit_status) << new_list.err;
        EXPECT_EQ(old_list.out, replaced(new_list.out, fresh.root, pool_.root()));
        r = run({"verify"}, fresh.options());
        EXPECT_EQ(0, r.exit_status) << r.out << r.err;
        EXPECT_NE(std::string::npos, r.out.find("verify: 2 databases, 0 with problems, 0 problems, 2 recoverable"))
            << r.out;
    }

    kt::RunResult offsite_run(std::vector<std::string> args, kt::RunOptions options) {
        return offsite(args, options);
    }
};

TEST_F(OffsitePoolsTest, TwoPoolsShareALocalRepositoryAndANewServerRestoresEither) {
    two_pools_and_a_new_server(repo_, "", true);
}

TEST_F(OffsitePoolsTest, TwoPoolsShareAnSftpRepositoryAndANewServerRestoresEither) {
    kt::SshdServer sshd;
    if (!sshd.ok()) GTEST_SKIP() << sshd.error();
    two_pools_and_a_new_server(sshd.repository(pool_.dir().file("vault")), sshd.sftp_command(), false);
}

}  // namespace
