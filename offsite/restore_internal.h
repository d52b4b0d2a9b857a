// What the parts of the off-site restore share inside the library; not
// installed (the *_internal.h headers are the library's own).
#ifndef OFFSITE_RESTORE_INTERNAL_H_
#define OFFSITE_RESTORE_INTERNAL_H_

#include <string>

#include "offsite/shadow_export.h"

namespace koffsite {

// Moves the files of `type` in the shadow directory `dir` into
// "#corrupt_TYPE_SECONDS" (never deleted); the directory's name, "" when
// there was nothing to move, or "" with `why` set.
std::string set_aside(const std::string& dir, const std::string& type, std::string* why);

// Places the export's files of one database (in `from`) into its shadow
// directory `to`, the checksum file last so that a crash leaves no file
// counting what is absent. False with `why` set.
bool place_files(const std::string& from, const std::string& to, const kshadow::ExportedDatabase& db,
                 std::string* why);

}  // namespace koffsite

#endif  // OFFSITE_RESTORE_INTERNAL_H_
