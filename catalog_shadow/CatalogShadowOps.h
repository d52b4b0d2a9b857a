// Walk functors of the whole-tree backups and recoveries, driven by TraverseDir
// (dct/fileutil.h):
//
//   backup_all:           TraverseDir(real root,   OpFilterDSID(app, OpBackupCatalog))
//   recover_all(_missing): TraverseDir(shadow root, OpFilterDSID(app, OpRecoverCatalog))
//
// TraverseDir copies its functor at every level, so the filter holds the inner
// operation by reference and the inner operation keeps the counts.
#ifndef CATALOG_SHADOW_CATALOGSHADOWOPS_H_
#define CATALOG_SHADOW_CATALOGSHADOWOPS_H_

#include <string>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/fileutil.h"
#include "dct/log.h"

class CatalogShadowContext;

// What the per-entry operations share: the context, whether the walk is over
// application databases (true) or PO/UL databases (false), and the counts.
class OpCatalogBase {
public:
    OpCatalogBase(CatalogShadowContext* context, bool app) : context_(context), app_(app) {}

    // File names compare without regard to letter case, as the pool has always
    // matched its catalog file names.
    static bool is_same_file(const std::string& a, const std::string& b);

    // Operations that succeeded and that failed so far.
    long succeeded() const { return succeeded_; }
    long failed() const { return failed_; }

protected:
    void count(bool ok) { ok ? ++succeeded_ : ++failed_; }

    CatalogShadowContext* context_;
    bool app_;
    long succeeded_ = 0;
    long failed_ = 0;
};

// Backs up every catalog database file offered: "app.db" in an application
// walk, the PO and UL database files in a PO/UL walk, each through
// CatalogShadowContext::backup(dir, type). Never stops the walk.
class OpBackupCatalog : public OpCatalogBase {
public:
    OpBackupCatalog(CatalogShadowContext* context, bool app) : OpCatalogBase(context, app) {}
    int operator()(const DirItem& item);
};

// For every checksum file offered (".chksum.appdb" in an application walk,
// ".chksum.podb" / ".chksum.uldb" in a PO/UL walk) whose real database is
// missing and whose shadow holds a version, runs
// CatalogShadowContext::recover(real dir, type, flags). A real database that
// is present is left alone. Never stops the walk.
class OpRecoverCatalog : public OpCatalogBase {
public:
    OpRecoverCatalog(CatalogShadowContext* context, bool app, unsigned flags)
        : OpCatalogBase(context, app), flags_(flags) {}
    int operator()(const DirItem& item);

private:
    unsigned flags_;
};

// Data-store filter: decides which directories the walker enters and which
// files it offers to `op`. The trees walked are the two real roots and the
// shadow root, which mirrors both of them:
//
//   application root    DSID/CLIENT/POLICY/app.db
//   PO/UL root          DSID/po.db, DSID/ul.db
//   shadow root         DSID/.chksum.podb ...  and  DSID/CLIENT/POLICY/.chksum.appdb ...
//
// - A "#corrupt_" directory is never entered, at any depth: what lies there
//   was set aside as damaged, and its checksum files and databases must never
//   be taken for live ones.
// - An application walk enters, directly below its root, only data-store
//   directories (a decimal dsid, the only names the catalog gives them), then
//   the client and the policy levels below them, and nothing deeper: no
//   catalog database lies deeper, and a link loop ends there. Only the files
//   of the policy level are offered.
// - A PO/UL walk enters the directories directly below its root and nothing
//   deeper, and offers the files of those directories and of the root itself.
// Because both real roots map onto the one shadow root, a shadow directory of
// one level can hold checksum files (empty ones, written when a shadow is
// first made) of the other kind; keeping each walk to its own levels keeps a
// PO/UL walk away from the application shadows and the reverse, so that no
// second shadow object is ever made for a directory that already has one.
// Directories not entered are traced "Skip directory %s".
template <typename Op>
class OpFilterDSID {
public:
    OpFilterDSID(bool app, Op& op) : app_(app), op_(op) {}

    int operator()(const DirItem& item) {
        if (!item.is_dir) {
            if (!offer(item)) return 1;
            int rc = op_(item);
            return rc < 0 ? rc : 0;
        }
        if (!enter(item)) {
            __TraceA("Skip directory %s", item.fullpath.c_str());
            return 1;
        }
        return 0;
    }

    // Whether a file (any entry that is not a directory) goes to the operation.
    bool offer(const DirItem& item) const { return app_ ? item.depth == 4 : item.depth <= 2; }

    // Whether the walker may descend into directory `item`.
    bool enter(const DirItem& item) const {
        const std::string& corrupt = PODBShadow::_corrupt_prefix_;
        if (item.name.compare(0, corrupt.size(), corrupt) == 0) return false;
        if (!app_) return item.depth == 1;
        if (item.depth == 1) return is_dsid(item.name);
        return item.depth <= 3;
    }

    // A decimal data-store id: one or more digits and nothing else.
    static bool is_dsid(const std::string& name) {
        if (name.empty()) return false;
        for (char c : name) {
            if (c < '0' || c > '9') return false;
        }
        return true;
    }

private:
    bool app_;
    Op& op_;
};

#endif  // CATALOG_SHADOW_CATALOGSHADOWOPS_H_
