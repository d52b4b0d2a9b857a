#include "tool/shadow_inventory.h"

#include <set>
#include <utility>

#include "catalog_shadow/CatalogShadowOps.h"
#include "dct/fileutil.h"
#include "dct/fs.h"
#include "dct/log.h"

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
    if (wa_access(shadow_dir + "/" + PODBShadow::chksum_file(type), 0) != 0) return false;
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
                try {
                    found_.insert(std::make_pair(context_.shadow_to_real_path(item.dir, type), type));
                } catch (const char* e) {
                    ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "find_all_databases", e);
                }
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

void walk(CatalogShadowContext& context, const std::string& root, bool app, bool shadow, DirTypeSet& found) {
    if (root.empty() || !wa_isdir(root)) return;
    OpCollect op(context, app, shadow, found);
    OpFilterDSID<OpCollect> filter(app, op);
    TraverseDir(root, filter, true, 0);
}

bool starts_with(const std::string& text, const std::string& prefix) {
    return !prefix.empty() && text.compare(0, prefix.size(), prefix) == 0;
}

// Target for a directory of the real tree; false when it lies below neither root.
bool make_target(CatalogShadowContext& context, const std::string& dir, const std::string& type, Target* t) {
    t->dir = dir;
    t->type = type;
    t->db_path = dir + "/" + PODBShadow::db_file_name(type);
    try {
        t->shadow_dir = context.real_to_shadow_path(dir);
    } catch (const char*) {
        return false;  // logged by real_to_shadow_path
    }
    return true;
}

}  // namespace

std::vector<Target> find_all_databases(CatalogShadowContext& context) {
    DirTypeSet found;
    for (bool app : {false, true}) {
        walk(context, app ? context.proxy->app_db_root : context.proxy->get_podb_root(), app, false, found);
        walk(context, context.shadow_path, app, true, found);
    }
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
    bool app = false;
    if (starts_with(dir, context.proxy->app_db_root + "/")) {
        app = true;
    } else if (!starts_with(dir, context.proxy->get_podb_root() + "/") && dir != context.proxy->get_podb_root()) {
        ErrorA(CR_STATUS_FAILED, "%s: %s is not a catalog database directory", "find_databases_in", dir.c_str());
        return CR_STATUS_FAILED;
    }
    for (const std::string& type : types_of(app)) {
        Target t;
        if (!make_target(context, dir, type, &t)) return CR_STATUS_FAILED;
        if (wa_access(t.db_path, 0) == 0 || shadow_lists_versions(t.shadow_dir, type)) targets->push_back(t);
    }
    return CR_STATUS_OK;
}

}  // namespace kshadow
