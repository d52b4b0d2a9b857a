// How kavrel-find prints what the search (appdb/catalog_find.h) finds: an
// item or a summary row as a line, a CSV row, a JSON line or a --format
// template, and the parts it skipped on standard error.
#ifndef TOOL_KAVREL_FIND_RENDER_H_
#define TOOL_KAVREL_FIND_RENDER_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "appdb/catalog_find.h"
#include "tool/kavrel_find_options.h"

namespace kfind {

extern const char kProgram[];  // "kavrel-find"

class find_printer : public appdb::find_receiver {
public:
    explicit find_printer(const options& o);
    // The first line of the output: the CSV header of items or summary rows
    // (nothing for every other form).
    void begin() override;
    void render(std::string* line, uint32_t dsid, const appdb::app_catalog_item& item) override;
    // Written to standard output.
    void summary(const appdb::find_summary& row) override;
    // "kavrel-find: skipped PATH: WHY" on standard error.
    void skipped(appdb::find_skip why, const std::string& path, cr_status_t status, int error) override;

private:
    struct piece {
        std::string literal;
        const item_column* column;  // null for a literal
    };
    const options& options_;
    std::vector<piece> pieces_;
    std::string cell_;
};

}  // namespace kfind

#endif  // TOOL_KAVREL_FIND_RENDER_H_
