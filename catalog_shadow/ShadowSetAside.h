// ShadowSetAside: the directory-walk functors that set a type's files aside
// into a "#corrupt_" directory (PODBShadow::move_all_as_backup, and the
// recovery that sets the real database's SQLite journals aside).
//
// Nothing is ever deleted: a name already taken in the target gets a ".N"
// suffix. Not locked: the caller holds the shadow's mutex and directory lock.
#ifndef CATALOG_SHADOW_SHADOWSETASIDE_H_
#define CATALOG_SHADOW_SHADOWSETASIDE_H_

#include <string>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"
#include "dct/fileutil.h"

// Walk functor of move_all_as_backup: moves every file offered to it into
// `target_dir` (under the same name, or with a ".N" suffix when that name is
// taken). Traces "Move %s to %s"; a failed move is logged and stops the walk.
class OpMoveFile {
public:
    explicit OpMoveFile(const std::string& target_dir) : target_dir_(target_dir) {}
    int operator()(const DirItem& item);

private:
    std::string target_dir_;
};

// Walk filter: offers to `op` only the regular files of one type (see
// PODBShadow::is_type_file); never descends.
template <typename Op>
class OpFilterShadowType {
public:
    OpFilterShadowType(const std::string& type, Op& op) : type_(type), op_(op) {}
    int operator()(const DirItem& item) {
        if (item.is_dir || item.stat_failed) return 1;
        if (!PODBShadow::is_type_file(item.name, type_)) return 1;
        int rc = op_(item);
        return rc < 0 ? rc : 1;
    }

private:
    std::string type_;
    Op& op_;
};

#endif  // CATALOG_SHADOW_SHADOWSETASIDE_H_
