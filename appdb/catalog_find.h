// catalog_find: the search of kavrel-find over every catalog of a pool.
//
// Walks the database tree as the listing does, picks the catalog directories
// whose data store, client and policy the search names (before anything is
// opened), and runs one SELECT per database that applies every other filter
// inside SQLite, through the catalog library: directory lock, kept
// statements, the row checksum of every row, the access rule as
// administrator. A database that cannot be read is logged, handed to the
// receiver as skipped, and the search goes on. The items of a catalog count
// only once the whole catalog has read.
//
// The front end renders: each item becomes one line through the receiver.
// Lines stream to the output catalog by catalog (at most a fixed amount of
// memory per catalog, the rest in a temporary file), or, when they must be
// ordered across the pool, wait in a private temporary SQLite database whose
// sorter spills to disk, so the memory does not grow with the pool.
#ifndef APPDB_CATALOG_FIND_H_
#define APPDB_CATALOG_FIND_H_

#include <stdint.h>
#include <stdio.h>

#include <string>

#include "appdb/app_catalog_item.h"
#include "appdb/catalog_fields.h"
#include "appdb/catalog_filter.h"
#include "dct/status.h"

namespace appdb {

// What a search returns per catalog.
enum class find_result { items, count, summary };

// The key items are ordered by: none (the order they were found in), the
// data store id, or a field (texts by their bytes, everything else by its
// number).
struct find_sort_key {
    enum kind_t { none, dsid, by_field } kind = none;
    const catalog_field* field = nullptr;  // for by_field
};

struct find_request {
    bool by_dsid = false;
    uint32_t dsid = 0;
    bool by_client = false;
    std::string client;  // GLOB on the client directory
    bool by_policy = false;
    std::string policy;  // GLOB on the policy directory
    catalog_filter filter;
    find_result result = find_result::items;
    // Items in order across the pool: `sort` by `key`, and/or only the
    // last `limit`. Without either they stream in the order found.
    bool sort = false;
    find_sort_key key;
    bool descending = false;
    bool first = false;  // only the first `limit` items
    bool last = false;   // only the last `limit` items
    uint64_t limit = 0;
};

// The --summary row of one catalog.
struct find_summary {
    uint32_t dsid = 0;
    std::string client;
    std::string policy;
    uint64_t items = 0;
    uint64_t file_len = 0;
    int64_t oldest = 0;  // backup start times (when items > 0)
    int64_t newest = 0;
    bool has_expiry = false;  // an expiry time was set (not 0)
    int64_t earliest_expiry = 0;

    // Counts one item in.
    void add(const app_catalog_item& item);
};

// Why a directory or database was skipped.
enum class find_skip {
    directory,     // a directory that cannot be read (errno in `error`)
    not_readable,  // a database file this user may not read
    unreadable,    // a database that could not be read (its status)
};

// What the front end supplies: the rendering of an item, the output of a
// summary row, and word of what was skipped.
class find_receiver {
public:
    virtual ~find_receiver();
    // The search can run: called once, before any line or row.
    virtual void begin() = 0;
    // `line` becomes the item's text, ended by a newline.
    virtual void render(std::string* line, uint32_t dsid, const app_catalog_item& item) = 0;
    // A catalog's summary row (catalogs without a matching item have none).
    virtual void summary(const find_summary& row) = 0;
    // Something skipped; `status` is the database's status, `error` the errno
    // of a directory.
    virtual void skipped(find_skip why, const std::string& path, cr_status_t status, int error) = 0;
};

// Why a search stopped short.
enum class find_stop {
    none,
    no_ordering,  // the temporary database for ordering could not be made
    incomplete,   // the search could not be completed (ordering failed, no memory)
};

struct find_totals {
    uint64_t matched = 0;  // items of catalogs read whole
    unsigned skipped = 0;  // databases and directories that could not be read
    find_stop stop = find_stop::none;
    bool output_failed = false;  // lines could not be written to the output (logged)
};

// Searches every catalog below the database root `root` (without a
// trailing "/"), writing item lines to `out` (nothing for find_result::count
// and summary, whose rows go to the receiver). 0 when the search ran through
// (skipped parts counted in totals->skipped); CR_STATUS_FAILED with
// totals->stop set when it stopped short (logged).
cr_status_t find_in_pool(const std::string& root, const find_request& request, find_receiver& receiver, FILE* out,
                         find_totals* totals);

}  // namespace appdb

#endif  // APPDB_CATALOG_FIND_H_
