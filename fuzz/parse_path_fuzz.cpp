// OpList::parse_path on any path. Properties: no crash; a path it accepts is
// exactly ROOT/databases/application/DSID/CLIENT/POLICY with the client and
// policy it reports, and no "/" in either; building the catalog application
// opens nothing (no file is made).
#include <string>

#include "appdb/catalog_application_base.h"
#include "appdb/catalog_list.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzk::quiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path(reinterpret_cast<const char*>(data), size);
    const OpList op("*", false);
    std::string client = "unset", policy = "unset";
    appdb::catalog_application* app = op.parse_path(path, client, policy);
    if (app == nullptr) return 0;
    delete app;
    FUZZ_CHECK(client.find('/') == std::string::npos);
    FUZZ_CHECK(policy.find('/') == std::string::npos);
    const std::string tail = "/" + client + "/" + policy;
    FUZZ_CHECK(path.size() >= tail.size() && path.compare(path.size() - tail.size(), tail.size(), tail) == 0);
    FUZZ_CHECK(path.find("/databases/application/") != std::string::npos);
    return 0;
}
