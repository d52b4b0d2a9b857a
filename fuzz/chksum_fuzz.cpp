// PODBShadow::load_versions on a fuzzed checksum file ".chksum.appdb" in a
// fresh shadow directory. The first byte chooses whether a damaged file is
// reset (moved aside, fresh file written). Properties: no crash; the status is
// 0 or 67; a file that loads persists and loads again to the same versions;
// a reset leaves a checksum file that loads.
#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "fuzz_common.h"

namespace {

struct version_view {
    uint64_t version;
    uint32_t db_crc, journal_crc, journal_lines;
    bool operator==(const version_view& o) const {
        return version == o.version && db_crc == o.db_crc && journal_crc == o.journal_crc &&
               journal_lines == o.journal_lines;
    }
};

std::vector<version_view> versions_of(PODBShadow& shadow) {
    std::lock_guard<std::recursive_mutex> guard(shadow.mutex());
    std::vector<version_view> out;
    for (const ShadowVersion& v : *shadow.get_db_versions_("appdb")) {
        out.push_back(version_view{v.version, v.db_crc, v.journal_crc, v.journal_lines});
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzk::quiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const bool reset = (data[0] & 1) != 0;
    const std::string real = fuzzk::scratch_dir() + "/real";
    const std::string dir = fuzzk::scratch_dir() + "/shadow";
    fuzzk::reset_dir(dir);
    fuzzk::write_bytes(dir + "/.chksum.appdb", data + 1, size - 1);

    std::vector<version_view> loaded;
    {
        PODBShadow shadow(nullptr, real, dir);
        const cr_status_t status = shadow.load_versions("appdb", reset);
        FUZZ_CHECK(status == 0 || status == 67);
        loaded = versions_of(shadow);
        if (status == 67) {
            FUZZ_CHECK(loaded.empty());
            if (!reset) return 0;
        } else {
            FUZZ_CHECK(shadow.persist_chksum("appdb") == CR_STATUS_OK);
        }
    }
    // What is on disk now, a persisted or a fresh file, loads as it was left.
    PODBShadow again(nullptr, real, dir);
    FUZZ_CHECK(again.load_versions("appdb", false) == 0);
    FUZZ_CHECK(versions_of(again) == loaded);
    return 0;
}
