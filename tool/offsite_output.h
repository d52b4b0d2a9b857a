// What the offsite commands' printing shares: the output in the chosen
// form, and the commands beside run_offsite.
#ifndef TOOL_OFFSITE_OUTPUT_H_
#define TOOL_OFFSITE_OUTPUT_H_

#include <string>

#include "offsite/json_text.h"
#include "offsite/offsite.h"
#include "tool/offsite_command.h"

namespace koffsite {

// The output of one offsite command: text lines as they come, or one JSON
// document ({"schema":1,"command":..., ITEMS: [...], "summary": {...}}), or
// one JSON line per item and a last one with the summary.
class Output {
public:
    Output(const OffsiteOptions& options, const std::string& command, const std::string& items);
    void text(const std::string& line);   // text output only, newline added
    void item(const ktool::json& value);  // JSON item
    // Prints the summary (and the document) and returns `exit_code`.
    int finish(ktool::json summary, int exit_code);
    // "kavrel-shadow: COMMAND: WHY" on standard error, then the summary
    // {"error": WHY}; returns 1.
    int fail(const std::string& command, const std::string& why);

private:
    const OffsiteOptions& options_;
    std::string command_;
    std::string items_name_;
    ktool::json items_;
};

// "kavrel-shadow: WHAT" on standard error.
void complain(const std::string& what);

int run_snapshots(const Restic& restic, const std::string& pool, const OffsiteOptions& options);
int run_forget(const Restic& restic, const std::string& pool, const OffsiteOptions& options);
int run_restore(CatalogShadowContext& context, const Restic& restic, const std::string& pool,
                const OffsiteOptions& options);

}  // namespace koffsite

#endif  // TOOL_OFFSITE_OUTPUT_H_
