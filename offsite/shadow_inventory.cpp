#include "offsite/shadow_inventory.h"

#include <algorithm>
#include <set>
#include <utility>

#include "catalog_shadow/CatalogShadowOps.h"
#include "dct/fileutil.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"

namespace kshadow {

namespace {

typedef std::set<std::pair<std::string, std::string>> DirTypeSet;

// The type words a walk of one kind looks for.
std::vector<std::string> types_of(bool app) {
    if (app) return {PODBShadow::_appdb_type_};
    return {PODBShadow::_podb_type_, PODBShadow::_uldb_type_};
}

// Whether the shadow directory holds a checksum file of `type` that lists a
// version or cannot be read (a damaged one must be reported, not hidden).
bool shadow_lists_versions(const std::string& shadow_dir, const std::string& type) {
    switch (dct::probe_readable(shadow_dir + "/" + PODBShadow::chksum_file(type))) {
        case dct::path_state::missing: return false;
        case dct::path_state::denied: return true;  // reported as not readable
        case dct::path_state::present: break;
    }
    uint64_t current = 0;
    ShadowVersionList list;
    std::string reason;
    cr_status_t status = PODBShadow::read_chksum(shadow_dir, type, &current, &list, &reason);
    return status != CR_STATUS_OK || !list.empty();
}

// Walk functor: records (real directory, type) for every database file of
// the walk's kind (real tree) or every checksum file of it (shadow tree).
class OpCollect {
public:
    OpCollect(CatalogShadowContext& context, bool app, bool shadow, DirTypeSet& found)
        : context_(context), app_(app), shadow_(shadow), found_(found) {}

    int operator()(const DirItem& item) {
        for (const std::string& type : types_of(app_)) {
            const std::string wanted = shadow_ ? PODBShadow::chksum_file(type) : PODBShadow::db_file_name(type);
            if (!OpCatalogBase::is_same_file(item.name, wanted)) continue;
            if (!shadow_) {
                found_.insert(std::make_pair(item.dir, type));
            } else if (shadow_lists_versions(item.dir, type)) {
                const std::string real = context_.shadow_to_real_path(item.dir, type);
                if (!real.empty()) found_.insert(std::make_pair(real, type));  // else logged by the mapping
            }
        }
        return 0;
    }

private:
    CatalogShadowContext& context_;
    bool app_;
    bool shadow_;
    DirTypeSet& found_;
};

// Walk functor around another: a directory this user may not read is
// recorded in `unreadable` and not entered (the walk would stop there and say
// nothing of the rest), every other entry goes to the inner functor.
template <typename Op>
class OpNoteUnreadable {
public:
    OpNoteUnreadable(Op& op, std::vector<std::string>& unreadable) : op_(op), unreadable_(unreadable) {}
    int operator()(const DirItem& item) {
        if (item.is_dir && dct::probe_readable(item.fullpath) == dct::path_state::denied) {
            unreadable_.push_back(item.fullpath);
            return 1;
        }
        return op_(item);
    }

private:
    Op& op_;
    std::vector<std::string>& unreadable_;
};

void walk(CatalogShadowContext& context, const std::string& root, bool app, bool shadow, DirTypeSet& found,
          std::vector<std::string>& unreadable) {
    if (root.empty()) return;
    switch (dct::probe_readable(root)) {
        case dct::path_state::missing: return;
        case dct::path_state::denied: unreadable.push_back(root); return;
        case dct::path_state::present: break;
    }
    if (!wa_isdir(root)) return;
    OpCollect op(context, app, shadow, found);
    OpFilterDSID<OpCollect> filter(app, op);
    OpNoteUnreadable<OpFilterDSID<OpCollect>> note(filter, unreadable);
    TraverseDir(root, note, true, 0);
}

// Target for a directory of the real tree; false when it lies below neither root.
bool make_target(CatalogShadowContext& context, const std::string& dir, const std::string& type, Target* t) {
    t->dir = dir;
    t->type = type;
    t->db_path = dct::pool_layout::db_file_in(dir, type);
    t->shadow_dir = context.real_to_shadow_path(dir);
    return !t->shadow_dir.empty();  // else logged by real_to_shadow_path
}

}  // namespace

std::vector<Target> find_all_databases(CatalogShadowContext& context, std::vector<std::string>* unreadable) {
    DirTypeSet found;
    std::vector<std::string> denied;
    for (bool app : {false, true}) {
        walk(context, app ? context.proxy->app_db_root : context.proxy->get_podb_root(), app, false, found, denied);
        walk(context, context.shadow_path, app, true, found, denied);
    }
    // Each walk may meet the same directory (the shadow root is walked twice).
    std::sort(denied.begin(), denied.end());
    denied.erase(std::unique(denied.begin(), denied.end()), denied.end());
    if (unreadable != nullptr) *unreadable = denied;
    std::vector<Target> targets;
    for (const auto& entry : found) {
        Target t;
        if (make_target(context, entry.first, entry.second, &t)) targets.push_back(t);
    }
    return targets;
}

cr_status_t find_databases_in(CatalogShadowContext& context, const std::string& dir_in,
                              std::vector<Target>* targets) {
    std::string dir = dir_in;
    if (dir.size() > 1 && dir[dir.size() - 1] == '/') dir.erase(dir.size() - 1);
    targets->clear();
    // Below a root, or the PO/UL root itself (which holds its databases).
    const std::string& po_root = context.proxy->get_podb_root();
    const dct::pool_layout::real_tree tree =
        dir == po_root ? dct::pool_layout::real_tree::po
                       : dct::pool_layout::tree_of(dir, po_root + "/", context.proxy->app_db_root + "/");
    const bool app = tree == dct::pool_layout::real_tree::application;
    // Below the application root, only DSID/CLIENT/POLICY holds a database.
    dct::pool_layout::catalog_dir_parts parts;
    if (tree == dct::pool_layout::real_tree::none ||
        (app && dct::pool_layout::split_catalog_dir(dir, &parts) != dct::pool_layout::catalog_dir_error::none)) {
        ErrorA(CR_STATUS_FAILED, "%s: %s is not a catalog database directory", "find_databases_in", dir.c_str());
        return CR_STATUS_FAILED;
    }
    for (const std::string& type : types_of(app)) {
        Target t;
        if (!make_target(context, dir, type, &t)) return CR_STATUS_FAILED;
        if (dct::probe_readable(t.db_path) != dct::path_state::missing || shadow_lists_versions(t.shadow_dir, type)) {
            targets->push_back(t);
        }
    }
    return CR_STATUS_OK;
}

bool has_live_file(const Target& t) { return wa_access(t.db_path, 0) == 0; }

}  // namespace kshadow
