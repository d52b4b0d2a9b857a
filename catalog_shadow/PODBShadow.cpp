// PODBShadow: construction, the per-type state and the start of a history.
#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"

const char* const shadow_type_podb = dct::pool_layout::kPodbType;
const char* const shadow_type_uldb = dct::pool_layout::kUldbType;
const char* const shadow_type_appdb = dct::pool_layout::kAppdbType;

const std::string PODBShadow::_podb_type_ = shadow_type_podb;
const std::string PODBShadow::_uldb_type_ = shadow_type_uldb;
const std::string PODBShadow::_appdb_type_ = shadow_type_appdb;
const std::string PODBShadow::_corrupt_prefix_ = "#corrupt_";

namespace {
// Version count when a shadow has no context (the configuration's default).
const uint32_t kDefaultMaxVersionCount = 5;
}  // namespace

PODBShadow::PODBShadow(CatalogShadowContext* context, const std::string& dir,
                       const std::string& shadow_dir)
    : context_(context), dir_(dir), shadow_dir_(shadow_dir) {
    for (TypeState& s : states_) s.versions.reset(new ShadowVersionList);
}

PODBShadow::~PODBShadow() {}

std::string PODBShadow::chksum_file(const std::string& type) { return ".chksum." + type; }

std::string PODBShadow::db_file_name(const std::string& type) { return dct::pool_layout::db_file_of_type(type); }

bool PODBShadow::is_valid_type(const std::string& type) {
    return type == _podb_type_ || type == _uldb_type_ || type == _appdb_type_;
}

bool PODBShadow::is_type_file(const std::string& name, const std::string& type) {
    if (name == chksum_file(type)) return true;
    const std::string prefix = type + ".";
    if (name.compare(0, prefix.size(), prefix) != 0) return false;
    size_t i = prefix.size();
    size_t digits = 0;
    while (i < name.size() && name[i] >= '0' && name[i] <= '9') {
        ++i;
        ++digits;
    }
    if (digits == 0) return false;
    return i == name.size() || name.compare(i, std::string::npos, ".journal") == 0;
}

PODBShadow::TypeState& PODBShadow::state_(const std::string& type) const {
    if (type == _podb_type_) return states_[0];
    if (type == _uldb_type_) return states_[1];
    if (type == _appdb_type_) return states_[2];
    throw "bad parameter";
}

uint64_t PODBShadow::get_db_current_ver_(const std::string& type) const {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    return state_(type).current;
}

void PODBShadow::set_db_current_ver_(const std::string& type, uint64_t version) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    state_(type).current = version;
}

ShadowVersionListPtr PODBShadow::get_db_versions_(const std::string& type) const {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    return state_(type).versions;
}

void PODBShadow::reset_db_versions_(const std::string& type, ShadowVersionList* list) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    TypeState& s = state_(type);
    s.versions.reset(list != nullptr ? list : new ShadowVersionList);
}

uint32_t PODBShadow::get_version_count(const std::string& type) const {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    return static_cast<uint32_t>(state_(type).versions->size());
}

uint32_t PODBShadow::get_max_version_count() const {
    return context_ != nullptr ? context_->max_version_count : kDefaultMaxVersionCount;
}

bool PODBShadow::exist(const std::string& type) const {
    return wa_access(shadow_dir_, 0) == 0 && wa_access(shadow_dir_ + "/" + chksum_file(type), 0) == 0;
}

bool PODBShadow::history_lost(const std::string& type) const {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    const TypeState& s = state_(type);
    return s.versions->empty() && s.current > 0;
}

cr_status_t PODBShadow::checkCreateWorkDir() {
    if (wa_access(shadow_dir_, 0) == 0) return CR_STATUS_OK;
    if (wa_createtree_synced(shadow_dir_, dct::private_dir_mode) != 0) {
        int e = errno;
        cr_status_t status = _crMapError("checkCreateWorkDir", __FILE__, __LINE__);
        ErrorA(status, "%s: Failed to create directory %s (%s)", "checkCreateWorkDir",
               shadow_dir_.c_str(), strerror(e));
        return status;
    }
    return CR_STATUS_OK;
}

cr_status_t PODBShadow::initialize(const std::string& type) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    try {
        TypeState& s = state_(type);
        __TraceA("Initliaze shadow for %s in %s", db_file_name(type).c_str(), shadow_dir_.c_str());
        s.journal.reset();
        s.mark = JournalMark();
        s.versions.reset(new ShadowVersionList);
        cr_status_t status = checkCreateWorkDir();
        if (status != CR_STATUS_OK) return status;
        return persist_chksum(type);
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "initialize", e);
        return CR_STATUS_FAILED;
    }
}

void PODBShadow::load_all() {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    const std::string* types[] = {&_podb_type_, &_uldb_type_, &_appdb_type_};
    for (const std::string* type : types) {
        if (exist(*type)) {
            // A damaged file is logged there and leaves the type reset: the
            // load of the others goes on either way.
            load_versions(*type, true);
        } else {
            // A query must leave nothing behind: no directory, no file.
            TypeState& s = state_(*type);
            s.journal.reset();
            s.mark = JournalMark();
            s.versions.reset(new ShadowVersionList);
            s.on_disk.clear();
            s.signature_known = false;
        }
    }
}

bool PODBShadow::chksum_signature_(const std::string& type, uint64_t (&signature)[6]) const {
    struct stat st;
    if (wa_stat(shadow_dir_ + "/" + chksum_file(type), &st) != 0) return false;
    const uint64_t values[6] = {static_cast<uint64_t>(st.st_dev),           static_cast<uint64_t>(st.st_ino),
                                static_cast<uint64_t>(st.st_size),          static_cast<uint64_t>(st.st_mtim.tv_sec),
                                static_cast<uint64_t>(st.st_mtim.tv_nsec),  static_cast<uint64_t>(st.st_ctim.tv_nsec)};
    std::copy(values, values + 6, signature);
    return true;
}

void PODBShadow::remember_chksum_signature_(const std::string& type) {
    TypeState& s = state_(type);
    s.signature_known = chksum_signature_(type, s.signature);
}

cr_status_t PODBShadow::refresh_from_disk(const std::string& type, bool reset_if_damaged) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    try {
        TypeState& s = state_(type);
        const std::string path = shadow_dir_ + "/" + chksum_file(type);
        uint64_t now[6];
        const bool same_file = s.signature_known && chksum_signature_(type, now) &&
                               std::equal(now, now + 6, s.signature);
        std::string text = s.on_disk;
        const bool present = same_file || read_small_file(path, &text);
        bool changed = text != s.on_disk || (!present && !s.versions->empty());
        if (!changed && present && !same_file) remember_chksum_signature_(type);
        if (!changed && s.journal) {
            struct stat st;
            changed = wa_stat(s.journal->path(), &st) != 0 ||
                      static_cast<uint64_t>(st.st_size) != s.journal->size();
        }
        if (!changed) return CR_STATUS_OK;
        InfoA(CR_STATUS_OK, "Shadow %s of %s changed on disk, reload it", shadow_dir_.c_str(), type.c_str());
        if (present) return load_versions(type, reset_if_damaged);
        s.journal.reset();
        s.mark = JournalMark();
        s.versions.reset(new ShadowVersionList);
        s.on_disk.clear();
        s.signature_known = false;
        return CR_STATUS_OK;
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "refresh_from_disk", e);
        return CR_STATUS_FAILED;
    }
}
