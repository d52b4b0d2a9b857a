// Builds against the installed headers and libraries and calls into them:
// creates a directory tree, walks it, reads an ini value and asks the catalog's
// directory lock. Exit status 0 when every answer is the expected one.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "catalog_shadow/DirectoryLock.h"
#include "dct/fileutil.h"
#include "dct/fs.h"
#include "dct/inifile.h"
#include "dct/log.h"
#include "dct/status.h"

namespace {

int failures = 0;

void check(bool ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "kavrel_consumer: %s\n", what);
        ++failures;
    }
}

}  // namespace

int main() {
    char templ[] = "/tmp/kavrel-consumer-XXXXXX";
    if (mkdtemp(templ) == nullptr) return 2;
    const std::string root = templ;

    std::vector<std::string> logged;
    dct::set_log_sink([&](dct::log_level, cr_status_t, const std::string& m) { logged.push_back(m); });

    check(wa_createtree(root + "/databases/application/7/c1/p1", 0755) == 0, "wa_createtree failed");
    check(wa_isdir(root + "/databases/application/7/c1/p1"), "created tree is not a directory");

    int seen = 0;
    TraverseResult walked = TraverseDir(root, [&](const DirItem&) { ++seen; return 0; }, true, 0);
    check(walked.status == CR_STATUS_OK, "TraverseDir failed");
    check(seen == 5, "TraverseDir offered an unexpected number of entries");

    const std::string cfg = root + "/pool.cfg";
    FILE* f = fopen(cfg.c_str(), "w");
    if (f != nullptr) {
        fputs("[Paths]\nDatabase = /srv/pool/db\n", f);
        fclose(f);
    }
    char value[64];
    check(InifileGetPathA(cfg.c_str(), "Paths", "Database", "", value, sizeof(value)) == CR_STATUS_OK &&
              std::string(value) == "/srv/pool/db",
          "InifileGetPathA did not read the database root");

    CatalogDirectoryLock lock;
    std::string owner;
    unsigned int mode = 0;
    check(lock.GetLockString(root, &owner, &mode) == CR_STATUS_OK && owner == "kavrel" && mode == 2,
          "CatalogDirectoryLock gave an unexpected lock string");

    InfoA(CR_STATUS_OK, "%s: consumer ran", "main");
    check(logged.size() == 1 && logged[0] == "main: consumer ran", "log sink did not receive the record");
    dct::set_log_sink(nullptr);

    check(wa_deletetree(root) == 0, "wa_deletetree failed");
    if (failures == 0) printf("kavrel_consumer: ok\n");
    return failures == 0 ? 0 : 1;
}
