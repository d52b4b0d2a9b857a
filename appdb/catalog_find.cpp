// The search of kavrel-find: the walk, the per-catalog sink and the ordering
// of items across the pool.
#include "appdb/catalog_find.h"

#include <errno.h>
#include <sqlite3.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "appdb/catalog_application_impl.h"
#include "appdb/catalog_list.h"
#include "dct/fileutil.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"
#include "dct/spill_buffer.h"
#include "sqlitedb/connection.h"

namespace appdb {

find_receiver::~find_receiver() {}

void find_summary::add(const app_catalog_item& item) {
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

namespace {

const char kProgram[] = "kavrel-find";

// A catalog's rendered items held in memory before they go to a temporary file.
const size_t kCatalogBufferBytes = 1u << 20;

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

// What the copies of the walk functor share.
struct search_state {
    search_state(const find_request& r, find_receiver& out)
        : opts(r), receiver(out), buffer(kCatalogBufferBytes), statement(make_filter_statement(r.filter)) {}

    const find_request& opts;
    find_receiver& receiver;
    dct::spill_buffer buffer;
    catalog_filter_statement statement;
    std::unique_ptr<ordered_store> ordered;
    FILE* out = nullptr;
    uint64_t printed = 0;   // items written (streamed output)
    uint64_t matched = 0;   // items of catalogs read whole
    unsigned skipped = 0;   // databases and directories that could not be read
    bool done = false;      // --first reached: the walk ends
    bool failed = false;    // the ordering store failed: cannot run
    bool output_failed = false;  // a write of lines to the output failed
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
            case find_result::count: return CR_STATUS_OK;
            case find_result::summary: summary_.add(item); return CR_STATUS_OK;
            case find_result::items: break;
        }
        if (s_.ordered) {
            s_.receiver.render(&line_, dir_.dsid, item);
            if (!add_ordered(item)) {
                s_.failed = true;
                return CR_STATUS_FAILED;
            }
            return CR_STATUS_OK;
        }
        // Streamed: past --first's count nothing more is rendered.
        if (s_.opts.first && s_.printed + kept_ >= s_.opts.limit) return CR_STATUS_OK;
        s_.receiver.render(&line_, dir_.dsid, item);
        ++kept_;
        return s_.buffer.append(line_.data(), line_.size());
    }

    // The catalog read whole: its items count and go out.
    void commit() {
        s_.matched += count_;
        if (s_.opts.result == find_result::summary) {
            // A catalog without a matching item has no row.
            if (summary_.items != 0) s_.receiver.summary(summary_);
        } else if (s_.opts.result == find_result::items) {
            if (s_.ordered) {
                if (begun_ && !s_.ordered->end_catalog(true)) s_.failed = true;
                begun_ = false;
            } else {
                // A failed write is logged; the front end finds its output in error.
                if (s_.buffer.write_to(s_.out) != CR_STATUS_OK) s_.output_failed = true;
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
    // The rendered line with its sort key (an integer, a text, or none).
    bool add_ordered(const app_catalog_item& item) {
        const find_sort_key& key = s_.opts.key;
        if (!s_.opts.sort || key.kind == find_sort_key::none) return s_.ordered->add(nullptr, nullptr, line_);
        if (key.kind == find_sort_key::dsid) {
            const int64_t k = dir_.dsid;
            return s_.ordered->add(nullptr, &k, line_);
        }
        if (key.field->is_text()) return s_.ordered->add(&(item.*(key.field->text)), nullptr, line_);
        // Numbers and times order by the number.
        const int64_t k = key.field->kind == field_kind::u32 || key.field->kind == field_kind::role
                              ? static_cast<int64_t>(item.*(key.field->u32))
                              : key.field->bound_number(item);
        return s_.ordered->add(nullptr, &k, line_);
    }

    search_state& s_;
    const catalog_dir& dir_;
    find_summary summary_;
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
        const find_request& o = s_->opts;
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
            s_->receiver.skipped(find_skip::directory, item.fullpath, CR_STATUS_IO, err);
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
        const find_request& o = s_->opts;
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
            const std::string db = dct::pool_layout::db_file_in(path, dct::pool_layout::kAppdbType);
            if (dct::probe_readable(db) == dct::path_state::denied) {
                ErrorA(CR_STATUS_ACCESS_DENIED, "%s: skipped %s: %s", kProgram, path.c_str(), dct::not_readable_text);
                s_->receiver.skipped(find_skip::not_readable, path, CR_STATUS_ACCESS_DENIED, 0);
            } else {
                ErrorA(status, "%s: skipped %s: the catalog database could not be read", kProgram, path.c_str());
                s_->receiver.skipped(find_skip::unreadable, path, status, 0);
            }
            ++s_->skipped;
            return;
        }
        sink.commit();
    }

    std::shared_ptr<search_state> s_;
};

}  // namespace

cr_status_t find_in_pool(const std::string& root, const find_request& request, find_receiver& receiver, FILE* out,
                         find_totals* totals) {
    *totals = find_totals();
    auto state = std::make_shared<search_state>(request, receiver);
    if (request.result == find_result::items && (request.sort || request.last)) {
        state->ordered.reset(new ordered_store());
        if (!state->ordered->open()) {
            totals->stop = find_stop::no_ordering;
            return CR_STATUS_FAILED;
        }
    }
    state->out = out;
    receiver.begin();
    const TraverseResult r = walk_catalog_tree(root, find_walk(state));
    // A walk that stopped early without saying why left something unread.
    if (r.status != CR_STATUS_OK && !state->done && !state->failed) ++state->skipped;
    totals->matched = state->matched;
    totals->skipped = state->skipped;
    totals->output_failed = state->output_failed;
    if (state->failed ||
        (state->ordered && !state->ordered->write(out, request.descending, request.first, request.last,
                                                  request.limit))) {
        totals->stop = find_stop::incomplete;
        return CR_STATUS_FAILED;
    }
    return CR_STATUS_OK;
}

}  // namespace appdb
