// kavrel-find: searches the application catalog of a storage pool.
//
// Walks the database tree as kavrel does, picks the catalog directories
// whose data store, client and policy the search names (before anything is
// opened), and runs one SELECT per database that applies every other filter
// inside SQLite, through the catalog library: directory lock, kept
// statements, the row checksum of every row, the access rule as
// administrator. A database that cannot be read is reported and skipped, and
// the search goes on.
//
// Exit status: 0 all read, 1 some databases skipped, 2 usage, 3 could not run.
#include <errno.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "appdb/catalog_application_base.h"
#include "appdb/catalog_list.h"
#include "appdb/kavrel_config.h"
#include "dct/pool_layout.h"
#include "dct/fileutil.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/spill_buffer.h"
#include "dct/status.h"
#include "sqlitedb/connection.h"
#include "tool/json_text.h"
#include "tool/kavrel_find_options.h"

namespace {

using namespace kfind;
using ktool::json;

const int kExitOk = 0;
const int kExitSkipped = 1;
const int kExitUsage = 2;
const int kExitCannotRun = 3;

const char kProgram[] = "kavrel-find";

// For a message that refers people to the log: where its records went.
std::string where_logged() { return "log records went to " + dct::log_destination(); }

// Testing knob: the time relative TIMEs count from, in seconds since the
// epoch (anything else: the clock).
const char kNowEnv[] = "KAVREL_FIND_NOW";

// A catalog's rendered items held in memory before they go to a temporary
// file, and the allocator settings kavrel uses for the same walk.
const size_t kCatalogBufferBytes = 1u << 20;
const int kMmapThreshold = 16 << 20;
const int kTrimThreshold = 32 << 20;

int64_t now_seconds() {
    const char* text = getenv(kNowEnv);
    if (text != nullptr && *text != '\0') {
        char* end = nullptr;
        errno = 0;
        const long long v = strtoll(text, &end, 10);
        if (errno == 0 && *end == '\0') return v;
    }
    return static_cast<int64_t>(time(nullptr));
}

// ---- one row as text ----

// The text of one column of an item, as CSV cells, --format and the sort
// take it: numbers in decimal (times signed), text as stored, the "_utc"
// twins in ISO 8601.
void append_cell(std::string& out, const item_column& c, uint32_t dsid,
                 const appdb::app_catalog_item& item) {
    if (c.kind == column_kind::dsid) {
        out += std::to_string(dsid);
        return;
    }
    const appdb::catalog_field& f = *c.field;
    if (c.kind == column_kind::utc) {
        out += ktool::iso8601_utc(item.*f.i64);
        return;
    }
    switch (f.kind) {
        case appdb::field_kind::u32:
        case appdb::field_kind::role: out += std::to_string(item.*f.u32); break;
        case appdb::field_kind::u64: out += std::to_string(item.*f.u64); break;
        case appdb::field_kind::time: out += std::to_string(item.*f.i64); break;
        case appdb::field_kind::text: out += item.*f.text; break;
    }
}

json item_json(uint32_t dsid, const appdb::app_catalog_item& item) {
    json o = json::object();
    for (const item_column& c : item_columns()) {
        if (c.kind == column_kind::dsid) {
            o[c.name] = dsid;
            continue;
        }
        const appdb::catalog_field& f = *c.field;
        if (c.kind == column_kind::utc) {
            o[c.name] = ktool::iso8601_utc(item.*f.i64);
            continue;
        }
        switch (f.kind) {
            case appdb::field_kind::u32:
            case appdb::field_kind::role: o[c.name] = item.*f.u32; break;
            case appdb::field_kind::u64: o[c.name] = item.*f.u64; break;
            case appdb::field_kind::time: o[c.name] = item.*f.i64; break;
            case appdb::field_kind::text: o[c.name] = ktool::json_text(item.*f.text); break;
        }
    }
    return o;
}

// RFC 4180: a cell holding a comma, a quote or a line break is quoted, its
// quotes doubled.
void append_csv_cell(std::string& out, const std::string& cell) {
    if (cell.find_first_of(",\"\r\n") == std::string::npos) {
        out += cell;
        return;
    }
    out += '"';
    for (char ch : cell) {
        if (ch == '"') out += '"';
        out += ch;
    }
    out += '"';
}

// A --format template cut into literal text and placeholders.
struct template_piece {
    std::string literal;
    std::string field;  // empty for a literal
};

std::vector<template_piece> compile_template(const std::string& t) {
    std::vector<template_piece> pieces;
    std::string literal;
    for (size_t i = 0; i < t.size(); ++i) {
        if ((t[i] == '{' || t[i] == '}') && i + 1 < t.size() && t[i + 1] == t[i]) {
            literal += t[i++];
        } else if (t[i] == '{') {
            const size_t close = t.find('}', i);  // checked when the options were read
            if (!literal.empty()) pieces.push_back(template_piece{literal, ""});
            literal.clear();
            pieces.push_back(template_piece{"", t.substr(i + 1, close - i - 1)});
            i = close;
        } else {
            literal += t[i];
        }
    }
    if (!literal.empty()) pieces.push_back(template_piece{literal, ""});
    return pieces;
}

// Renders items in the chosen form, one line each.
class item_renderer {
public:
    explicit item_renderer(const options& o) : form_(o.form) {
        if (form_ == output_form::format) {
            for (const template_piece& p : compile_template(o.format)) {
                pieces_.push_back(piece{p.literal, p.field.empty() ? nullptr : item_column_named(p.field)});
            }
        }
    }

    std::string header() const {
        if (form_ != output_form::csv) return std::string();
        std::string h;
        for (const item_column& c : item_columns()) {
            if (!h.empty()) h += ',';
            h += c.name;
        }
        return h + "\n";
    }

    void render(std::string& out, uint32_t dsid, const appdb::app_catalog_item& item) {
        out.clear();
        switch (form_) {
            case output_form::line:
                out = item.to_string();
                break;
            case output_form::json_lines:
                out = ktool::json_line(item_json(dsid, item));
                break;
            case output_form::csv:
                for (const item_column& c : item_columns()) {
                    if (c.kind != column_kind::dsid) out += ',';
                    cell_.clear();
                    append_cell(cell_, c, dsid, item);
                    append_csv_cell(out, cell_);
                }
                break;
            case output_form::format:
                for (const piece& p : pieces_) {
                    if (p.column == nullptr) {
                        out += p.literal;
                    } else {
                        append_cell(out, *p.column, dsid, item);
                    }
                }
                break;
        }
        out += '\n';
    }

private:
    struct piece {
        std::string literal;
        const item_column* column;
    };
    output_form form_;
    std::vector<piece> pieces_;
    std::string cell_;
};

// ---- summary rows ----

struct summary_row {
    uint32_t dsid = 0;
    std::string client;
    std::string policy;
    uint64_t items = 0;
    uint64_t file_len = 0;
    int64_t oldest = 0;
    int64_t newest = 0;
    bool has_expiry = false;
    int64_t earliest_expiry = 0;

    void add(const appdb::app_catalog_item& item) {
        if (items == 0 || item.backup_start_time < oldest) oldest = item.backup_start_time;
        if (items == 0 || item.backup_start_time > newest) newest = item.backup_start_time;
        ++items;
        file_len += item.file_len;
        // An expiry of 0 was never set.
        for (int64_t e : {item.app_expire_time, item.orvo_expire_time}) {
            if (e > 0 && (!has_expiry || e < earliest_expiry)) {
                has_expiry = true;
                earliest_expiry = e;
            }
        }
    }

    // The value of kSummaryColumns[k]: null where there is none (no item,
    // no expiry).
    json value(size_t k) const {
        const bool any = items > 0;
        switch (k) {
            case 0: return dsid;
            case 1: return ktool::json_text(client);
            case 2: return ktool::json_text(policy);
            case 3: return items;
            case 4: return file_len;
            case 5: return any ? json(oldest) : json();
            case 6: return any ? json(ktool::iso8601_utc(oldest)) : json();
            case 7: return any ? json(newest) : json();
            case 8: return any ? json(ktool::iso8601_utc(newest)) : json();
            case 9: return has_expiry ? json(earliest_expiry) : json();
            case 10: return has_expiry ? json(ktool::iso8601_utc(earliest_expiry)) : json();
        }
        return json();
    }
    // As text: numbers in decimal, texts as they are, null as nothing.
    std::string cell(size_t k) const {
        if (k == 1) return client;
        if (k == 2) return policy;
        const json v = value(k);
        if (v.is_null()) return std::string();
        if (v.is_string()) return v.get<std::string>();
        return v.dump();
    }
};

size_t summary_index(const std::string& name) {
    for (size_t k = 0; k < kSummaryColumnCount; ++k) {
        if (name == kSummaryColumns[k]) return k;
    }
    return 0;  // checked when the options were read
}

std::string summary_header(const options& o) {
    if (o.form != output_form::csv) return std::string();
    std::string h;
    for (size_t k = 0; k < kSummaryColumnCount; ++k) {
        if (k != 0) h += ',';
        h += kSummaryColumns[k];
    }
    return h + "\n";
}

std::string render_summary(const options& o, const summary_row& row) {
    std::string out;
    switch (o.form) {
        case output_form::line:
            // Like an item's line: every value followed by "|".
            for (size_t k = 0; k < kSummaryColumnCount; ++k) {
                if (k == 6 || k == 8 || k == 10) continue;  // the "_utc" twins: not in the line
                out += row.cell(k);
                out += '|';
            }
            break;
        case output_form::json_lines: {
            json j = json::object();
            for (size_t k = 0; k < kSummaryColumnCount; ++k) j[kSummaryColumns[k]] = row.value(k);
            out = ktool::json_line(j);
            break;
        }
        case output_form::csv:
            for (size_t k = 0; k < kSummaryColumnCount; ++k) {
                if (k != 0) out += ',';
                append_csv_cell(out, row.cell(k));
            }
            break;
        case output_form::format:
            for (const template_piece& p : compile_template(o.format)) {
                out += p.field.empty() ? p.literal : row.cell(summary_index(p.field));
            }
            break;
    }
    return out + "\n";
}

// ---- ordered results ----

// Items that must be ordered across the pool (--sort, --last) wait in a
// private temporary SQLite database: its file has no name, SQLite's sorter
// spills to disk, so the memory does not grow with the pool. Each catalog's
// rows go in under a savepoint, released when the catalog has read whole and
// rolled back when it has not.
class ordered_store {
public:
    bool open() {
        if (db_.open("", sqlitedb::open_mode::create) != CR_STATUS_OK) return fail("open");
        if (!exec("PRAGMA cache_size=-4096; PRAGMA temp_store=FILE; "
                  "CREATE TABLE item(k, line BLOB); BEGIN;")) {
            return false;
        }
        // Kept by the connection: prepared once for every line added.
        sqlitedb::statement once;
        insert_ = db_.kept("INSERT INTO item VALUES(?, ?)", &once);
        if (!insert_) return fail("prepare");
        return true;
    }

    bool begin_catalog() { return exec("SAVEPOINT catalog;"); }
    bool end_catalog(bool keep) {
        return keep ? exec("RELEASE catalog;") : exec("ROLLBACK TO catalog; RELEASE catalog;");
    }

    // Adds a line with its sort key (an integer, a text, or none).
    bool add(const std::string* text_key, const int64_t* number_key, const std::string& line) {
        sqlitedb::statement_ref s = insert_;
        if (text_key != nullptr) {
            s.bind_blob(1, *text_key);
        } else if (number_key != nullptr) {
            s.bind_int64(1, *number_key);
        } else {
            s.bind_null(1);
        }
        s.bind_blob(2, line);
        const int rc = s.step();
        s.reset();
        return rc == SQLITE_DONE || fail("insert");
    }

    // Writes the lines in order: all of them, the first `limit` (first) or
    // the last `limit` (last).
    bool write(FILE* out, bool descending, bool first, bool last, uint64_t limit) {
        const std::string dir = descending ? "DESC" : "ASC";
        const std::string rev = descending ? "ASC" : "DESC";
        std::string sql;
        if (last) {
            sql = "SELECT line FROM (SELECT rowid AS seq, k, line FROM item ORDER BY k " + rev +
                  ", seq DESC LIMIT ?) ORDER BY k " + dir + ", seq ASC";
        } else {
            sql = "SELECT line FROM item ORDER BY k " + dir + ", rowid ASC";
            if (first) sql += " LIMIT ?";
        }
        sqlitedb::statement select;
        if (db_.prepare(sql.c_str(), &select) != CR_STATUS_OK) return fail("prepare");
        sqlitedb::statement_ref s = select.ref();
        if (first || last) s.bind_int64(1, static_cast<int64_t>(limit > INT64_MAX ? INT64_MAX : limit));
        int rc;
        while ((rc = s.step()) == SQLITE_ROW) {
            const std::string_view line = s.column_blob(0);
            fwrite(line.data(), 1, line.size(), out);
        }
        return rc == SQLITE_DONE || fail("read");
    }

private:
    bool exec(const char* sql) {
        return db_.exec(sql) == CR_STATUS_OK || fail(sql);
    }
    bool fail(const char* what) {
        ErrorA(CR_STATUS_FAILED, "%s: the temporary database for ordering failed at %s (%s)", kProgram,
               what, message());
        return false;
    }

    // SQLite's word for the last failure; "no memory" when not even a
    // connection could be had.
    const char* message() const {
        if (db_.is_open()) return db_.errmsg();
        return db_.code() == SQLITE_NOMEM ? "no memory" : sqlitedb::errstr(db_.code());
    }

    sqlitedb::connection db_;
    sqlitedb::statement_ref insert_;  // kept by db_
};

// ---- the search ----

// What the copies of the walk functor share.
struct search_state {
    explicit search_state(const options& o)
        : opts(o), renderer(o), buffer(kCatalogBufferBytes),
          statement(appdb::make_filter_statement(o.filter)),
          sort_column(o.sort ? item_column_named(o.sort_field) : nullptr) {}

    const options& opts;
    item_renderer renderer;
    dct::spill_buffer buffer;
    appdb::catalog_filter_statement statement;
    const item_column* sort_column;
    std::unique_ptr<ordered_store> ordered;
    uint64_t printed = 0;   // items written (streamed output)
    uint64_t matched = 0;   // items of catalogs read whole
    unsigned skipped = 0;   // databases and directories that could not be read
    bool done = false;      // --first reached: the walk ends
    bool failed = false;    // the ordering store failed: cannot run
};

// Receives the items of one catalog; what it keeps is committed only when
// the whole catalog has read.
class find_sink : public appdb::catalog_item_sink {
public:
    find_sink(search_state& s, const catalog_dir& dir) : s_(s), dir_(dir) {
        summary_.dsid = dir.dsid;
        summary_.client = dir.client;
        summary_.policy = dir.policy;
    }

    void restart() override {
        count_ = 0;
        kept_ = 0;
        summary_.items = 0;
        summary_.file_len = 0;
        summary_.has_expiry = false;
        if (s_.ordered) {
            if (begun_) s_.ordered->end_catalog(false);
            begun_ = s_.ordered->begin_catalog();
            if (!begun_) s_.failed = true;
        } else {
            s_.buffer.clear();
        }
    }

    cr_status_t take(appdb::app_catalog_item& item) override {
        ++count_;
        switch (s_.opts.result) {
            case result_kind::count: return CR_STATUS_OK;
            case result_kind::summary: summary_.add(item); return CR_STATUS_OK;
            case result_kind::items: break;
        }
        if (s_.ordered) {
            s_.renderer.render(line_, dir_.dsid, item);
            const item_column* c = s_.sort_column;
            bool ok;
            if (c == nullptr) {
                ok = s_.ordered->add(nullptr, nullptr, line_);
            } else if (c->kind == column_kind::dsid) {
                const int64_t k = dir_.dsid;
                ok = s_.ordered->add(nullptr, &k, line_);
            } else if (c->kind == column_kind::field && c->field->is_text()) {
                ok = s_.ordered->add(&(item.*(c->field->text)), nullptr, line_);
            } else {
                // Numbers, times and their "_utc" twins order by the number.
                const int64_t k = c->field->kind == appdb::field_kind::u32 ||
                                          c->field->kind == appdb::field_kind::role
                                      ? static_cast<int64_t>(item.*(c->field->u32))
                                      : c->field->bound_number(item);
                ok = s_.ordered->add(nullptr, &k, line_);
            }
            if (!ok) {
                s_.failed = true;
                return CR_STATUS_FAILED;
            }
            return CR_STATUS_OK;
        }
        // Streamed: past --first's count nothing more is rendered.
        if (s_.opts.first && s_.printed + kept_ >= s_.opts.limit) return CR_STATUS_OK;
        s_.renderer.render(line_, dir_.dsid, item);
        ++kept_;
        return s_.buffer.append(line_.data(), line_.size());
    }

    // The catalog read whole: its items count and go out.
    void commit() {
        s_.matched += count_;
        if (s_.opts.result == result_kind::summary) {
            // A catalog without a matching item has no row.
            if (summary_.items == 0) return;
            const std::string row = render_summary(s_.opts, summary_);
            fwrite(row.data(), 1, row.size(), stdout);
        } else if (s_.opts.result == result_kind::items) {
            if (s_.ordered) {
                if (begun_ && !s_.ordered->end_catalog(true)) s_.failed = true;
                begun_ = false;
            } else {
                s_.buffer.write_to(stdout);
                s_.printed += kept_;
                if (s_.opts.first && s_.printed >= s_.opts.limit) s_.done = true;
            }
        }
    }
    // The catalog could not be read: nothing of it stays.
    void discard() {
        if (s_.ordered) {
            if (begun_) s_.ordered->end_catalog(false);
            begun_ = false;
        } else {
            s_.buffer.clear();
        }
    }

private:
    search_state& s_;
    const catalog_dir& dir_;
    summary_row summary_;
    std::string line_;
    uint64_t count_ = 0;
    uint64_t kept_ = 0;
    bool begun_ = false;  // the catalog's savepoint is open
};

// Whether `path` is a directory of the level just above a catalog
// directory's `levels_below`: the path rule decides, by whether that many
// more components would make it a catalog directory.
bool is_level_above(const std::string& path, int levels_below, catalog_dir* dir) {
    std::string probe = path;
    for (int i = 0; i < levels_below; ++i) probe += "/x";
    return parse_catalog_dir(probe, dir);
}

class find_walk {
public:
    explicit find_walk(std::shared_ptr<search_state> s) : s_(std::move(s)) {}

    // 0: go on and descend; 1: go on without descending; -1: the search is
    // over (--first reached).
    int operator()(const DirItem& item) const {
        if (s_->done || s_->failed) return -1;
        if (!item.is_dir) return 0;
        const options& o = s_->opts;
        // Client and data store directories the search excludes are not
        // entered at all.
        catalog_dir above;
        if ((o.by_client || o.by_dsid) && is_level_above(item.fullpath, 1, &above)) {
            if (o.by_dsid && above.dsid != o.dsid) return 1;
            if (o.by_client && !appdb::catalog_glob_match(o.client, above.client)) return 1;
        } else if (o.by_dsid && is_level_above(item.fullpath, 2, &above) && above.dsid != o.dsid) {
            return 1;
        }
        if (access(item.fullpath.c_str(), R_OK | X_OK) != 0) {
            const int err = errno;
            ErrorA(CR_STATUS_IO, "%s: cannot read directory %s (%s)", kProgram, item.fullpath.c_str(),
                   strerror(err));
            fprintf(stderr, "%s: skipped %s: cannot read the directory (%s)\n", kProgram,
                    item.fullpath.c_str(), strerror(err));
            ++s_->skipped;
            return 1;
        }
        try {
            search_catalog(item.fullpath);
        } catch (const std::bad_alloc&) {
            ErrorA(CR_STATUS_NOMEM, "%s: out of memory", kProgram);
            s_->failed = true;
            return -1;
        }
        return s_->done || s_->failed ? -1 : 0;
    }

private:
    void search_catalog(const std::string& path) const {
        catalog_dir dir;
        if (!parse_catalog_dir(path, &dir)) return;
        const options& o = s_->opts;
        if (o.by_dsid && dir.dsid != o.dsid) return;
        if (o.by_client && !appdb::catalog_glob_match(o.client, dir.client)) return;
        if (o.by_policy && !appdb::catalog_glob_match(o.policy, dir.policy)) return;

        std::unique_ptr<appdb::catalog_application_impl> app(
            OpList::create_list_catalog(dir.dsid, dir.database_root));
        if (!app) {
            s_->failed = true;
            return;
        }
        find_sink sink(*s_, dir);
        const cr_status_t status =
            app->find_catalog_filtered(kListUser, kListRole, dir.client, dir.policy, s_->statement, sink);
        // Closes this directory's connection before the walk goes on.
        app.reset();
        if (s_->failed) return;
        if (status != CR_STATUS_OK) {
            sink.discard();
            // A file this user may not read is said to be just that.
            if (dct::probe_readable(dct::pool_layout::db_file_in(path, dct::pool_layout::kAppdbType)) == dct::path_state::denied) {
                ErrorA(CR_STATUS_ACCESS_DENIED, "%s: skipped %s: not readable (permission denied)", kProgram,
                       path.c_str());
                fprintf(stderr, "%s: skipped %s: not readable (permission denied)\n", kProgram, path.c_str());
            } else {
                ErrorA(status, "%s: skipped %s: the catalog database could not be read", kProgram, path.c_str());
                fprintf(stderr, "%s: skipped %s: the catalog database could not be read (status %u; %s)\n", kProgram,
                        path.c_str(), status, where_logged().c_str());
            }
            ++s_->skipped;
            return;
        }
        sink.commit();
    }

    std::shared_ptr<search_state> s_;
};

int run(const options& o) {
    std::string root = o.dbpath;
    if (root.empty()) {
        std::string cr_config;
        const std::string registry = appdb::registry_path(o.registry);
        if (appdb::locate_cr_config(registry, &cr_config) != CR_STATUS_OK) {
            fprintf(stderr, "%s: no CR configuration file found through %s\n", kProgram, registry.c_str());
            return kExitCannotRun;
        }
        dct::configure_log_level(cr_config);
        root = appdb::read_database_root(cr_config);
        if (root.empty()) {
            fprintf(stderr, "%s: %s names no database root\n", kProgram, cr_config.c_str());
            return kExitCannotRun;
        }
    }
    // Exactly one trailing "/" goes, as with kavrel.
    if (!root.empty() && root.back() == '/') root.pop_back();
    if (access(root.empty() ? "/" : root.c_str(), R_OK | X_OK) != 0) {
        fprintf(stderr, "%s: cannot read the database root %s (%s)\n", kProgram, root.c_str(), strerror(errno));
        return kExitCannotRun;
    }

    mallopt(M_MMAP_THRESHOLD, kMmapThreshold);
    mallopt(M_TRIM_THRESHOLD, kTrimThreshold);

    auto state = std::make_shared<search_state>(o);
    if (o.result == result_kind::items && (o.sort || o.last)) {
        state->ordered.reset(new ordered_store());
        if (!state->ordered->open()) {
            fprintf(stderr, "%s: cannot make the temporary database for ordering (%s)\n", kProgram,
                    where_logged().c_str());
            return kExitCannotRun;
        }
    }
    const std::string header =
        o.result == result_kind::summary ? summary_header(o) : state->renderer.header();
    if (o.result != result_kind::count) fwrite(header.data(), 1, header.size(), stdout);

    const TraverseResult r = walk_catalog_tree(root, find_walk(state));
    // A walk that stopped early without saying why left something unread.
    if (r.status != CR_STATUS_OK && !state->done && !state->failed) ++state->skipped;
    if (state->failed) {
        fprintf(stderr, "%s: the search could not be completed (%s)\n", kProgram, where_logged().c_str());
        return kExitCannotRun;
    }
    if (state->ordered &&
        !state->ordered->write(stdout, o.sort_descending, o.first, o.last, o.limit)) {
        fprintf(stderr, "%s: the search could not be completed (%s)\n", kProgram, where_logged().c_str());
        return kExitCannotRun;
    }
    if (o.result == result_kind::count) printf("%llu\n", static_cast<unsigned long long>(state->matched));
    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "%s: cannot write the output (%s)\n", kProgram, strerror(errno));
        return kExitCannotRun;
    }
    return state->skipped > 0 ? kExitSkipped : kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    options o;
    std::string error;
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (!parse_args(args, now_seconds(), &o, &error)) {
        fprintf(stderr, "%s: %s\n%s", kProgram, error.c_str(), kUsage);
        return kExitUsage;
    }
    if (o.help) {
        fputs(kUsage, stdout);
        return kExitOk;
    }
    try {
        return run(o);
    } catch (...) {
        ErrorA(CR_STATUS_FAILED, "%s: unexpected exception", kProgram);
        fprintf(stderr, "%s: unexpected failure (%s)\n", kProgram, where_logged().c_str());
        return kExitCannotRun;
    }
}
