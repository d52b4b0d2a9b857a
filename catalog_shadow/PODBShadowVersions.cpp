// PODBShadow: adding a new version and removing old ones.
//
// Order of the steps in add_new_version, so that a crash at any point leaves a
// checksum file that describes files that exist:
//   1. the copy is renamed to its version name and the directory synced (an
//      unlisted file until step 3: harmless, the next backup reuses its name);
//   2. a journal left under the new name by an earlier crash is removed;
//   3. the checksum file listing the new version is persisted (atomically);
//   4. only then are the versions beyond the version count deleted.
#include <errno.h>
#include <string.h>

#include <memory>
#include <vector>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/fs.h"
#include "dct/log.h"

namespace {

// Deletes a version's database or journal file when it exists. 0 or the
// mapped status.
cr_status_t delete_if_present(bool journal, const std::string& path) {
    if (wa_access(path, 0) != 0) return CR_STATUS_OK;
    if (journal) {
        InfoA(CR_STATUS_OK, "Remove shadow journal file %s", path.c_str());
    } else {
        InfoA(CR_STATUS_OK, "Remove shadow db file %s", path.c_str());
    }
    if (wa_deletefile(path) == 0) return CR_STATUS_OK;
    int e = errno;
    cr_status_t status = _crMapError("remove_version", __FILE__, __LINE__);
    WarningA(status, "Failed to delete file %s (%s).", path.c_str(), strerror(e));
    return status;
}

}  // namespace

// Deletes the database and the journal of `version` (whichever exist) and
// syncs the shadow directory. The version lists are not touched. 0, or the
// status of the first failure (every deletion is still tried).
cr_status_t PODBShadow::remove_version(const ShadowVersion& version) {
    cr_status_t result = delete_if_present(false, version.db_path);
    cr_status_t status = delete_if_present(true, version.journal_path);
    if (result == CR_STATUS_OK) result = status;
    if (wa_syncdir(shadow_dir_) != 0) {
        int e = errno;
        status = _crMapError("remove_version", __FILE__, __LINE__);
        ErrorA(status, "%s: failed to sync directory %s (%s)", "remove_version", shadow_dir_.c_str(), strerror(e));
        if (result == CR_STATUS_OK) result = status;
    }
    return result;
}

cr_status_t PODBShadow::add_new_version(const std::string& type, const std::string& tmp_file, uint32_t crc,
                                        bool* unchanged) {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    if (unchanged != nullptr) *unchanged = false;
    try {
        TypeState& s = state_(type);
        if (!s.versions->empty()) {
            const ShadowVersion& newest = s.versions->front();
            if (newest.db_crc == crc && wa_access(newest.db_path, 0) == 0) {
                if (unchanged != nullptr) *unchanged = true;
                return CR_STATUS_OK;
            }
        }

        const ShadowVersionListPtr previous = s.versions;
        const uint64_t previous_current = s.current;
        const uint64_t number = s.current + 1;
        InfoA(CR_STATUS_OK, "Add shadow version %lu for %s", static_cast<unsigned long>(number), dir_.c_str());

        ShadowVersion added(shadow_dir_, type, number);
        added.db_crc = crc;
        std::unique_ptr<ShadowVersionList> list(new ShadowVersionList(*previous));
        list->push_front(added);
        std::vector<ShadowVersion> pruned;
        while (list->size() > get_max_version_count()) {
            pruned.push_back(list->back());
            list->pop_back();
        }

        if (wa_rename(tmp_file, added.db_path) != 0) {
            ErrorA(CR_STATUS_IO, "can't rename file from [%s] to [%s]", tmp_file.c_str(), added.db_path.c_str());
            return CR_STATUS_IO;
        }
        if (wa_syncdir(shadow_dir_) != 0) {
            int e = errno;
            cr_status_t status = _crMapError("add_new_version", __FILE__, __LINE__);
            ErrorA(status, "%s: failed to sync directory %s (%s)", "add_new_version", shadow_dir_.c_str(),
                   strerror(e));
            wa_deletefile(added.db_path);
            return status;
        }
        if (wa_access(added.journal_path, 0) == 0) {
            WarningA(CR_STATUS_NONE, "Remove unexpected journal file %s", added.journal_path.c_str());
            if (wa_deletefile(added.journal_path) != 0) {
                // Its lines would be taken for the new version's changes.
                int e = errno;
                cr_status_t status = _crMapError("add_new_version", __FILE__, __LINE__);
                WarningA(status, "Failed to delete file %s (%s).", added.journal_path.c_str(), strerror(e));
                wa_deletefile(added.db_path);
                return status;
            }
        }

        s.versions.reset(list.release());
        s.current = number;
        if (persist_chksum(type) != CR_STATUS_OK) {
            // The checksum file on disk still lists the old versions: go back
            // to them, journal stream included.
            s.versions = previous;
            s.current = previous_current;
            wa_deletefile(added.db_path);
            return CR_STATUS_IO;
        }
        // The next journal line opens the new version's journal.
        reset_db_active_journal_(type, boost::shared_ptr<JournalStream>());
        // A pruned version that cannot be deleted is warned about there; it
        // is no longer listed, and the new version stands.
        for (const ShadowVersion& old : pruned) remove_version(old);
        return CR_STATUS_OK;
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "add_new_version", e);
        return CR_STATUS_FAILED;
    }
}
