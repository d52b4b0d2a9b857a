// PODBShadow: writing and reading the checksum file of a type.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <memory>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/fault.h"
#include "dct/fs.h"
#include "dct/log.h"

namespace {

// Parses a whole decimal number without sign; false on anything else or on
// overflow.
bool parse_decimal(const std::string& text, uint64_t* value) {
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

// getline_parse whose failure names the key: "can't get value of " key.
uint64_t read_field(std::istream& in, const std::string& key, PODBShadow::CRC& crc, uint64_t limit) {
    std::string line;
    uint64_t value = 0;
    try {
        PODBShadow::getline_parse(line, in, key, crc, value);
        if (value > limit) throw "bad line format";
    } catch (const char*) {
        throw std::string("can't get value of ") + key;
    }
    return value;
}

// Writes all of `data` to `fd`; -1 with errno set on failure.
int write_all(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) {
            errno = EIO;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
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

void PODBShadow::getline_parse(std::string& line, std::istream& in, const std::string& key, CRC& crc,
                               uint64_t& value) {
    if (!std::getline(in, line)) throw "file read error";
    const std::string prefix = key + "=";
    if (line.compare(0, prefix.size(), prefix) != 0) throw "bad line format";
    uint64_t v = 0;
    if (!parse_decimal(line.substr(prefix.size()), &v)) throw "bad line format";
    crc.append(line);
    value = v;
}

std::string PODBShadow::compose_chksum_(const std::string& type) const {
    const TypeState& s = state_(type);
    std::string out;
    CRC crc;
    auto add = [&out, &crc](const std::string& text) {
        out += text;
        out += '\n';
        crc.append(text);
    };
    add("format=1");
    add("current=" + std::to_string(s.current));
    add("count=" + std::to_string(s.versions->size()));
    for (const ShadowVersion& v : *s.versions) {
        add(v.db_name + "=" + std::to_string(v.db_crc));
        add(v.journal_name + "=" + std::to_string(v.journal_crc));
        add(v.journal_name + ".len=" + std::to_string(v.journal_lines));
    }
    out += "self=" + std::to_string(crc.value()) + "\n";
    return out;
}

int PODBShadow::persist_chksum(const std::string& type) {
    return persist_chksum_status_(type) == CR_STATUS_OK ? 1 : 0;
}

// The file is never written in place: the new text goes to ".chksum.T.tmp",
// is synced, renamed over the old file, and the directory is synced. A crash at
// any point leaves either the complete old file or the complete new one.
cr_status_t PODBShadow::persist_chksum_status_(const std::string& type) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    const std::string path = shadow_dir_ + "/" + chksum_file(type);
    const std::string tmp = path + ".tmp";
    __TraceA("Persist the shadow checksum file %s", path.c_str());

    std::string content;
    try {
        content = compose_chksum_(type);
    } catch (...) {
        ErrorA(CR_STATUS_FAILED, "can't persist version info file %s.", path.c_str());
        return CR_STATUS_FAILED;
    }

    int fd = -1;
    if (dct::fault_point(dct::fault_op::open_write, tmp.c_str()) == 0) {
        fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, dct::private_file_mode);
    }
    if (fd < 0) {
        int e = errno;
        cr_status_t status = _crMapError("persist_chksum", __FILE__, __LINE__);
        ErrorA(status, "%s: failed to open file %s to persist data (%s).", "persist_chksum", tmp.c_str(),
               strerror(e));
        ::unlink(tmp.c_str());
        return status;
    }

    bool ok = dct::fault_point(dct::fault_op::write, tmp.c_str()) == 0 && write_all(fd, content) == 0 &&
              dct::fault_point(dct::fault_op::fsync, tmp.c_str()) == 0 && safe_fsync(fd) == 0;
    int e = errno;
    if (::close(fd) != 0 && ok) {
        ok = false;
        e = errno;
    }
    if (ok && wa_rename(tmp, path) != 0) {
        ok = false;
        e = errno;
    }
    if (!ok) {
        ::unlink(tmp.c_str());
        errno = e;
        cr_status_t status = _crMapError("persist_chksum", __FILE__, __LINE__);
        ErrorA(status, "can't persist version info file %s.", path.c_str());
        return status;
    }
    // The file now holds this text, whether or not the directory sync below
    // succeeds; what this object believes stays authoritative meanwhile.
    state_(type).on_disk = content;
    remember_chksum_signature_(type);
    if (wa_syncdir(shadow_dir_) != 0) {
        cr_status_t status = _crMapError("persist_chksum", __FILE__, __LINE__);
        ErrorA(status, "can't persist version info file %s.", path.c_str());
        return status;
    }

    // Remember what the file now says about the newest journal, so that a later
    // failed sync can fall back to exactly this state.
    TypeState& s = state_(type);
    s.mark = JournalMark();
    if (!s.versions->empty()) {
        const ShadowVersion& newest = s.versions->front();
        s.mark.valid = true;
        s.mark.version = newest.version;
        s.mark.crc = newest.journal_crc;
        s.mark.lines = newest.journal_lines;
        if (s.journal && s.journal->path() == newest.journal_path) {
            s.mark.size_known = true;
            s.mark.size = s.journal->size();
        }
    }
    return CR_STATUS_OK;
}

void PODBShadow::parse_chksum_file(const std::string& path, const std::string& shadow_dir,
                                   const std::string& type, uint64_t* current_out,
                                   ShadowVersionList* list_out, std::string* text_out) {
    std::string text;
    if (!read_small_file(path, &text)) throw std::string("open file ") + path + " failed.";
    std::istringstream in(text);

    CRC crc;
    std::string line;
    if (!std::getline(in, line)) throw "file read error";
    if (line.compare(0, 8, "format=1") != 0) throw "bad line format";
    crc.append(line);

    const uint64_t current = read_field(in, "current", crc, UINT64_MAX);
    // Version numbers start at 1, so no more than `current` can be listed.
    const uint64_t count = read_field(in, "count", crc, current < UINT32_MAX ? current : UINT32_MAX);

    ShadowVersionList list;
    for (uint64_t i = 0; i < count; ++i) {
        ShadowVersion v(shadow_dir, type, current - i);
        v.db_crc = static_cast<uint32_t>(read_field(in, v.db_name, crc, UINT32_MAX));
        v.journal_crc = static_cast<uint32_t>(read_field(in, v.journal_name, crc, UINT32_MAX));
        v.journal_lines = static_cast<uint32_t>(read_field(in, v.journal_name + ".len", crc, UINT32_MAX));
        list.push_back(v);
    }

    CRC ignored;
    const uint64_t self = read_field(in, "self", ignored, UINT32_MAX);
    if (self != crc.value()) throw std::string("CRC mismatch for ") + path;

    *current_out = current;
    list_out->swap(list);
    if (text_out != nullptr) text_out->swap(text);
}

cr_status_t PODBShadow::read_chksum(const std::string& shadow_dir, const std::string& type,
                                    uint64_t* current, ShadowVersionList* list, std::string* reason) {
    list->clear();
    *current = 0;
    if (!is_valid_type(type)) {
        *reason = "bad parameter";
        return CR_STATUS_FAILED;
    }
    std::string path = shadow_dir + "/" + chksum_file(type);
    // load_versions would migrate a lone legacy file to the typed name.
    const std::string legacy = shadow_dir + "/.chksum";
    if (wa_access(path, 0) != 0 && wa_access(legacy, 0) == 0) path = legacy;
    if (wa_access(path, 0) != 0) {
        *reason = "missing";
        return CR_STATUS_MISSING;
    }
    try {
        parse_chksum_file(path, shadow_dir, type, current, list, nullptr);
        return CR_STATUS_OK;
    } catch (const char* e) {
        *reason = e;
    } catch (const std::string& e) {
        *reason = e;
    } catch (...) {
        *reason = "unknown error";
    }
    list->clear();
    *current = 0;
    ErrorA(CR_STATUS_CORRUPT, "failed to load chksum file %s: %s", path.c_str(), reason->c_str());
    return CR_STATUS_CORRUPT;
}

void PODBShadow::load_versions_from_(const std::string& type, const std::string& path) {
    uint64_t current = 0;
    std::unique_ptr<ShadowVersionList> list(new ShadowVersionList);
    std::string text;
    parse_chksum_file(path, shadow_dir_, type, &current, list.get(), &text);
    TypeState& s = state_(type);
    s.versions.reset(list.release());
    s.current = current;
    s.on_disk = text;
    remember_chksum_signature_(type);
}

uint64_t PODBShadow::highest_version_on_disk_(const std::string& type) const {
    uint64_t highest = 0;
    DIR* d = wa_opendir(shadow_dir_);
    if (d == nullptr) return 0;
    const std::string prefix = type + ".";
    while (struct dirent* entry = readdir(d)) {
        const std::string name = entry->d_name;
        if (!is_type_file(name, type) || name.compare(0, prefix.size(), prefix) != 0) continue;
        size_t end = name.find('.', prefix.size());
        uint64_t n = 0;
        if (parse_decimal(name.substr(prefix.size(), end - prefix.size()), &n) && n > highest) highest = n;
    }
    closedir(d);
    return highest;
}

cr_status_t PODBShadow::load_versions(const std::string& type, bool reset_if_damaged) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    TypeState* s = nullptr;
    try {
        s = &state_(type);
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "load_versions", e);
        return CR_STATUS_FAILED;
    }

    const std::string path = shadow_dir_ + "/" + chksum_file(type);
    // A leftover of an interrupted persist_chksum is never the checksum file.
    const std::string tmp = path + ".tmp";
    if (wa_access(tmp, 0) == 0) {
        __TraceA("Remove unfinished checksum file %s", tmp.c_str());
        ::unlink(tmp.c_str());
    }
    const std::string legacy = shadow_dir_ + "/.chksum";
    if (wa_access(legacy, 0) == 0 && wa_access(path, 0) != 0) wa_rename(legacy, path);

    InfoA(CR_STATUS_OK, "Load chksum file %s", path.c_str());
    s->journal.reset();
    s->mark = JournalMark();
    s->versions.reset(new ShadowVersionList);

    bool loaded = false;
    bool has_reason = false;
    std::string reason;
    try {
        load_versions_from_(type, path);
        loaded = true;
    } catch (const char* e) {
        has_reason = true;
        reason = e;
    } catch (const std::string& e) {
        has_reason = true;
        reason = e;
    } catch (...) {
    }

    if (loaded) {
        if (!s->versions->empty()) {
            const ShadowVersion& newest = s->versions->front();
            s->mark.valid = true;
            s->mark.version = newest.version;
            s->mark.crc = newest.journal_crc;
            s->mark.lines = newest.journal_lines;
        }
        return CR_STATUS_OK;
    }

    if (has_reason) {
        ErrorA(CR_STATUS_CORRUPT, "failed to load chksum file %s: %s", path.c_str(), reason.c_str());
    } else {
        ErrorA(CR_STATUS_CORRUPT, "failed to load chksum file %s", path.c_str());
    }
    s->versions.reset(new ShadowVersionList);
    s->on_disk.clear();
    s->signature_known = false;
    WarningA(CR_STATUS_CORRUPT, "%s: checksum file for shadow %s corrupted or missing.", "load_versions",
             shadow_dir_.c_str());
    if (reset_if_damaged) {
        // New numbers start above every number in use, so that they can never
        // be mistaken for the copies set aside.
        uint64_t base = highest_version_on_disk_(type);
        if (s->current > base) base = s->current;
        move_all_as_backup(type);
        s->current = base + get_max_version_count();
        initialize(type);
    }
    return CR_STATUS_CORRUPT;
}
