// plan_recovery and the recovery's judge of versions.
#include "catalog_shadow/RecoveryPlan.h"

#include <iterator>

#include "dct/fs.h"
#include "dct/log.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace {

// SQLite's companions of a database file.
const char* const kCompanions[] = {"-journal", "-wal", "-shm"};

// What a replay of `version`'s journal, as `scan` found it, applies.
PlannedJournal planned(const ShadowVersion& version, const ShadowVersion::JournalScan& scan) {
    PlannedJournal j;
    j.version = version.version;
    j.path = version.journal_path;
    const bool cut = scan.prefix_repairable(version.journal_lines, version.journal_crc);
    j.lines = cut ? version.journal_lines : scan.lines;
    j.bytes = scan.replayed_bytes(version.journal_lines, version.journal_crc);
    return j;
}

}  // namespace

VersionJudge::~VersionJudge() = default;

bool RepairingJudge::checksums_hold(ShadowVersion& version, ShadowVersion::JournalScan* scan) {
    if (!version.check_crc_journal(env_, scan) || !version.check_crc_db()) {
        WarningA(CR_STATUS_CORRUPT, "%s: %s is corrupt, will try to use an earlier shadow copy.", "merge_shadows",
                 version.db_path.c_str());
        return false;
    }
    return true;
}

bool RepairingJudge::integrity_holds(const ShadowVersion& version) {
    if (sqlitedb::check_database_integrity(version.db_path)) return true;
    WarningA(CR_STATUS_CORRUPT,
             "%s: %s did not pass the SQLite integrity check, will try to use an earlier shadow copy.",
             "merge_shadows", version.db_path.c_str());
    return false;
}

RecoveryPlan plan_recovery(ShadowVersionList& versions, const std::string& live_db, VersionJudge& judge) {
    RecoveryPlan plan;
    if (versions.empty()) {
        plan.status = CR_STATUS_NOT_FOUND;
        plan.reason = "no shadow version";
        return plan;
    }
    // Newest first: the journals of every version up to the base are read
    // while they are judged.
    std::vector<PlannedJournal> newest_first;
    ShadowVersionList::iterator base = versions.end();
    for (auto it = versions.begin(); it != versions.end(); ++it) {
        ShadowVersion::JournalScan scan;
        const bool usable = judge.checksums_hold(*it, &scan) && judge.integrity_holds(*it);
        newest_first.push_back(planned(*it, scan));
        if (usable) {
            base = it;
            break;
        }
        plan.passed_over.push_back(it->version);
    }
    if (base == versions.end()) {
        plan.status = CR_STATUS_CORRUPT;
        plan.reason = "no usable shadow version";
        return plan;
    }
    plan.status = CR_STATUS_OK;
    plan.base_version = base->version;
    plan.base_path = base->db_path;
    plan.base_crc = base->db_crc;
    for (auto it = newest_first.rbegin(); it != newest_first.rend(); ++it) {
        if (it->bytes == 0) continue;  // nothing to replay
        plan.journal_lines += it->lines;
        plan.journals.push_back(*it);
    }
    plan.set_aside = live_companions(live_db);
    return plan;
}

std::vector<std::string> live_companions(const std::string& db) {
    std::vector<std::string> found;
    for (const char* suffix : kCompanions) {
        const std::string path = db + suffix;
        if (wa_access(path, 0) == 0) found.push_back(path);
    }
    return found;
}
