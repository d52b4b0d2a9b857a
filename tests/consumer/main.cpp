// A service built against the installed headers and libraries alone: it makes
// a shadow-protected catalog through the factory, stores, finds (as a vector
// and through a record sink), removes, takes a shadow version, loses the
// database and gets it back, exports the pool's shadow and checks the export
// on its own, and routes the log to its own sink. Exit status 0 when every
// answer is the expected one.
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "appdb/app_catalog_item.h"
#include "appdb/app_query.h"
#include "appdb/catalog_application.h"
#include "appdb/catalog_item_sink.h"
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"
#include "catalog_shadow/DirectoryLock.h"
#include "dct/log.h"
#include "dct/status.h"
#include "offsite/shadow_export.h"

namespace {

int failures = 0;

void check(bool ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "kavrel_consumer: %s\n", what);
        ++failures;
    }
}

bool write_file(const std::string& path, const std::string& text) {
    FILE* f = fopen(path.c_str(), "w");
    if (f == nullptr) return false;
    const bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
    return fclose(f) == 0 && ok;
}

// Counts the records and remembers their file names; a restart forgets them.
class name_sink : public appdb::catalog_item_sink {
public:
    void restart() override { names_.clear(); }
    cr_status_t take(appdb::app_catalog_item& item) override {
        names_.push_back(item.file_name);
        return CR_STATUS_OK;
    }
    const std::vector<std::string>& names() const { return names_; }

private:
    std::vector<std::string> names_;
};

appdb::app_catalog_item sample(int n) {
    appdb::app_catalog_item item;
    item.client = "clientA";
    item.policy = "daily";
    item.backup_id = "clientA_1700000000";
    item.file_name = item.backup_id + "_C1_F" + std::to_string(n);
    item.file_len = 4096u * static_cast<uint64_t>(n);
    item.app_id = "orcl";
    item.backup_start_time = 1700000000 + n;
    item.backup_stop_time = 1700000600 + n;
    item.owner = "svc";
    item.owner_role = appdb::APP_ROLE_APP;
    return item;
}

}  // namespace

int main() {
    char templ[] = "/tmp/kavrel-consumer-XXXXXX";
    if (mkdtemp(templ) == nullptr) return 2;
    const std::string root = templ;
    const std::string db_root = root + "/db";
    const std::string config = root + "/pool.cfg";
    check(mkdir(db_root.c_str(), 0755) == 0, "mkdir of the database root failed");
    check(write_file(config, "[Paths]\nDatabase = " + db_root + "\nStorageDatabase = " + db_root +
                                 "\n[Storage]\nStorage Path = " + root + "/storage\n"),
          "writing the configuration failed");

    std::vector<std::string> logged;
    dct::set_log_sink([&](dct::log_level, cr_status_t, const std::string& m) { logged.push_back(m); });

    {
        CatalogShadowContext shadow(new ConfigFileShadowProxy(config, db_root), new CatalogDirectoryLock);
        check(shadow.load_configurations() == CR_STATUS_OK, "load_configurations failed");
        check(CatalogShadowIdentity(shadow.shadow_path.c_str()).create_identity() == CR_STATUS_OK,
              "create_identity failed");
        check(shadow.init() == CR_STATUS_OK, "shadow init failed");

        std::unique_ptr<appdb::catalog_application> catalog(appdb::catalog_application_factory::create_catalog(
            7, db_root + "/databases", appdb::APP_D_CATALOG_SHADOW, &shadow, 5));
        check(catalog != nullptr, "create_catalog failed");
        if (catalog) {
            for (int n = 1; n <= 3; ++n) {
                check(catalog->update_catalog("svc", appdb::APP_ROLE_APP, sample(n).to_string()) == CR_STATUS_OK,
                      "update_catalog failed");
            }
            const std::string all = appdb::to_query_by_backup_id("clientA", "daily", "*");
            std::vector<appdb::app_catalog_item> found;
            check(catalog->find_catalog("svc", appdb::APP_ROLE_APP, all, found) == CR_STATUS_OK && found.size() == 3,
                  "find_catalog did not return the three records");

            const std::string dir = db_root + "/databases/application/7/clientA/daily";
            check(shadow.backup(dir, shadow_type_appdb) == CR_STATUS_OK, "shadow backup failed");
            check(catalog->del_catalog("svc", appdb::APP_ROLE_APP,
                                       appdb::to_query_by_file_name("clientA", "daily", sample(2).file_name)) ==
                      CR_STATUS_OK,
                  "del_catalog failed");

            // The database is lost; the next query rebuilds it from the version
            // and the journal of the removal.
            check(catalog->close_db(dir, 0, true) == CR_STATUS_OK, "close_db failed");
            check(unlink((dir + "/app.db").c_str()) == 0, "removing app.db failed");
            name_sink sink;
            check(catalog->find_catalog("", appdb::APP_ROLE_ADMIN, all, sink) == CR_STATUS_OK,
                  "find_catalog into a sink failed");
            check(sink.names() == std::vector<std::string>{sample(1).file_name, sample(3).file_name},
                  "the recovered catalog does not hold records 1 and 3");

            // The pool's shadow as of now in one directory, and its check,
            // whose rehearsed recovery gives the two rows the catalog holds.
            const std::string out = root + "/export";
            kshadow::ExportReport exported;
            check(kshadow::export_shadow(shadow, out, &exported) == CR_STATUS_OK && exported.databases.size() == 1 &&
                      exported.databases[0].rows_known && exported.databases[0].rows == 2,
                  "export_shadow did not export the one database with its two rows");
            kshadow::ExportReport manifest;
            std::vector<kshadow::DatabaseReport> reports;
            check(kshadow::verify_export(out, &manifest, &reports) == CR_STATUS_OK && reports.size() == 1,
                  "verify_export did not check the one database");
            for (const kshadow::DatabaseReport& r : reports) {
                check(r.problems.empty(), "the export has problems");
                check(r.recovery.possible && r.recovery.rows_known && r.recovery.rows_after == 2,
                      "the export's recovery does not give two rows");
            }
        }
    }

    CatalogDirectoryLock lock;
    std::string owner;
    unsigned int mode = 0;
    check(lock.GetLockString(root, &owner, &mode) == CR_STATUS_OK && owner == "kavrel" && mode == 2,
          "CatalogDirectoryLock gave an unexpected lock string");

    logged.clear();
    InfoA(CR_STATUS_OK, "%s: consumer ran", "main");
    check(logged.size() == 1 && logged[0] == "main: consumer ran", "log sink did not receive the record");
    dct::set_log_sink(nullptr);

    if (failures == 0) {
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
        if (ec) fprintf(stderr, "kavrel_consumer: could not remove %s: %s\n", root.c_str(), ec.message().c_str());
        printf("kavrel_consumer: ok\n");
    }
    return failures == 0 ? 0 : 1;
}
