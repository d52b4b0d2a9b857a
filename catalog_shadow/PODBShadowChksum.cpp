// PODBShadow: writing and reading the checksum file of a type, through
// ChecksumFile (ChecksumFile.h), and keeping the type's state in step with it.
#include <dirent.h>

#include <memory>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/fs.h"
#include "dct/log.h"

void PODBShadow::getline_parse(std::string& line, std::istream& in, const std::string& key, CRC& crc,
                               uint64_t& value) {
    const char* reason = nullptr;
    if (ChecksumFile::read_line(in, key, crc, &line, &value, &reason) != CR_STATUS_OK) throw reason;
}

std::string PODBShadow::compose_chksum_(const std::string& type) const {
    const TypeState& s = state_(type);
    return ChecksumFile::of(type, s.current, *s.versions).render();
}

// The file is never written in place (ChecksumFile::write): a crash at any
// point leaves either the complete old file or the complete new one.
cr_status_t PODBShadow::persist_chksum(const std::string& type) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    const std::string path = shadow_dir_ + "/" + chksum_file(type);
    __TraceA("Persist the shadow checksum file %s", path.c_str());

    std::string content;
    try {
        content = compose_chksum_(type);
    } catch (...) {
        ErrorA(CR_STATUS_FAILED, "can't persist version info file %s.", path.c_str());
        return CR_STATUS_FAILED;
    }

    bool replaced = false;
    cr_status_t status = ChecksumFile::write(shadow_dir_, path, content, &replaced);
    // Once replaced, the file holds this text whether or not the directory
    // sync succeeded; what this object believes stays authoritative meanwhile.
    if (replaced) {
        state_(type).on_disk = content;
        remember_chksum_signature_(type);
    }
    if (status != CR_STATUS_OK) return status;

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
    ChecksumFile file;
    if (ChecksumFile::load(path, type, &file, nullptr, reason)) {
        *current = file.current;
        file.to_versions(shadow_dir, list);
        return CR_STATUS_OK;
    }
    ErrorA(CR_STATUS_CORRUPT, "failed to load chksum file %s: %s", path.c_str(), reason->c_str());
    return CR_STATUS_CORRUPT;
}

bool PODBShadow::load_versions_from_(const std::string& type, const std::string& path, std::string* reason) {
    ChecksumFile file;
    std::string text;
    if (!ChecksumFile::load(path, type, &file, &text, reason)) return false;
    std::unique_ptr<ShadowVersionList> list(new ShadowVersionList);
    file.to_versions(shadow_dir_, list.get());
    TypeState& s = state_(type);
    s.versions.reset(list.release());
    s.current = file.current;
    s.on_disk = text;
    remember_chksum_signature_(type);
    return true;
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
        if (ChecksumFile::parse_decimal(name.substr(prefix.size(), end - prefix.size()), &n) && n > highest) {
            highest = n;
        }
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
    std::string reason;
    try {
        loaded = load_versions_from_(type, path, &reason);
    } catch (const char* e) {
        reason = e;
    } catch (...) {
        // Out of memory: no reason to tell.
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

    if (!reason.empty()) {
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
        // A failed set-aside leaves files of the type behind; the new numbers
        // start above them all the same, so the fresh history goes on and the
        // leftovers stay untouched. Each step logs its own failure; the first
        // one is the answer, since the shadow is then not what 67 promises.
        const cr_status_t moved = move_all_as_backup(type);
        s->current = base + get_max_version_count();
        const cr_status_t fresh = initialize(type);
        if (moved != CR_STATUS_OK) return moved;
        if (fresh != CR_STATUS_OK) return fresh;
    }
    return CR_STATUS_CORRUPT;
}
