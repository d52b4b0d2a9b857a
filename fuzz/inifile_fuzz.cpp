// The ini reader (dct/inifile.h) on a fuzzed file. Every getter is asked for
// the keys kavrel and the shadow context read, and for a section and key
// named by the first line of the input. Properties: no crash; text results
// are NUL-terminated inside the buffer, also a tiny one; a missing key gives
// the default.
#include <string.h>

#include <string>

#include "dct/inifile.h"
#include "fuzz_common.h"

namespace {

void ask(const std::string& file, const char* section, const char* key) {
    char big[4096];
    char tiny[4];
    memset(big, 'x', sizeof(big));
    memset(tiny, 'x', sizeof(tiny));
    cr_status_t s = InifileGetValueA(file.c_str(), section, key, "dflt", big, sizeof(big));
    FUZZ_CHECK(memchr(big, '\0', sizeof(big)) != nullptr);
    if (s != 0) FUZZ_CHECK(strcmp(big, "dflt") == 0);
    InifileGetPathA(file.c_str(), section, key, "dflt", tiny, sizeof(tiny));
    FUZZ_CHECK(memchr(tiny, '\0', sizeof(tiny)) != nullptr);
    bool b = true;
    s = InifileGetBooleanA(file.c_str(), section, key, true, &b);
    if (s != 0) FUZZ_CHECK(b);
    unsigned long n = 7;
    s = InifileGetUIntegerA(file.c_str(), section, key, 7, &n);
    if (s != 0) FUZZ_CHECK(n == 7);
    uint64_t z = 9;
    s = InifileGetSizeA(file.c_str(), section, key, 9, &z);
    if (s != 0) FUZZ_CHECK(z == 9);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzk::quiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string file = fuzzk::scratch_dir() + "/fuzz.cfg";
    fuzzk::write_bytes(file, data, size);
    ask(file, "Tamberlode", "configfilepath");
    ask(file, "Paths", "Database");
    ask(file, "Paths", "CatalogBackupVersionCount");
    ask(file, "Paths", "CatalogShadowPoolSize");
    ask(file, "Storage", "Storage Path");
    // Section and key from the first line: "section/key".
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string first = text.substr(0, text.find('\n'));
    const size_t slash = first.find('/');
    if (slash != std::string::npos) {
        const std::string section = first.substr(0, slash);
        const std::string key = first.substr(slash + 1);
        ask(file, section.c_str(), key.c_str());
    }
    return 0;
}
