// Which restic repository is the pool's. A repository is made only by
// `offsite init`, never by a push: a repository that is gone (an unmounted
// disk, a wrong mount) must stop the offsite commands, not be made anew with
// the history split and nobody told.
//
// The pool remembers its repository's id (restic's `cat config`) in
// SHADOW/.offsite_repository_id (one line, the id; written atomically,
// private). init writes it; a push or restore of a pool that remembers none
// yet (a pool from before the file, a new server) takes the id of the
// repository it reaches, which must be there. A restore of the shadow root
// writes it again, since it restored from that very repository. Push, check
// and restore refuse a repository that is not there, or whose id is not the
// one remembered, before they change anything. `offsite init` itself is
// init_repository (offsite/offsite.h).
#ifndef OFFSITE_REPOSITORY_ID_H_
#define OFFSITE_REPOSITORY_ID_H_

#include <string>

#include "dct/status.h"
#include "offsite/restic.h"

namespace koffsite {

// The file name below the shadow root.
extern const char* const kRepositoryIdFile;

std::string repository_id_path(const std::string& shadow_root);

// The id the pool remembers: 0 with `id` set; 2 when none is remembered;
// 106 when it may not be read; 67 when the file holds no id (logged).
cr_status_t remembered_repository_id(const std::string& shadow_root, std::string* id);

// Remembers `id` (the shadow root must exist). 0, or the status with `why`
// set (logged).
cr_status_t remember_repository_id(const std::string& shadow_root, const std::string& id, std::string* why);

// The id of the repository `restic` reaches. 0 with `id` set; 2 when no
// repository is there; 4 when restic fails otherwise (a wrong password, a
// backend out of reach) or gives no id. `reason` says why (logged).
cr_status_t repository_id(const Restic& restic, std::string* id, std::string* reason);

// Checks, before anything is changed, that the repository of `restic` is the
// one of the pool whose shadow root is `shadow_root`: there, and with the id
// the pool remembers when it remembers one. 0 with `id` set and `remembered`
// telling whether the pool remembered it; otherwise the failing status and
// one line in `reason` (logged): 2 no repository, 67 another repository's
// id, or repository_id's status.
cr_status_t check_repository(const Restic& restic, const std::string& shadow_root, std::string* id,
                             bool* remembered, std::string* reason);

}  // namespace koffsite

#endif  // OFFSITE_REPOSITORY_ID_H_
