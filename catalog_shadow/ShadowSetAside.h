// ShadowSetAside: setting damaged material aside into a "#corrupt_"
// directory. ShadowSetAside.cpp holds the whole of it: this move of one file,
// and PODBShadow's new_backup_dir, move_file_as_backup and move_all_as_backup
// built on it; the recovery uses the move for the real database's SQLite
// journals.
//
// Nothing is ever deleted: a name already taken in the target gets a ".N"
// suffix. Not locked: the caller holds the shadow's mutex and directory lock.
#ifndef CATALOG_SHADOW_SHADOWSETASIDE_H_
#define CATALOG_SHADOW_SHADOWSETASIDE_H_

#include <string>

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

#endif  // CATALOG_SHADOW_SHADOWSETASIDE_H_
