// kavrel-shadow offsite restore: the shadow tree of a snapshot brought back,
// then every missing live database rebuilt from it.
//
// Nothing that is sound is replaced: a live database that is there is kept,
// and so is a shadow directory whose checksum file reads and whose newest
// usable version a recovery could start from. A shadow that is damaged or
// incomplete is set aside in a "#corrupt_" directory (never deleted) before
// the snapshot's files take its place. Before anything is placed, every
// file of the export is checked against the manifest and each database's
// checksum file and base version are checked (verify_export at status
// depth); the rehearsal is left to the recovery itself, whose result is
// checked: integrity, row checksums and the rows the manifest recorded.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "catalog_shadow/DirectoryLock.h"
#include "catalog_shadow/PODBShadowPool.h"
#include "catalog_shadow/RecoveryPlan.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"
#include "tool/offsite_internal.h"
#include "tool/shadow_export.h"
#include "tool/shadow_export_files.h"
#include "tool/shadow_inspect.h"
#include "tool/shadow_report.h"

namespace koffsite {

namespace {

const char* const kFn = "kavrel-shadow offsite restore";

// The snapshot the options name: an id (or its prefix) or the newest, each
// older than --before when given.
bool choose_snapshot(const std::vector<Snapshot>& snapshots, const OffsiteOptions& o, Snapshot* chosen,
                     std::string* why) {
    const bool latest = o.snapshot.empty() || o.snapshot == "latest";
    for (auto it = snapshots.rbegin(); it != snapshots.rend(); ++it) {
        if (o.has_before && it->time >= o.before) continue;
        if (!latest && it->id.compare(0, o.snapshot.size(), o.snapshot) != 0) continue;
        *chosen = *it;
        return true;
    }
    *why = latest ? "no snapshot of this pool" : "no snapshot " + o.snapshot + " of this pool";
    if (o.has_before) *why += " before " + ktool::iso8601_utc(o.before);
    return false;
}

// Copies `from` to `to` through `to` ".restore" (private, synced, renamed
// over). 0 or errno.
int copy_synced(const std::string& from, const std::string& to) {
    struct stat st;
    if (wa_stat(from, &st) != 0) return errno;
    const std::string tmp = to + ".restore";
    uint32_t sum = 1;
    kshadow::FileFailure failure;
    if (kshadow::copy_prefix(from, st, static_cast<uint64_t>(st.st_size), tmp, true, &sum, &failure) != CR_STATUS_OK) {
        return EIO;
    }
    if (wa_rename(tmp, to) != 0) {
        const int e = errno;
        wa_deletefile(tmp);
        return e;
    }
    return 0;
}

// The files of `type` in a shadow directory (its checksum file, versions,
// journals and leftovers), bare names.
std::vector<std::string> shadow_files_of(const std::string& dir, const std::string& type) {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> d(opendir(dir.c_str()), closedir);
    if (!d) return names;
    const std::string chksum = PODBShadow::chksum_file(type);
    while (struct dirent* e = readdir(d.get())) {
        const std::string name = e->d_name;
        if (name.compare(0, chksum.size(), chksum) == 0 || name.compare(0, type.size() + 1, type + ".") == 0) {
            names.push_back(name);
        }
    }
    return names;
}

// Moves the files of `type` into "#corrupt_TYPE_SECONDS"; the directory's
// name, or "" with `why` set.
std::string set_aside(const std::string& dir, const std::string& type, std::string* why) {
    const std::vector<std::string> names = shadow_files_of(dir, type);
    if (names.empty()) return "";
    const std::string aside = dir + "/#corrupt_" + type + "_" + std::to_string(time(nullptr));
    if (wa_createtree(aside, dct::private_dir_mode) != 0 && !wa_isdir(aside)) {
        *why = "cannot create " + aside + ": " + strerror(errno);
        return "";
    }
    for (const std::string& name : names) {
        if (wa_rename(dir + "/" + name, aside + "/" + name) != 0) {
            *why = "cannot move " + dir + "/" + name + " aside: " + strerror(errno);
            return "";
        }
    }
    wa_syncdir(dir);
    return aside;
}

// Moves `from` to `to` when both lie on one file system (the scratch
// directory is beside the shadow root), else copies it; made private and
// synced either way. 0 or errno.
int move_synced(const std::string& from, const std::string& to) {
    if (wa_rename(from, to) != 0) return errno == EXDEV ? copy_synced(from, to) : errno;
    if (wa_restrict_mode(to) != 0) return errno;
    const int fd = open(to.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    const int e = safe_fsync(fd) != 0 ? errno : 0;
    close(fd);
    return e;
}

// Places the export's files of one database into its shadow directory, the
// checksum file last so that a crash leaves no file counting what is absent.
bool place_files(const std::string& from, const std::string& to, const kshadow::ExportedDatabase& db,
                 std::string* why) {
    if (!wa_isdir(to) && wa_createtree_synced(to, dct::private_dir_mode) != 0) {
        *why = "cannot create " + to + ": " + strerror(errno);
        return false;
    }
    const std::string chksum = PODBShadow::chksum_file(db.target.type);
    for (int pass = 0; pass < 2; ++pass) {
        for (const auto& f : db.files) {
            if ((f.name == chksum) != (pass == 1)) continue;
            const int e = move_synced(from + "/" + f.name, to + "/" + f.name);
            if (e != 0) {
                *why = "cannot place " + f.name + " into " + to + ": " + strerror(e);
                return false;
            }
        }
    }
    if (wa_syncdir(to) != 0) {
        *why = "cannot sync " + to + ": " + strerror(errno);
        return false;
    }
    return true;
}

// What was found and done for one database.
struct Restored {
    kshadow::DatabaseReport report;
    std::string shadow;  // "kept", "restored", "would restore", "failed"
    std::string live;    // "kept", "rebuilt", "would rebuild", "failed", "not readable"
    std::string set_aside;
    std::vector<std::string> problems;
    bool rows_known = false;
    uint64_t rows_expected = 0;
};

// A shadow a recovery could start from, that lists at least what the
// export's newest version is.
bool sound_shadow(kshadow::DatabaseReport* r) {
    kshadow::inspect_database(kshadow::Depth::status, r);
    return r->checksum_file == kshadow::kOk && r->recovery.possible;
}

void restore_one(CatalogShadowContext& context, const std::string& shadow_root, const std::string& export_dir,
                 const kshadow::ExportedDatabase& db, bool dry_run, Restored* out) {
    kshadow::Target& t = out->report.target;
    t.type = db.target.type;
    t.shadow_dir = shadow_root + "/" + db.relative;
    t.dir = context.shadow_to_real_path(t.shadow_dir, t.type);
    if (t.dir.empty()) t.dir = db.target.dir;
    t.db_path = dct::pool_layout::db_file_in(t.dir, t.type);
    out->rows_known = db.rows_known;
    out->rows_expected = db.rows;

    if (!dry_run && !wa_isdir(t.dir) && wa_createtree_synced(t.dir, dct::private_dir_mode) != 0) {
        out->problems.push_back("cannot create " + t.dir + ": " + strerror(errno));
        out->shadow = out->live = "failed";
        return;
    }
    CatalogDirectoryLock lock;
    std::unique_ptr<DirectoryLock::ScopedLock> guard;
    if (wa_isdir(t.dir)) {
        guard.reset(new DirectoryLock::ScopedLock(&lock, t.dir));
        if (guard->GetStatus() != CR_STATUS_OK) {
            out->problems.push_back("directory lock not taken (status " + std::to_string(guard->GetStatus()) + ")");
            out->shadow = out->live = "failed";
            return;
        }
    }
    kshadow::DatabaseReport probe;
    probe.target = t;
    const bool sound = sound_shadow(&probe);
    std::string why;
    if (sound) {
        out->shadow = "kept";
    } else if (dry_run) {
        out->shadow = "would restore";
    } else {
        out->set_aside = set_aside(t.shadow_dir, t.type, &why);
        if (!why.empty() || !place_files(export_dir + "/" + db.relative, t.shadow_dir, db, &why)) {
            ErrorA(CR_STATUS_FAILED, "%s: %s", kFn, why.c_str());
            out->problems.push_back(why);
            out->shadow = out->live = "failed";
            return;
        }
        out->shadow = "restored";
        context.reload_podb(t.dir);
    }

    const dct::path_state live = dct::probe_readable(t.db_path);
    if (live == dct::path_state::present) {
        out->live = "kept";
    } else if (live == dct::path_state::denied) {
        out->live = "not readable";
        out->problems.push_back(t.db_path + ": " + kshadow::kNotReadable);
    } else if (dry_run) {
        out->live = "would rebuild";
    } else {
        ::RecoveryPlan done;
        const cr_status_t s = recover_reporting(context, t.dir, t.type, &done);
        if (s != CR_STATUS_OK) {
            out->live = "failed";
            out->problems.push_back("recovery failed: " + (done.reason.empty() ? "status " + std::to_string(s)
                                                                                : done.reason));
        } else {
            out->live = "rebuilt";
        }
    }
    if (dry_run) return;
    // Every result is checked as verify checks a live database.
    kshadow::inspect_database(kshadow::Depth::status, &out->report);
    kshadow::check_live_database(&out->report);
    const kshadow::LiveState& l = out->report.live;
    if (out->live == "rebuilt") {
        if (l.integrity != kshadow::kOk) out->problems.push_back("the rebuilt database fails the integrity check");
        if (l.row_checksums != kshadow::kOk) out->problems.push_back("the rebuilt database fails a row checksum");
        if (db.rows_known && (!l.rows_known || l.rows != db.rows)) {
            out->problems.push_back("the rebuilt database has " +
                                    (l.rows_known ? std::to_string(l.rows) : std::string("unknown")) +
                                    " rows, the snapshot recorded " + std::to_string(db.rows));
        }
    }
}

ktool::json restored_json(const Restored& r) {
    ktool::json j;
    j["type"] = r.report.target.type;
    j["dir"] = ktool::json_text(r.report.target.dir);
    j["shadow"] = r.shadow;
    j["live"] = r.live;
    j["set_aside"] = r.set_aside.empty() ? ktool::json() : ktool::json_text(r.set_aside);
    j["rows_expected"] = r.rows_known ? ktool::json(r.rows_expected) : ktool::json();
    j["rows"] = r.report.live.rows_known ? ktool::json(r.report.live.rows) : ktool::json();
    j["integrity"] = r.report.live.integrity;
    j["row_checksums"] = r.report.live.row_checksums;
    ktool::json problems = ktool::json::array();
    for (const auto& p : r.problems) problems.push_back(ktool::json_text(p));
    j["problems"] = problems;
    return j;
}

std::string restored_text(const Restored& r) {
    std::string text = r.report.target.type + " " + r.report.target.dir + "\n";
    text += kshadow::labelled_line("shadow", r.shadow + (r.set_aside.empty() ? "" : ", set aside " + r.set_aside));
    std::string live = r.live;
    if (r.report.live.rows_known) live += ", " + std::to_string(r.report.live.rows) + " rows";
    if (r.rows_known && r.live != "kept") live += " (snapshot: " + std::to_string(r.rows_expected) + ")";
    if (r.report.live.integrity != kshadow::kUnknown) live += ", integrity " + r.report.live.integrity;
    if (r.report.live.row_checksums != kshadow::kUnknown) live += ", row checksums " + r.report.live.row_checksums;
    text += kshadow::labelled_line("live", live);
    for (const auto& p : r.problems) text += kshadow::labelled_line("problem", p);
    return text;
}

}  // namespace

int run_restore(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
                const OffsiteOptions& options) {
    std::string why;
    context.load_configurations();
    const std::string shadow_root = shadow_root_of(context);
    if (shadow_root.empty()) return cannot_run("the configuration names no shadow root (no storage path)");
    std::vector<Snapshot> snapshots;
    if (list_snapshots(restic, pool, &snapshots, &why) != CR_STATUS_OK) return cannot_run(why);
    Snapshot snap;
    if (!choose_snapshot(snapshots, options, &snap, &why)) {
        complain("offsite restore: " + why);
        return kExitProblems;
    }
    const std::string command = options.dry_run ? "offsite restore --dry-run" : "offsite restore";
    Output out(options, command, "databases");
    out.text((options.dry_run ? "would restore snapshot " : "restoring snapshot ") + snap.short_id + " of " +
             ktool::iso8601_utc(snap.time) + " (host " + snap.host + ")");

    // The scratch directory lies beside the shadow root, whose parent a new
    // server may not have yet.
    ScratchLock lock;
    std::unique_ptr<kshadow::ScratchDir> scratch_dir;
    if (options.dry_run) {
        scratch_dir.reset(new kshadow::ScratchDir());
        if (scratch_dir->path().empty()) {
            return cannot_run(std::string("cannot make a temporary directory: ") + strerror(errno));
        }
    } else {
        const std::string parent = shadow_root.substr(0, shadow_root.rfind('/'));
        if (!parent.empty() && !wa_isdir(parent) && wa_createtree_synced(parent, dct::private_dir_mode) != 0) {
            return cannot_run("cannot create " + parent + ": " + strerror(errno));
        }
        if (lock.take(shadow_root, &why) != CR_STATUS_OK) return cannot_run(why);
        scratch_dir.reset(new kshadow::ScratchDir(scratch_path(shadow_root, "restore")));
        if (!scratch_dir->remove()) return cannot_run("cannot remove the scratch directory " + scratch_dir->path());
    }
    const std::string& scratch = scratch_dir->path();
    // A dry run needs only the manifest.
    const std::string export_dir = scratch + snap.path;
    const ResticRun fetched = options.dry_run
                                  ? restic.run({"dump", snap.id, snap.path + "/" + kshadow::kManifestName})
                                  : restic.run({"restore", snap.id, "--target", scratch});
    std::string failure;
    if (!fetched.ok()) {
        failure = restic.failure(options.dry_run ? "restic dump" : "restic restore", fetched);
    } else if (options.dry_run) {
        kshadow::FileFailure written;
        if (wa_createtree(export_dir, dct::private_dir_mode) != 0) {
            failure = "cannot create " + export_dir + ": " + strerror(errno);
        } else if (kshadow::write_file_synced(export_dir, kshadow::kManifestName, fetched.out, false, &written) !=
                   CR_STATUS_OK) {
            failure = written.reason;
        }
    }
    if (!failure.empty()) {
        ErrorA(CR_STATUS_FAILED, "%s: %s", kFn, failure.c_str());
        complain("offsite restore: " + failure);
        ktool::json summary;
        summary["error"] = ktool::json_text(failure);
        return out.finish(summary, kExitProblems);
    }
    kshadow::ExportReport manifest;
    std::vector<kshadow::DatabaseReport> checked;
    cr_status_t read = options.dry_run ? kshadow::read_manifest(export_dir, &manifest, &why)
                                       : kshadow::verify_export(export_dir, &manifest, &checked,
                                                                kshadow::Depth::status);
    if (!options.dry_run && read != CR_STATUS_OK) why = manifest.reason;
    size_t damaged = 0;
    for (const auto& r : checked) damaged += r.problems.empty() ? 0 : 1;
    if (read != CR_STATUS_OK || damaged > 0) {
        for (const auto& r : checked) {
            if (!r.problems.empty()) out.text(kshadow::database_text("verify --export", r));
        }
        failure = "snapshot " + snap.short_id + " does not hold a sound export" +
                                    (why.empty() ? "" : ": " + why) + "; nothing was restored";
        ErrorA(CR_STATUS_CORRUPT, "%s: %s", kFn, failure.c_str());
        complain("offsite restore: " + failure);
        ktool::json summary;
        summary["error"] = ktool::json_text(failure);
        return out.finish(summary, kExitProblems);
    }

    if (!options.dry_run) {
        if (!wa_isdir(shadow_root) && wa_createtree_synced(shadow_root, dct::private_dir_mode) != 0) {
            return cannot_run("cannot create the shadow root " + shadow_root + ": " + strerror(errno));
        }
        if (CatalogShadowIdentity(shadow_root.c_str()).create_identity() != CR_STATUS_OK ||
            context.init() != CR_STATUS_OK || !context.enabled) {
            return cannot_run("cannot take " + shadow_root + " as this pool's shadow root");
        }
    }
    // A dry run needs only the path mappings load_configurations set; init
    // would report a lost root to the proxy.

    uint64_t problems = 0, rebuilt = 0, restored = 0, kept = 0;
    for (const auto& db : manifest.databases) {
        Restored r;
        restore_one(context, shadow_root, export_dir, db, options.dry_run, &r);
        problems += r.problems.size();
        rebuilt += r.live == "rebuilt" || r.live == "would rebuild" ? 1 : 0;
        restored += r.shadow == "restored" || r.shadow == "would restore" ? 1 : 0;
        kept += r.shadow == "kept" && r.live == "kept" ? 1 : 0;
        out.text(restored_text(r));
        out.item(restored_json(r));
    }
    if (!scratch_dir->remove()) ++problems;
    const int exit_code = problems == 0 ? kExitOk : kExitProblems;
    out.text(command + ": snapshot " + snap.short_id + ", " + std::to_string(manifest.databases.size()) +
             " databases: " + std::to_string(restored) + " shadows " +
             (options.dry_run ? "to restore, " : "restored, ") + std::to_string(rebuilt) + " databases " +
             (options.dry_run ? "to rebuild, " : "rebuilt, ") + std::to_string(kept) + " kept, " +
             std::to_string(problems) + " problems");
    ktool::json summary;
    summary["snapshot"] = snap.id;
    summary["time"] = ktool::iso8601_utc(snap.time);
    summary["databases"] = manifest.databases.size();
    summary["shadows_restored"] = restored;
    summary["databases_rebuilt"] = rebuilt;
    summary["kept"] = kept;
    summary["problems"] = problems;
    return out.finish(summary, exit_code);
}

}  // namespace koffsite
