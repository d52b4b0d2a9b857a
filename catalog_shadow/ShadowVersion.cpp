// ShadowVersion: names of a version's files and the checks of its database and
// journal against the checksum file.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <fstream>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/config.h"
#include "dct/fault.h"
#include "dct/fs.h"
#include "dct/log.h"

namespace {

const size_t kBlockSize = 32768;

// True unless the process configuration turns journal auto-fix off.
bool auto_fix_journal() {
    _crConfigClass* config = _crConfigClass::Instance();
    return config == nullptr || !config->GetDisableCatalogAutoFixJournal();
}

}  // namespace

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

int ShadowVersion::check_crc_db() {
    db_verified = false;
    int fd = ::open(db_path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        int e = errno;
        cr_status_t status = _crMapError("check_crc_db", __FILE__, __LINE__);
        ErrorA(status, "%s: can not open file: %s (%s)", "check_crc_db", db_path.c_str(), strerror(e));
        return 0;
    }
    PODBShadow::CRC crc;
    std::string block(kBlockSize, '\0');
    for (;;) {
        ssize_t n = ::read(fd, &block[0], kBlockSize);
        if (n < 0) {
            if (errno == EINTR) continue;
            int e = errno;
            cr_status_t status = _crMapError("check_crc_db", __FILE__, __LINE__);
            ErrorA(status, "%s: can not read file: %s (%s)", "check_crc_db", db_path.c_str(), strerror(e));
            ::close(fd);
            return 0;
        }
        if (n == 0) break;
        crc.append(block.data(), static_cast<size_t>(n));
    }
    ::close(fd);
    if (crc.value() != db_crc) {
        ErrorA(CR_STATUS_NONE, "Detected CRC mismatch for %s. Expected %u, actually %u", db_path.c_str(), db_crc,
               crc.value());
        return 0;
    }
    db_verified = true;
    return 1;
}

int ShadowVersion::check_crc_journal() {
    journal_verified = false;
    PODBShadow::CRC crc;
    uint32_t lines = 0;
    uint64_t position = 0;
    uint32_t crc_at_recorded = 1;
    uint64_t position_at_recorded = 0;
    {
        std::ifstream in(journal_path.c_str(), std::ios::in | std::ios::binary);
        std::string line;
        while (std::getline(in, line)) {
            crc.append(line);
            ++lines;
            position += line.size() + (in.eof() ? 0 : 1);
            if (lines == journal_lines) {
                crc_at_recorded = crc.value();
                position_at_recorded = position;
            }
        }
    }

    uint32_t result = crc.value();
    if (journal_lines == 0 && journal_crc == 1 && lines > 0) {
        // The checksum file counts no line at all: the version's first lines
        // were written and the writer died before the checksum file counted
        // them, so none of them was acknowledged. Cut them all away; a journal
        // recorded as empty stays empty.
        if (fix_journal(0)) {
            WarningA(CR_STATUS_NONE, "Journal file %s was corrupted, and it was fixed by truncation.",
                     journal_path.c_str());
            result = 1;
            lines = 0;
        } else {
            ErrorA(CR_STATUS_NONE, "Journal file %s was corrupted, tried to fix but failed.", journal_path.c_str());
        }
    } else if (journal_lines != 0 && lines > journal_lines) {
        // Lines appended after the checksum file was last persisted: a crash
        // between the journal sync and the checksum file. Cut them away when
        // the recorded part is still intact.
        if (crc_at_recorded == journal_crc && position_at_recorded > 0 && fix_journal(position_at_recorded)) {
            WarningA(CR_STATUS_NONE, "Journal file %s was corrupted, and it was fixed by truncation.",
                     journal_path.c_str());
            result = crc_at_recorded;
        } else {
            ErrorA(CR_STATUS_NONE, "Journal file %s was corrupted, tried to fix but failed.", journal_path.c_str());
        }
    }
    if (journal_lines == 0 && auto_fix_journal()) journal_lines = lines;

    if (result != journal_crc) {
        ErrorA(CR_STATUS_NONE, "Detected CRC mismatch for %s. Expected %u, actually %u", journal_path.c_str(),
               journal_crc, result);
        return 0;
    }
    journal_verified = true;
    return 1;
}

int ShadowVersion::fix_journal(uint64_t length) {
    int fd = ::open(journal_path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        int e = errno;
        cr_status_t status = _crMapError("fix_journal", __FILE__, __LINE__);
        ErrorA(status, "%s: can not open file: %s (%s)", "fix_journal", journal_path.c_str(), strerror(e));
        return 0;
    }
    if (safe_ftruncate(fd, static_cast<off_t>(length)) != 0) {
        int e = errno;
        cr_status_t status = _crMapError("fix_journal", __FILE__, __LINE__);
        ErrorA(status, "%s: ftruncate file failed: %s (%s)", "fix_journal", journal_path.c_str(), strerror(e));
        ::close(fd);
        return 0;
    }
    // The cut must reach the disk before anything counts on it: a checksum
    // file written later describes the journal as it is now.
    if (dct::fault_point(dct::fault_op::fsync, journal_path.c_str()) != 0 || safe_fsync(fd) != 0) {
        int e = errno;
        cr_status_t status = _crMapError("fix_journal", __FILE__, __LINE__);
        ErrorA(status, "%s: fsync file failed: %s (%s)", "fix_journal", journal_path.c_str(), strerror(e));
        ::close(fd);
        return 0;
    }
    ::close(fd);
    return 1;
}
