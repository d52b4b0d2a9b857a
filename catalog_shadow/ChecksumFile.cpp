// ChecksumFile: the checksum file's text and its atomic write.
#include "catalog_shadow/ChecksumFile.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "dct/file_io.h"
#include "dct/fs.h"
#include "dct/log.h"

namespace {

// read_line whose failure names the key: "can't get value of " key; a value
// above `limit` fails the same way.
bool read_field(std::istream& in, const std::string& key, ShadowCrc& crc, uint64_t limit, uint64_t* value,
                std::string* reason) {
    std::string line;
    uint64_t v = 0;
    if (ChecksumFile::read_line(in, key, crc, &line, &v) != CR_STATUS_OK || v > limit) {
        *reason = std::string("can't get value of ") + key;
        return false;
    }
    *value = v;
    return true;
}

}  // namespace

bool read_small_file(const std::string& path, std::string* text) {
    std::ifstream in(path.c_str(), std::ios::in | std::ios::binary);
    if (!in.is_open()) {
        text->clear();
        return false;
    }
    std::ostringstream out;
    out << in.rdbuf();
    *text = out.str();
    return true;
}

bool ChecksumFile::parse_decimal(const std::string& text, uint64_t* value) {
    if (text.empty() || text.size() > 20) return false;
    uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        uint64_t d = static_cast<uint64_t>(c - '0');
        if (v > (UINT64_MAX - d) / 10) return false;
        v = v * 10 + d;
    }
    *value = v;
    return true;
}

cr_status_t ChecksumFile::read_line(std::istream& in, const std::string& key, ShadowCrc& crc, std::string* line,
                                    uint64_t* value, const char** reason) {
    const char* why = nullptr;
    const std::string prefix = key + "=";
    uint64_t v = 0;
    if (!std::getline(in, *line)) {
        why = "file read error";
    } else if (line->compare(0, prefix.size(), prefix) != 0 || !parse_decimal(line->substr(prefix.size()), &v)) {
        why = "bad line format";
    }
    if (why != nullptr) {
        if (reason != nullptr) *reason = why;
        return CR_STATUS_CORRUPT;
    }
    crc.append(*line);
    *value = v;
    return CR_STATUS_OK;
}

ChecksumFile ChecksumFile::of(const std::string& type, uint64_t current, const ShadowVersionList& versions) {
    ChecksumFile file;
    file.type = type;
    file.current = current;
    for (const ShadowVersion& v : versions) {
        Entry e;
        e.version = v.version;
        e.db_crc = v.db_crc;
        e.journal_crc = v.journal_crc;
        e.journal_lines = v.journal_lines;
        file.entries.push_back(e);
    }
    return file;
}

void ChecksumFile::to_versions(const std::string& shadow_dir, ShadowVersionList* list) const {
    list->clear();
    for (const Entry& e : entries) {
        ShadowVersion v(shadow_dir, type, e.version);
        v.db_crc = e.db_crc;
        v.journal_crc = e.journal_crc;
        v.journal_lines = e.journal_lines;
        list->push_back(v);
    }
}

std::string ChecksumFile::render() const {
    std::string out;
    ShadowCrc crc;
    auto add = [&out, &crc](const std::string& text) {
        out += text;
        out += '\n';
        crc.append(text);
    };
    add("format=1");
    add("current=" + std::to_string(current));
    add("count=" + std::to_string(entries.size()));
    for (const Entry& e : entries) {
        const std::string journal = ShadowVersion::get_journal_name(type, e.version);
        add(ShadowVersion::get_db_name(type, e.version) + "=" + std::to_string(e.db_crc));
        add(journal + "=" + std::to_string(e.journal_crc));
        add(journal + ".len=" + std::to_string(e.journal_lines));
    }
    out += "self=" + std::to_string(crc.value()) + "\n";
    return out;
}

bool ChecksumFile::validate(std::string* reason) const {
    if (entries.size() > current || entries.size() > UINT32_MAX) {
        *reason = "more versions listed than numbers handed out";
        return false;
    }
    uint64_t expected = current;
    for (const Entry& e : entries) {
        if (e.version != expected) {
            *reason = "version " + std::to_string(e.version) + " listed where " + std::to_string(expected) +
                      " belongs";
            return false;
        }
        --expected;
    }
    return true;
}

bool ChecksumFile::parse(const std::string& text, const std::string& type_word, const std::string& name,
                         ChecksumFile* out, std::string* reason) {
    std::istringstream in(text);

    ShadowCrc crc;
    std::string line;
    if (!std::getline(in, line)) {
        *reason = "file read error";
        return false;
    }
    if (line.compare(0, 8, "format=1") != 0) {
        *reason = "bad line format";
        return false;
    }
    crc.append(line);

    ChecksumFile file;
    file.type = type_word;
    if (!read_field(in, "current", crc, UINT64_MAX, &file.current, reason)) return false;
    // Version numbers start at 1, so no more than `current` can be listed.
    uint64_t count = 0;
    if (!read_field(in, "count", crc, file.current < UINT32_MAX ? file.current : UINT32_MAX, &count, reason)) {
        return false;
    }

    for (uint64_t i = 0; i < count; ++i) {
        Entry e;
        e.version = file.current - i;
        const std::string journal = ShadowVersion::get_journal_name(type_word, e.version);
        uint64_t db_crc = 0;
        uint64_t journal_crc = 0;
        uint64_t journal_lines = 0;
        if (!read_field(in, ShadowVersion::get_db_name(type_word, e.version), crc, UINT32_MAX, &db_crc, reason) ||
            !read_field(in, journal, crc, UINT32_MAX, &journal_crc, reason) ||
            !read_field(in, journal + ".len", crc, UINT32_MAX, &journal_lines, reason)) {
            return false;
        }
        e.db_crc = static_cast<uint32_t>(db_crc);
        e.journal_crc = static_cast<uint32_t>(journal_crc);
        e.journal_lines = static_cast<uint32_t>(journal_lines);
        file.entries.push_back(e);
    }

    ShadowCrc ignored;
    uint64_t self = 0;
    if (!read_field(in, "self", ignored, UINT32_MAX, &self, reason)) return false;
    if (self != crc.value()) {
        *reason = std::string("CRC mismatch for ") + name;
        return false;
    }
    *out = std::move(file);
    return true;
}

bool ChecksumFile::load(const std::string& path, const std::string& type_word, ChecksumFile* out,
                        std::string* text, std::string* reason) {
    std::string bytes;
    if (!read_small_file(path, &bytes)) {
        *reason = std::string("open file ") + path + " failed.";
        return false;
    }
    if (!parse(bytes, type_word, path, out, reason)) return false;
    if (text != nullptr) text->swap(bytes);
    return true;
}

cr_status_t ChecksumFile::write(const std::string& dir, const std::string& path, const std::string& text,
                                bool* replaced) {
    *replaced = false;
    dct::atomic_write_options options;
    options.exact_mode = false;
    dct::file_failure failure;
    const cr_status_t status = dct::write_file_atomic(dir, path, text, options, &failure);
    if (status == CR_STATUS_OK) {
        *replaced = true;
        return CR_STATUS_OK;
    }
    if (failure.step == dct::file_step::create) {
        ErrorA(status, "%s: failed to open file %s to persist data (%s).", "persist_chksum", failure.path.c_str(),
               strerror(failure.error));
        return status;
    }
    // A failed sync of the directory comes after the rename: the text is in place.
    *replaced = failure.step == dct::file_step::sync_dir;
    ErrorA(status, "can't persist version info file %s.", path.c_str());
    return status;
}
