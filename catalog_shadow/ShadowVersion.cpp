// ShadowVersion: names of a version's files and the checks of its database and
// journal against the checksum file.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <fstream>

#include "catalog_shadow/ShadowCrc.h"
#include "catalog_shadow/ShadowVersion.h"
#include "dct/environment.h"
#include "dct/fault.h"
#include "dct/file_io.h"
#include "dct/fs.h"
#include "dct/log.h"

ShadowVersion::ShadowVersion(const std::string& dir, const std::string& type_word, uint64_t number)
    : version(number),
      type(type_word),
      db_name(get_db_name(type_word, number)),
      journal_name(get_journal_name(type_word, number)),
      db_path(dir + "/" + db_name),
      journal_path(dir + "/" + journal_name),
      db_crc(1),
      journal_crc(1),
      journal_lines(0),
      db_verified(false),
      journal_verified(false) {}

std::string ShadowVersion::get_db_name(const std::string& type, uint64_t version) {
    return type + "." + std::to_string(version);
}

std::string ShadowVersion::get_journal_name(const std::string& type, uint64_t version) {
    return get_db_name(type, version) + ".journal";
}

bool ShadowVersion::check_crc_db() {
    db_verified = false;
    uint64_t size = 0;
    uint32_t sum = 1;
    dct::file_failure failure;
    if (dct::sum_file(db_path, &size, &sum, &failure) != CR_STATUS_OK) {
        const char* what = failure.step == dct::file_step::open_source ? "open" : "read";
        ErrorA(failure.status, "%s: can not %s file: %s (%s)", "check_crc_db", what, db_path.c_str(),
               strerror(failure.error));
        return false;
    }
    if (sum != db_crc) {
        ErrorA(CR_STATUS_NONE, "Detected CRC mismatch for %s. Expected %u, actually %u", db_path.c_str(), db_crc,
               sum);
        return false;
    }
    db_verified = true;
    return true;
}

ShadowVersion::JournalScan ShadowVersion::scan_journal() const {
    JournalScan scan;
    ShadowCrc crc;
    uint64_t position = 0;
    std::ifstream in(journal_path.c_str(), std::ios::in | std::ios::binary);
    scan.exists = in.is_open();
    std::string line;
    while (std::getline(in, line)) {
        crc.append(line);
        ++scan.lines;
        position += line.size() + (in.eof() ? 0 : 1);
        if (scan.lines == journal_lines) {
            scan.crc_at_recorded = crc.value();
            scan.position_at_recorded = position;
        }
    }
    scan.crc = crc.value();
    scan.bytes = position;
    return scan;
}

bool ShadowVersion::JournalScan::prefix_repairable(uint32_t recorded_lines, uint32_t recorded_crc) const {
    if (lines <= recorded_lines) return false;
    // Nothing counted yet: every line found was written by a writer that died
    // before the checksum file counted it, so none was acknowledged.
    if (recorded_lines == 0) return recorded_crc == 1;
    return crc_at_recorded == recorded_crc && position_at_recorded > 0;
}

uint32_t ShadowVersion::JournalScan::effective_crc(uint32_t recorded_lines, uint32_t recorded_crc) const {
    return prefix_repairable(recorded_lines, recorded_crc) ? crc_at_recorded : crc;
}

uint64_t ShadowVersion::JournalScan::replayed_bytes(uint32_t recorded_lines, uint32_t recorded_crc) const {
    return prefix_repairable(recorded_lines, recorded_crc) ? position_at_recorded : bytes;
}

bool ShadowVersion::check_crc_journal(JournalScan* after) {
    return check_crc_journal(dct::default_environment(), after);
}

bool ShadowVersion::check_crc_journal(const dct::environment& env, JournalScan* after) {
    journal_verified = false;
    JournalScan scan = scan_journal();
    uint32_t result = scan.crc;
    uint32_t lines = scan.lines;
    if (after != nullptr) *after = scan;
    if (scan.prefix_repairable(journal_lines, journal_crc)) {
        // Lines appended after the checksum file was last persisted: a crash
        // between the journal sync and the checksum file. Cut them away (all
        // of them when none was counted yet); the recorded part is intact.
        if (fix_journal(scan.position_at_recorded) == CR_STATUS_OK) {
            WarningA(CR_STATUS_NONE, "Journal file %s was corrupted, and it was fixed by truncation.",
                     journal_path.c_str());
            result = scan.crc_at_recorded;
            lines = journal_lines;
            if (after != nullptr) {
                // The file now holds exactly the recorded prefix.
                after->lines = lines;
                after->crc = result;
                after->bytes = scan.position_at_recorded;
            }
        } else {
            ErrorA(CR_STATUS_NONE, "Journal file %s was corrupted, tried to fix but failed.", journal_path.c_str());
        }
    } else if (journal_lines != 0 && scan.lines > journal_lines) {
        ErrorA(CR_STATUS_NONE, "Journal file %s was corrupted, tried to fix but failed.", journal_path.c_str());
    }
    if (journal_lines == 0 && env.auto_fix_journal()) journal_lines = lines;

    if (result != journal_crc) {
        ErrorA(CR_STATUS_NONE, "Detected CRC mismatch for %s. Expected %u, actually %u", journal_path.c_str(),
               journal_crc, result);
        return false;
    }
    journal_verified = true;
    return true;
}

bool ShadowVersion::verify_journal(JournalScan* scan_out) const {
    const JournalScan scan = scan_journal();
    if (scan_out != nullptr) *scan_out = scan;
    const uint32_t result = scan.effective_crc(journal_lines, journal_crc);
    if (result != journal_crc) {
        ErrorA(CR_STATUS_NONE, "Detected CRC mismatch for %s. Expected %u, actually %u", journal_path.c_str(),
               journal_crc, result);
        return false;
    }
    return true;
}

cr_status_t ShadowVersion::fix_journal(uint64_t length) {
    int fd = ::open(journal_path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        int e = errno;
        cr_status_t status = _crMapError("fix_journal", __FILE__, __LINE__);
        ErrorA(status, "%s: can not open file: %s (%s)", "fix_journal", journal_path.c_str(), strerror(e));
        return status;
    }
    if (safe_ftruncate(fd, static_cast<off_t>(length)) != 0) {
        int e = errno;
        cr_status_t status = _crMapError("fix_journal", __FILE__, __LINE__);
        ErrorA(status, "%s: ftruncate file failed: %s (%s)", "fix_journal", journal_path.c_str(), strerror(e));
        ::close(fd);
        return status;
    }
    // The cut must reach the disk before anything counts on it: a checksum
    // file written later describes the journal as it is now.
    if (dct::current_environment().fault_point(dct::fault_op::fsync, journal_path.c_str()) != 0 || safe_fsync(fd) != 0) {
        int e = errno;
        cr_status_t status = _crMapError("fix_journal", __FILE__, __LINE__);
        ErrorA(status, "%s: fsync file failed: %s (%s)", "fix_journal", journal_path.c_str(), strerror(e));
        ::close(fd);
        return status;
    }
    ::close(fd);
    return CR_STATUS_OK;
}
