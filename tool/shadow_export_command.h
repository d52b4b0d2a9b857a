// The bodies of `kavrel-shadow export DIR` and `kavrel-shadow verify --export
// DIR`: they run the export or its check and print what they did in the
// command's output form. Each returns the exit status; for kExitCannotRun
// `why` receives the one line that says why.
#ifndef TOOL_SHADOW_EXPORT_COMMAND_H_
#define TOOL_SHADOW_EXPORT_COMMAND_H_

#include <string>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "offsite/shadow_export.h"
#include "tool/shadow_report.h"

namespace kshadow {

// Exports the pool of `context` (started) into `dir`.
int run_export(CatalogShadowContext& context, const std::string& dir, Output output, std::string* why);

// The block of a database of a checked export: verify's, the manifest's line for the live file's.
std::string verified_block(const ExportedDatabase& db, const DatabaseReport& report);

// Checks the export in `dir`; needs no configuration of a pool.
int run_verify_export(const std::string& dir, Output output, std::string* why);

}  // namespace kshadow

#endif  // TOOL_SHADOW_EXPORT_COMMAND_H_
