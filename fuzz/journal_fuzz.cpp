// ShadowVersion::check_crc_journal on a fuzzed journal. The first eight bytes
// give the recorded line count and checksum; when the top bit of the count is
// set, the checksum is instead computed from that many leading lines of the
// journal, so that the matching and truncating paths are reached too.
// Properties: no crash; a journal that passes has, afterwards, the recorded
// checksum over its lines, and passes a second check unchanged.
#include <string.h>

#include <string>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "fuzz_common.h"

namespace {

// Adler-32 of the line texts (without "\n") of `text`, and their number;
// the first `limit` lines only when limit > 0.
uint32_t lines_crc(const std::string& text, uint32_t limit, uint32_t* count) {
    PODBShadow::CRC crc;
    uint32_t n = 0;
    size_t start = 0;
    while (start < text.size() && (limit == 0 || n < limit)) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        crc.append(text.data() + start, end - start);
        ++n;
        start = end + 1;
    }
    if (count != nullptr) *count = n;
    return crc.value();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzk::quiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 8) return 0;
    uint32_t lines, crc;
    memcpy(&lines, data, 4);
    memcpy(&crc, data + 4, 4);
    const std::string text(reinterpret_cast<const char*>(data + 8), size - 8);
    if (lines & 0x80000000u) {
        lines = (lines & 0xFF) + 1;
        uint32_t got = 0;
        crc = lines_crc(text, lines, &got);
        if (got < lines) lines = got;
    } else {
        lines &= 0xFF;  // small counts, or the comparisons never meet
    }

    const std::string dir = fuzzk::scratch_dir() + "/shadow";
    static bool made = false;
    if (!made) {
        fuzzk::reset_dir(dir);
        made = true;
    }
    ShadowVersion v(dir, "appdb", 1);
    fuzzk::write_bytes(v.journal_path, reinterpret_cast<const uint8_t*>(text.data()), text.size());
    v.journal_crc = crc;
    v.journal_lines = lines;
    if (!v.check_crc_journal()) {
        FUZZ_CHECK(!v.journal_verified);
        return 0;
    }
    FUZZ_CHECK(v.journal_verified);
    const std::string after = fuzzk::read_all(v.journal_path);
    FUZZ_CHECK(after.size() <= text.size() && text.compare(0, after.size(), after) == 0);
    FUZZ_CHECK(lines_crc(after, 0, nullptr) == v.journal_crc);
    FUZZ_CHECK(v.check_crc_journal());
    FUZZ_CHECK(fuzzk::read_all(v.journal_path) == after);
    return 0;
}
