// A whole kavrel listing over a fuzzed app.db: the input replaces the one
// database of a pool tree, and TraverseDir walks the tree with OpList as the
// tool does (standard output goes to /dev/null). The last input byte picks
// the pattern and the form. Properties: no crash, no leak; the walk always
// finishes with status 0 (a bad database is logged and skipped).
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "appdb/catalog_list.h"
#include "dct/fileutil.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzk::quiet();
    if (freopen("/dev/null", "w", stdout) == nullptr) abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const uint8_t choice = data[size - 1];
    static const char* const patterns[] = {"*", "b1", "b*", "[", "*'*", "?"};
    const std::string pattern = patterns[choice % 6];
    const bool verbose = (choice & 0x80) != 0;

    const std::string root = fuzzk::scratch_dir() + "/db";
    const std::string dir = root + "/databases/application/1/client/policy";
    static bool made = false;
    if (!made) {
        FUZZ_CHECK(wa_createtree(dir, 0755) == 0);
        made = true;
    }
    // Whatever SQLite left beside the last input must not roll this one back.
    unlink((dir + "/app.db-journal").c_str());
    fuzzk::write_bytes(dir + "/app.db", data, size - 1);

    const TraverseResult result = TraverseDir(root, OpList(pattern, verbose), true, 0);
    FUZZ_CHECK(result.status == 0);
    fflush(stdout);
    return 0;
}
