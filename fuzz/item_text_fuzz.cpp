// appdb::from_string on any bytes. Properties: no crash; an item read whole
// prints (to_string, to_json_string) and reads back to the same line, as
// long as its times are not negative (a negative time prints as its unsigned
// two's complement, which atoll cannot read back).
#include <stdint.h>

#include <sstream>
#include <string>

#include "appdb/app_catalog_item.h"
#include "appdb/catalog_application.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzk::quiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::istringstream in(text);
    appdb::app_catalog_item item;
    const bool whole = appdb::from_string(in, item);
    (void)item.to_json_string(nullptr);
    (void)appdb::catalog_application_base::crc_value(item);
    if (!whole) return 0;

    const std::string line = item.to_string();
    size_t bars = 0;
    for (char c : line) bars += c == '|' ? 1 : 0;
    FUZZ_CHECK(bars == 28);

    std::istringstream again(line);
    appdb::app_catalog_item copy;
    FUZZ_CHECK(appdb::from_string(again, copy));
    if (item.file_len <= static_cast<uint64_t>(INT64_MAX) && item.app_expire_time >= 0 &&
        item.orvo_expire_time >= 0 && item.backup_start_time >= 0 && item.backup_stop_time >= 0) {
        FUZZ_CHECK(copy.to_string() == line);
        FUZZ_CHECK(appdb::catalog_application_base::crc_value(copy) ==
                   appdb::catalog_application_base::crc_value(item));
    }
    return 0;
}
