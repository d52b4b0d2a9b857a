// Shared tools of the shadow-protected catalog tests: a pool in a temporary
// directory (database root, storage path, configuration file, identity file),
// a shadow context on it, a type-2 catalog application built by the factory,
// ways to lose or damage a database file, and a model of the rows a test
// expects.
#ifndef KAVREL_TESTS_APPDB_CATALOG_SHADOW_FIXTURE_H_
#define KAVREL_TESTS_APPDB_CATALOG_SHADOW_FIXTURE_H_

#include <fcntl.h>
#include <sys/stat.h>
#include <sqlite3.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_application_base.h"
#include "appdb/catalog_application_shadow.h"
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"
#include "catalog_test_helpers.h"
#include "common/test_util.h"

namespace shadowt {

using appdb::app_catalog_item;

// A pool below one directory:
//   DBROOT   <dir>/db          catalog applications get DBROOT/databases
//   storage  <dir>/storage     the shadow root is <dir>/storage/catalogshadow
//   config   <dir>/pool.cfg
struct pool_layout {
    explicit pool_layout(const std::string& dir)
        : dbroot(dir + "/db"),
          storage(dir + "/storage"),
          shadow(storage + "/catalogshadow"),
          config(dir + "/pool.cfg") {}

    // Configuration and identity file; `paths_extra` adds lines to [Paths].
    void prepare(const std::string& paths_extra = "") const {
        kt::write_file(config, "[Paths]\nStorageDatabase = " + dbroot + "\n" + paths_extra +
                                   "[Storage]\nStorage Path = " + storage + "\n");
        CatalogShadowIdentity identity(shadow.c_str());
        EXPECT_EQ(0u, identity.create_identity());
    }

    // A context on this pool, init() run.
    std::unique_ptr<CatalogShadowContext> context() const {
        std::unique_ptr<CatalogShadowContext> ctx(new CatalogShadowContext(
            new ConfigFileShadowProxy(config, dbroot), new CatalogDirectoryLock));
        ctx->init();
        return ctx;
    }

    std::string database_root() const { return dbroot + "/databases"; }
    std::string db_dir(unsigned dsid, const std::string& client, const std::string& policy) const {
        return database_root() + "/application/" + std::to_string(dsid) + "/" + client + "/" +
               policy;
    }
    std::string db_file(unsigned dsid, const std::string& client, const std::string& policy) const {
        return db_dir(dsid, client, policy) + "/app.db";
    }
    std::string shadow_dir(unsigned dsid, const std::string& client,
                           const std::string& policy) const {
        return shadow + "/" + std::to_string(dsid) + "/" + client + "/" + policy;
    }

    std::string dbroot, storage, shadow, config;
};

// A type-2 catalog application through the factory (cache of 5).
inline std::unique_ptr<appdb::catalog_application> make_shadow_app(const pool_layout& pool,
                                                                   CatalogShadowContext* ctx,
                                                                   unsigned dsid = 2) {
    return std::unique_ptr<appdb::catalog_application>(
        appdb::catalog_application_factory::create_catalog(
            dsid, pool.database_root(), appdb::APP_D_CATALOG_SHADOW, ctx, 5));
}

// ---- journals and shadow files ----

// Lines of every "appdb.N.journal" in a shadow directory.
inline size_t journal_lines(const std::string& shadow_dir) {
    size_t lines = 0;
    for (const std::string& name : kt::list_dir(shadow_dir)) {
        if (name.compare(0, 6, "appdb.") != 0) continue;
        if (name.size() < 8 || name.compare(name.size() - 8, 8, ".journal") != 0) continue;
        const std::string text = kt::read_file(shadow_dir + "/" + name);
        for (char c : text) lines += c == '\n' ? 1 : 0;
    }
    return lines;
}

// Names of the version databases "appdb.N" of a shadow directory.
inline std::vector<std::string> shadow_versions(const std::string& shadow_dir) {
    std::vector<std::string> out;
    for (const std::string& name : kt::list_dir(shadow_dir)) {
        if (name.compare(0, 6, "appdb.") != 0) continue;
        if (name.find_first_not_of("0123456789", 6) != std::string::npos) continue;
        out.push_back(name);
    }
    return out;
}

// ---- losing and damaging a database ----

// Removes the database file and whatever SQLite keeps beside it.
inline void delete_database(const std::string& file) {
    unlink(file.c_str());
    unlink((file + "-journal").c_str());
}

// Overwrites `length` bytes at `offset` with bytes from `rng` (never the
// original bytes: each is flipped if it would be equal).
inline void scribble(const std::string& file, off_t offset, size_t length, std::mt19937& rng) {
    const int fd = open(file.c_str(), O_RDWR);
    ASSERT_GE(fd, 0) << file;
    std::vector<unsigned char> old(length), bytes(length);
    const ssize_t got = pread(fd, old.data(), length, offset);
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<unsigned char>(rng());
        if (got > 0 && static_cast<ssize_t>(i) < got && bytes[i] == old[i]) bytes[i] ^= 0xFF;
    }
    ASSERT_EQ(static_cast<ssize_t>(length), pwrite(fd, bytes.data(), length, offset));
    close(fd);
}

inline off_t file_size(const std::string& file) {
    struct stat st;
    return stat(file.c_str(), &st) == 0 ? st.st_size : -1;
}

// The 100-byte database header.
inline void damage_header(const std::string& file, std::mt19937& rng) {
    scribble(file, 0, 100, rng);
}

// Pages 2 to 4 (the roots of the table and of its two indexes) and three more
// pages spread over the file, 4096 bytes each.
inline void damage_pages(const std::string& file, std::mt19937& rng) {
    const off_t size = file_size(file);
    ASSERT_GT(size, 4 * 4096) << file;
    const off_t pages = size / 4096;
    for (off_t page = 2; page <= 4; ++page) scribble(file, (page - 1) * 4096, 4096, rng);
    for (int i = 1; i <= 3; ++i) {
        const off_t page = 5 + (pages - 5) * i / 4;
        if (page <= pages) scribble(file, (page - 1) * 4096, 4096, rng);
    }
}

// "ok" when the file passes SQLite's integrity check.
inline std::string integrity(const std::string& file) {
    return catt::raw_scalar(file, "PRAGMA integrity_check");
}

// ---- the rows a test expects ----

// File name -> line form of every row the catalog acknowledged and did not
// remove since.
class row_model {
public:
    void insert(const app_catalog_item& item) { rows_[item.file_name] = item.to_string(); }
    void erase(const std::string& file_name) { rows_.erase(file_name); }
    // Removes every row of a backup id.
    void erase_backup(const std::map<std::string, std::string>& backup_of, const std::string& bid) {
        for (auto it = rows_.begin(); it != rows_.end();) {
            auto b = backup_of.find(it->first);
            if (b != backup_of.end() && b->second == bid) {
                it = rows_.erase(it);
            } else {
                ++it;
            }
        }
    }
    const std::map<std::string, std::string>& rows() const { return rows_; }
    size_t size() const { return rows_.size(); }

private:
    std::map<std::string, std::string> rows_;
};

// The rows of client and policy read back through find_catalog, as
// file name -> line form. Fails the test when the query fails or a name
// comes twice.
inline std::map<std::string, std::string> read_back(appdb::catalog_application& app,
                                                    const std::string& client,
                                                    const std::string& policy,
                                                    cr_status_t* status_out = nullptr) {
    std::vector<app_catalog_item> items;
    const cr_status_t status =
        app.find_catalog("admin", 1, "backup_id|" + client + "," + policy + ",*", items);
    if (status_out != nullptr) *status_out = status;
    std::map<std::string, std::string> out;
    if (status != 0) {
        if (status_out == nullptr) ADD_FAILURE() << "find_catalog failed with " << status;
        return out;
    }
    for (const app_catalog_item& item : items) {
        EXPECT_TRUE(out.emplace(item.file_name, item.to_string()).second)
            << "row twice: " << item.file_name;
    }
    return out;
}

// Compares two row maps and describes the first differences.
inline ::testing::AssertionResult same_rows(const std::map<std::string, std::string>& expected,
                                            const std::map<std::string, std::string>& actual) {
    if (expected == actual) return ::testing::AssertionSuccess();
    ::testing::AssertionResult r = ::testing::AssertionFailure();
    r << "expected " << expected.size() << " rows, got " << actual.size() << ";";
    int shown = 0;
    for (const auto& e : expected) {
        auto a = actual.find(e.first);
        if (a == actual.end()) {
            r << " missing " << e.first << ";";
        } else if (a->second != e.second) {
            r << " differs " << e.first << ";";
        } else {
            continue;
        }
        if (++shown == 5) return r;
    }
    for (const auto& a : actual) {
        if (expected.count(a.first) == 0) {
            r << " extra " << a.first << ";";
            if (++shown == 5) return r;
        }
    }
    return r;
}

// A fresh pool with a shadow context and a type-2 application of data store
// 2, a captured log and instant sleeps.
class shadow_fixture : public ::testing::Test {
protected:
    shadow_fixture() : pool(tmp.path()) {}

    void SetUp() override {
        pool.prepare();
        ctx = pool.context();
        ASSERT_TRUE(ctx->enabled.load()) << log.dump();
        app = make_shadow_app(pool, ctx.get());
        ASSERT_NE(nullptr, app);
        log.clear();
    }
    void TearDown() override {
        app.reset();
        ctx.reset();
    }

    // A new application on the same context, as after a restart of the
    // service: no connection of the old one survives.
    void restart_app() {
        app.reset();
        app = make_shadow_app(pool, ctx.get());
        ASSERT_NE(nullptr, app);
    }

    std::string db_file(const std::string& c, const std::string& p) const {
        return pool.db_file(2, c, p);
    }
    std::string db_dir(const std::string& c, const std::string& p) const {
        return pool.db_dir(2, c, p);
    }
    std::string shadow_dir(const std::string& c, const std::string& p) const {
        return pool.shadow_dir(2, c, p);
    }

    void insert(const app_catalog_item& item) {
        ASSERT_EQ(0u, app->update_catalog("admin", 1, item.to_string())) << log.dump();
        model.insert(item);
    }

    appdb::catalog_application_impl_shadow* shadow_app() {
        return dynamic_cast<appdb::catalog_application_impl_shadow*>(app.get());
    }

    size_t count_msg(const std::string& m) const { return log.count_message(m); }

    kt::TempDir tmp;
    kt::LogCapture log;
    kt::SleepCounter sleeps;
    pool_layout pool;
    std::unique_ptr<CatalogShadowContext> ctx;
    std::unique_ptr<appdb::catalog_application> app;
    row_model model;
};

}  // namespace shadowt

#endif  // KAVREL_TESTS_APPDB_CATALOG_SHADOW_FIXTURE_H_
