// offsite restore: the shadow tree of a snapshot brought back,
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
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "catalog_shadow/DirectoryLock.h"
#include "catalog_shadow/PODBShadowPool.h"
#include "catalog_shadow/RecoveryPlan.h"
#include "dct/environment.h"
#include "dct/file_io.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"
#include "offsite/offsite.h"
#include "offsite/repository_id.h"
#include "offsite/restore_internal.h"
#include "offsite/restore_marker.h"
#include "offsite/run_record.h"
#include "offsite/shadow_coverage.h"
#include "offsite/shadow_export.h"
#include "offsite/shadow_inspect.h"

namespace koffsite {

namespace {

const char* const kFn = "kavrel-shadow offsite restore";

// A shadow a recovery could start from, that lists at least what the
// export's newest version is.
bool sound_shadow(kshadow::DatabaseReport* r) {
    kshadow::inspect_database(kshadow::Depth::status, r);
    return r->checksum_file == kshadow::kOk && r->recovery.possible;
}

// Every result is checked as verify checks a live database; a rebuilt one
// must also hold the rows the snapshot recorded.
void check_result(const kshadow::ExportedDatabase& db, RestoredDatabase* out) {
    kshadow::inspect_database(kshadow::Depth::status, &out->report);
    kshadow::check_live_database(&out->report);
    const kshadow::LiveState& l = out->report.live;
    if (out->live == "kept") {
        // Kept, never overwritten; but a damaged one is the operator's to rebuild.
        if (l.integrity == kshadow::kBad || l.row_checksums == kshadow::kBad) {
            out->problems.push_back("the live database that was kept is damaged (integrity " + l.integrity +
                                    ", row checksums " + l.row_checksums + "): kavrel-shadow recover " +
                                    out->report.target.dir + " rebuilds it");
        }
        return;
    }
    if (out->live != "rebuilt") return;
    if (l.integrity != kshadow::kOk) out->problems.push_back("the rebuilt database fails the integrity check");
    if (l.row_checksums != kshadow::kOk) out->problems.push_back("the rebuilt database fails a row checksum");
    if (db.rows_known && (!l.rows_known || l.rows != db.rows)) {
        out->problems.push_back("the rebuilt database has " +
                                (l.rows_known ? std::to_string(l.rows) : std::string("unknown")) +
                                " rows, the snapshot recorded " + std::to_string(db.rows));
    }
}

// A live database kept beside a shadow that cannot give all its rows back
// (one restored from an older snapshot) gets a version of it at once.
void cover_kept(CatalogShadowContext& context, RestoredDatabase* out) {
    kshadow::Cover c;
    const cr_status_t s = kshadow::cover_live_database(context, out->report.target, &c);
    const std::string lost = std::to_string(c.before.lost_rows) + " rows";
    if (c.version != 0) {
        out->covered = "version " + std::to_string(c.version) + " taken of the live database (" + lost +
                       " the shadow could not give back)";
    }
    if (s != CR_STATUS_OK && c.before.known) {
        out->problems.push_back("recovery would lose " + lost + "; no version of the live database covers them (status " +
                                std::to_string(s) + ")");
    }
}

void restore_one(CatalogShadowContext& context, const std::string& shadow_root, const std::string& export_dir,
                 const kshadow::ExportedDatabase& db, bool dry_run, RestoredDatabase* out) {
    kshadow::Target& t = out->report.target;
    t.type = db.target.type;
    t.shadow_dir = shadow_root + "/" + db.relative;
    // Mapped into this server's roots, whatever the roots of the pool the
    // snapshot was taken from.
    t.dir = context.shadow_to_real_path(t.shadow_dir, t.type);
    if (t.dir.empty()) {
        out->problems.push_back("no directory of this pool for " + db.relative);
        out->shadow = out->live = "failed";
        return;
    }
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
        // The context drops what it read of the replaced shadow.
        if (context.reload_podb(t.dir) != CR_STATUS_OK) out->problems.push_back("the restored shadow cannot be read");
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
    if (!dry_run && out->live == "kept") cover_kept(context, out);
    if (!dry_run) check_result(db, out);
}

// Stops the restore: `stop` and `reason` set, CR_STATUS_FAILED returned.
cr_status_t stopped(RestoreResult* r, Stop stop, const std::string& reason) {
    r->stop = stop;
    r->reason = reason;
    return CR_STATUS_FAILED;
}

// The scratch directory of the restore: a private temporary one for a dry
// run; else the one beside the shadow root (whose parent a new server may
// not have yet) under the scratch lock, emptied of what a killed restore
// left. Null with `why` set when it cannot be had.
std::unique_ptr<kshadow::ScratchDir> scratch_for(const std::string& shadow_root, bool dry_run, ScratchLock* lock,
                                                std::string* why) {
    std::unique_ptr<kshadow::ScratchDir> dir;
    if (dry_run) {
        dir.reset(new kshadow::ScratchDir());
        if (dir->path().empty()) {
            *why = std::string("cannot make a temporary directory: ") + strerror(errno);
            dir.reset();
        }
        return dir;
    }
    const std::string parent = shadow_root.substr(0, shadow_root.rfind('/'));
    if (!parent.empty() && !wa_isdir(parent) && wa_createtree_synced(parent, dct::private_dir_mode) != 0) {
        *why = "cannot create " + parent + ": " + strerror(errno);
        return dir;
    }
    if (lock->take(shadow_root, why) != CR_STATUS_OK) return dir;
    dir.reset(new kshadow::ScratchDir(scratch_path(shadow_root, "restore")));
    if (!dir->remove()) {
        *why = "cannot remove the scratch directory " + dir->path();
        dir.reset();
    }
    return dir;
}

// Brings the snapshot's export (a dry run: its manifest alone) into
// `export_dir`; "" or why it failed (logged).
std::string fetch(const Restic& restic, const Snapshot& snap, const std::string& scratch,
                  const std::string& export_dir, bool dry_run) {
    const ResticRun fetched = dry_run ? restic.run({"dump", snap.id, snap.path + "/" + kshadow::kManifestName})
                                      : restic.run({"restore", snap.id, "--target", scratch});
    if (!fetched.ok()) {
        return restic.report(kFn, CR_STATUS_FAILED, dry_run ? "restic dump" : "restic restore", fetched);
    }
    if (!dry_run) return "";
    std::string why;
    if (wa_createtree(export_dir, dct::private_dir_mode) != 0) {
        why = "cannot create " + export_dir + ": " + strerror(errno);
        ErrorA(CR_STATUS_FAILED, "%s: %s", kFn, why.c_str());
        return why;
    }
    dct::atomic_write_options unsynced;
    unsynced.sync = false;
    dct::file_failure failure;
    if (dct::write_file_atomic(export_dir, export_dir + "/" + kshadow::kManifestName, fetched.out, unsynced,
                               &failure) != CR_STATUS_OK) {
        why = "cannot write " + failure.path + ": " + strerror(failure.error);
        ErrorA(failure.status, "%s: %s", kFn, why.c_str());
    }
    return why;
}

// Reads (a dry run) or checks the fetched export; the databases with
// problems go to result->damaged. "" or why it is not sound.
std::string check_fetched(const std::string& export_dir, bool dry_run, RestoreResult* r) {
    std::string why;
    const cr_status_t read =
        dry_run ? kshadow::read_manifest(export_dir, &r->manifest, &why)
                : kshadow::verify_export(export_dir, &r->manifest, &r->damaged, kshadow::Depth::status);
    if (!dry_run && read != CR_STATUS_OK) why = r->manifest.reason;
    r->damaged.erase(std::remove_if(r->damaged.begin(), r->damaged.end(),
                                    [](const kshadow::DatabaseReport& d) { return d.problems.empty(); }),
                     r->damaged.end());
    if (read == CR_STATUS_OK && r->damaged.empty()) return "";
    return "snapshot " + r->snapshot.short_id + " does not hold a sound export" + (why.empty() ? "" : ": " + why) +
           "; nothing was restored";
}

// restore without its record.
cr_status_t restore_pool(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
                         const RestoreRequest& request, RestoreResult* r) {
    *r = RestoreResult();
    const ProgressEnd progress_end(restic);
    std::string why;
    const cr_status_t loaded = context.load_configurations();
    const std::string shadow_root = shadow_root_of(context);
    if (loaded != CR_STATUS_OK || shadow_root.empty()) {
        return stopped(r, Stop::not_started, "the configuration names no shadow root (no storage path)");
    }
    // A killed restore is finished first; only the pool's repository is read.
    RestoreMarking marking(shadow_root);
    RestoreRequest wanted = request;
    std::string id;
    bool remembered = false;
    if ((marking.resuming() && !finish_first(marking.marker(), &wanted, &why)) ||
        check_repository(restic, shadow_root, &id, &remembered, &why) != CR_STATUS_OK) {
        return stopped(r, Stop::not_started, why);
    }
    std::vector<Snapshot> snapshots;
    if (list_snapshots(restic, "", &snapshots, &why) != CR_STATUS_OK) return stopped(r, Stop::not_started, why);
    if (!choose_snapshot(snapshots, pool, wanted, &r->snapshot, &why)) return stopped(r, Stop::failed, why);
    r->chosen = true;

    ScratchLock lock;
    const std::unique_ptr<kshadow::ScratchDir> scratch_dir = scratch_for(shadow_root, request.dry_run, &lock, &why);
    if (!scratch_dir) return stopped(r, Stop::not_started, why);
    const std::string export_dir = scratch_dir->path() + r->snapshot.path;
    std::string failure = fetch(restic, r->snapshot, scratch_dir->path(), export_dir, request.dry_run);
    if (!failure.empty()) return stopped(r, Stop::failed, failure);
    restic.progress("checking the snapshot's export");
    failure = check_fetched(export_dir, request.dry_run, r);
    if (!failure.empty()) {
        ErrorA(CR_STATUS_CORRUPT, "%s: %s", kFn, failure.c_str());
        return stopped(r, Stop::failed, failure);
    }
    if (!request.dry_run && marking.begin(r->snapshot, r->manifest.databases.size(), &why) != CR_STATUS_OK) {
        return stopped(r, Stop::not_started, why);
    }
    // A dry run needs only the path mappings load_configurations set; init
    // would report a lost root to the proxy.
    if (!request.dry_run) {
        if (!wa_isdir(shadow_root) && wa_createtree_synced(shadow_root, dct::private_dir_mode) != 0) {
            return stopped(r, Stop::not_started,
                           "cannot create the shadow root " + shadow_root + ": " + strerror(errno));
        }
        if (CatalogShadowIdentity(shadow_root.c_str()).create_identity() != CR_STATUS_OK ||
            context.init() != CR_STATUS_OK || !context.enabled) {
            return stopped(r, Stop::not_started, "cannot take " + shadow_root + " as this pool's shadow root");
        }
        if (!remembered && remember_repository_id(shadow_root, id, &why) != CR_STATUS_OK) ++r->problems;
    }
    bool failed = false;
    for (const auto& db : r->manifest.databases) {
        RestoredDatabase d;
        restic.progress(std::string(request.dry_run ? "planning " : "restoring ") +
                        std::to_string(r->databases.size() + 1) + "/" +
                        std::to_string(r->manifest.databases.size()) + " " + db.relative);
        restore_one(context, shadow_root, export_dir, db, request.dry_run, &d);
        failed = failed || d.shadow == "failed" || d.live == "failed";
        if (!request.dry_run && marking.done(db.relative + "/" + db.target.type, &why) != CR_STATUS_OK) ++r->problems;
        r->problems += d.problems.size();
        r->rebuilt += d.live == "rebuilt" || d.live == "would rebuild" ? 1 : 0;
        r->restored += d.shadow == "restored" || d.shadow == "would restore" ? 1 : 0;
        r->kept += d.live == "kept" ? 1 : 0;
        r->databases.push_back(d);
    }
    if (!scratch_dir->remove()) ++r->problems;
    // A database that failed is left marked: the next restore tries it again.
    if (!request.dry_run && !failed && marking.finish(&why) != CR_STATUS_OK) ++r->problems;
    return CR_STATUS_OK;
}

}  // namespace

cr_status_t restore(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
                    const RestoreRequest& request, RestoreResult* r) {
    const RunClock clock;
    const cr_status_t status = restore_pool(context, restic, pool, request, r);
    // A dry run changes nothing and is no run of a restore.
    if (!request.dry_run) {
        record_run(context, RecordedRun::restore, clock,
                   status != CR_STATUS_OK ? status : r->problems == 0 ? 0 : CR_STATUS_FAILED);
    }
    return status;
}

}  // namespace koffsite
