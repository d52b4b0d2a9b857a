// kavrel-find's command line: the options, the times they take, and the
// output columns a search can print, sort by or place in a template.
#ifndef TOOL_KAVREL_FIND_OPTIONS_H_
#define TOOL_KAVREL_FIND_OPTIONS_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "appdb/app_catalog_item.h"
#include "appdb/catalog_fields.h"
#include "appdb/catalog_filter.h"
#include "dct/time_text.h"

namespace kfind {

enum class output_form { line, json_lines, csv, format };
enum class result_kind { items, count, summary };

struct options {
    std::string registry;
    std::string dbpath;
    bool by_dsid = false;
    uint32_t dsid = 0;
    bool by_client = false;
    std::string client;  // GLOB on the client directory
    bool by_policy = false;
    std::string policy;  // GLOB on the policy directory
    appdb::catalog_filter filter;
    output_form form = output_form::line;
    std::string format;  // the template of --format
    bool sort = false;
    std::string sort_field;
    bool sort_descending = false;
    bool first = false;
    bool last = false;
    uint64_t limit = 0;  // N of --first / --last
    result_kind result = result_kind::items;
    bool help = false;
};

// A TIME of the options (dct/time_text.h).
using dct::parse_time;

// Parses the arguments (without the program name). False with `error` set
// on a usage error. `now` anchors relative times.
bool parse_args(const std::vector<std::string>& args, int64_t now, options* o, std::string* error);

// The usage text.
extern const char kUsage[];

// One output column of an item: the data store id, a field of the item (in
// the field table's order), or the ISO 8601 UTC twin of a time field, named
// after the field with "_utc" appended. The JSON keys, the CSV header, the
// --format placeholders and the --sort fields are these names.
enum class column_kind { dsid, field, utc };
struct item_column {
    column_kind kind;
    std::string name;
    const appdb::catalog_field* field;  // null for dsid
};
const std::vector<item_column>& item_columns();
const item_column* item_column_named(const std::string& name);

// The columns of a --summary row, in output order.
extern const char* const kSummaryColumns[];
extern const size_t kSummaryColumnCount;

}  // namespace kfind

#endif  // TOOL_KAVREL_FIND_OPTIONS_H_
