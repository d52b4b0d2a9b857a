// export_database_shadow: one database's checksum file, versions and cut
// journals, under its directory lock.
#include "catalog_shadow/ShadowExport.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "catalog_shadow/DirectoryLock.h"
#include "dct/file_io.h"
#include "dct/fs.h"
#include "dct/log.h"

namespace {

const char kFunction[] = "export_shadow";

// One export of one database: its result, and the first failure that stops it.
class DatabaseExporter {
public:
    DatabaseExporter(const std::string& out, bool durable, ShadowExport* result)
        : out_(out), durable_(durable), result_(result) {}

    cr_status_t status() const { return status_; }

    // Fails the export for a path that may not be read; true otherwise
    // (there and readable, or missing).
    bool readable(const std::string& path) {
        if (dct::probe_readable(path) != dct::path_state::denied) return true;
        ErrorA(CR_STATUS_ACCESS_DENIED, "%s: failed to read %s: %s", kFunction, path.c_str(), dct::not_readable_text);
        status_ = CR_STATUS_ACCESS_DENIED;
        result_->reason = path + ": " + dct::not_readable_text;
        return false;
    }

    // Fails the export with errno as the failed step left it.
    void fail_errno(const char* function, const std::string& what, const std::string& path) {
        const int e = errno;
        status_ = _crMapError(function, __FILE__, __LINE__);
        result_->reason = "cannot " + what + " " + path + ": " + strerror(e);
        ErrorA(status_, "%s: failed to %s %s: %s", function, what.c_str(), path.c_str(), strerror(e));
    }

    // A version's database (linked when it may be) and its journal cut at the
    // recorded line count; a damaged one is exported as it is, with its
    // problem, and a recovery from the export passes over it.
    bool version(ShadowVersion& v, const std::string& from_dir) {
        if (!readable(v.db_path) || !readable(v.journal_path)) return false;
        if (wa_access(v.db_path, 0) != 0) {
            problem(v.db_path, "version file missing");
        } else {
            if (!link_or_copy(from_dir, v.db_name)) return false;
            if (result_->files.back().adler32 != v.db_crc) problem(v.db_path, "version checksum mismatch");
        }
        const ShadowVersion::JournalScan scan = v.scan_journal();
        if (!scan.exists) {
            if (v.journal_lines != 0 || v.journal_crc != 1) problem(v.journal_path, "journal missing");
            return true;
        }
        if (scan.effective_crc(v.journal_lines, v.journal_crc) != v.journal_crc) {
            problem(v.journal_path, "journal does not match the checksum file");
        }
        return copy(from_dir, v.journal_name, scan.replayed_bytes(v.journal_lines, v.journal_crc));
    }

    // Copies at most `length` bytes of `from_dir`/`name` into the export.
    bool copy(const std::string& from_dir, const std::string& name, uint64_t length) {
        const std::string src = from_dir + "/" + name;
        struct stat st;
        if (!stat_source(src, &st)) return false;
        ShadowExportFile f;
        f.name = name;
        f.size = length < static_cast<uint64_t>(st.st_size) ? length : static_cast<uint64_t>(st.st_size);
        dct::copy_options o;
        o.length = f.size;
        o.exclusive = true;
        o.sync = durable_;
        o.keep_times = true;
        dct::file_failure failure;
        if (dct::copy_file(src, out_ + "/" + name, o, &f.adler32, &failure) != CR_STATUS_OK) {
            failed_step("copy_prefix", failure);
            return false;
        }
        result_->bytes_copied += f.size;
        result_->files.push_back(f);
        return true;
    }

private:
    void problem(const std::string& path, const std::string& what) {
        result_->problems.push_back(ShadowExportProblem{path, what});
    }

    // The stat of a file to export; false (the export failed) when it has none.
    bool stat_source(const std::string& src, struct stat* st) {
        if (wa_stat(src, st) == 0) return true;
        fail_errno(kFunction, "read", src);
        return false;
    }

    // A failed step of a file primitive, logged as this export says it.
    void failed_step(const char* function, const dct::file_failure& failure) {
        const char* what = "write";
        switch (failure.step) {
            case dct::file_step::open_source:
            case dct::file_step::read: what = "read"; break;
            case dct::file_step::create: what = "create"; break;
            case dct::file_step::set_times: what = "set the times of"; break;
            default: break;
        }
        errno = failure.error;
        fail_errno(function, what, failure.path);
    }

    // Versions never change once in place: a hard link shares the file
    // (when its mode is already the private one), a copy stands in where the
    // file system or the system's link rules refuse one.
    bool link_or_copy(const std::string& from_dir, const std::string& name) {
        const std::string src = from_dir + "/" + name;
        struct stat st;
        if (!stat_source(src, &st)) return false;
        const std::string dst = out_ + "/" + name;
        if ((st.st_mode & 07777) != dct::private_file_mode) return copy(from_dir, name, UINT64_MAX);
        if (wa_link(src, dst) != 0) {
            if (errno == EXDEV || errno == EPERM) return copy(from_dir, name, UINT64_MAX);
            fail_errno(kFunction, "link", dst);
            return false;
        }
        ShadowExportFile f;
        f.name = name;
        f.linked = true;
        dct::file_failure failure;
        if (dct::sum_file(dst, &f.size, &f.adler32, &failure) != CR_STATUS_OK) {
            failed_step("file_sum", failure);
            return false;
        }
        result_->bytes_linked += f.size;
        result_->files.push_back(f);
        return true;
    }

    std::string out_;
    bool durable_;
    ShadowExport* result_;
    cr_status_t status_ = CR_STATUS_OK;
};

}  // namespace

cr_status_t export_database_shadow(const std::string& real_dir, const std::string& shadow_dir,
                                   const std::string& type, const std::string& out_dir,
                                   const ShadowExportOptions& options, ShadowExport* result) {
    *result = ShadowExport();
    // A directory that is gone has no one working in it.
    CatalogDirectoryLock lock;
    std::unique_ptr<DirectoryLock::ScopedLock> guard;
    if (wa_isdir(real_dir)) {
        guard.reset(new DirectoryLock::ScopedLock(&lock, real_dir));
        if (guard->GetStatus() != CR_STATUS_OK) {
            ErrorA(guard->GetStatus(), "%s: failed to lock %s", kFunction, real_dir.c_str());
            result->reason =
                "directory lock of " + real_dir + " not taken (status " + std::to_string(guard->GetStatus()) + ")";
            return guard->GetStatus();
        }
    }
    DatabaseExporter ex(out_dir, options.durable, result);
    const std::string chksum = PODBShadow::chksum_file(type);
    if (!ex.readable(shadow_dir + "/" + chksum)) return ex.status();
    ShadowVersionList list;
    std::string reason;
    const cr_status_t read = PODBShadow::read_chksum(shadow_dir, type, &result->current, &list, &reason);
    if (read == CR_STATUS_CORRUPT) {
        result->problems.push_back(
            ShadowExportProblem{shadow_dir + "/" + chksum, "checksum file damaged (" + reason + "), not exported"});
        return CR_STATUS_OK;
    }
    if (read != CR_STATUS_OK || list.empty()) {
        result->problems.push_back(ShadowExportProblem{shadow_dir, "no version in the shadow, nothing to export"});
        return CR_STATUS_OK;
    }
    if (dct::create_private_tree(out_dir, options.durable) != 0) {
        ex.fail_errno(kFunction, "create", out_dir);
        return ex.status();
    }
    if (!ex.copy(shadow_dir, chksum, UINT64_MAX)) return ex.status();
    for (ShadowVersion& v : list) {
        result->versions.push_back(ShadowExportVersion{v.version, v.journal_lines});
        if (!ex.version(v, shadow_dir)) return ex.status();
    }
    if (options.durable && wa_syncdir(out_dir) != 0) {
        ex.fail_errno(kFunction, "sync", out_dir);
        return ex.status();
    }
    result->exported = true;
    return CR_STATUS_OK;
}
