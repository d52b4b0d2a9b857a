// catalog_store: one open application database (an app.db with its `catalog`
// table) and everything done to its rows.
//
// A store owns its connection and the statements prepared on it. Statements
// are prepared the first time they are needed and kept for as long as the
// store lives, so a store kept open between operations (appdb_cache keeps
// them) prepares each statement once. Every kept statement is reset when its
// use ends, so an idle store holds no lock, and all of them are finalised
// before the connection closes.
//
// Each row operation below is one attempt: a busy database answers 11, and
// the caller retries through sqlitedb::retry_while_busy. Every failure is
// logged once, here, under the name of the catalog operation it serves
// ("try_do_db_insert", "try_do_db_query", ...), and returned as a status.
//
// The connection is a sqlitedb::connection under the catalog's CANTOPEN rule
// (a catalog file that cannot be opened is an input/output error, 21); it
// keeps the store's statements.
//
// A store is used by one thread at a time (the cache hands it to one
// borrower).
#ifndef APPDB_CATALOG_STORE_H_
#define APPDB_CATALOG_STORE_H_

#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "appdb/app_catalog_item.h"
#include "appdb/app_query.h"
#include "appdb/catalog_filter.h"
#include "appdb/catalog_item_sink.h"
#include "dct/status.h"
#include "sqlitedb/connection.h"

namespace appdb {

// A removal on behalf of a caller: every row that the removal's statement
// selects is checked against the access rule (access 3, remove) inside the
// removal's own transaction, and only the rows the caller may remove go; the
// others stay. The removal fills in what it found. The journalled statement
// names exactly the rows removed, so a replay removes the same rows.
struct removal_check {
    std::string user;
    unsigned int role = 0;
    unsigned int matched = 0;  // rows the statement selected
    unsigned int removed = 0;  // of those, rows removed
    std::string kept_owner;    // owner of the first row left in place
};

// The key column a removal selects its rows by.
enum class removal_key {
    file_name,  // "name": at most one row
    backup_id,  // "backupid": every row of one backup
};

class catalog_store {
public:
    // Busy timeout, in milliseconds, of every connection a store opens;
    // 10000 unless changed. Process-wide; open stores keep theirs. Lowering
    // it lets tests provoke busy results quickly. It is the connections'
    // default (sqlitedb::connection::set_default_busy_timeout_ms), so every
    // database opened afterwards waits as long.
    static void set_busy_timeout_ms(int ms);
    static int busy_timeout_ms();

    // Whether open() switches a database that another SQLite client left in
    // write-ahead-log mode back to rollback-journal mode; on unless changed.
    // Process-wide. A program that only reads (the listing tool) turns it
    // off and reads such a file as it is.
    static void set_journal_mode_switch(bool on);
    static bool journal_mode_switch();

    // SQLite result code -> status: sqlitedb's table under its named
    // exception cantopen_rule::io_error: CANTOPEN (14) is an input/output
    // error here (21).
    static cr_status_t map_status(int rc);

    // Opens the existing database `file` read-write, never creating it, with
    // the busy timeout and extended result codes. On failure `*out` is empty
    // and the mapped status (21 for a missing file) is returned, logged
    // "open_db: could not open db FILE,(RC, TEXT)".
    //
    // Every catalog runs in SQLite's rollback-journal mode ("delete"). Any
    // SQLite client can switch a file to write-ahead logging, which the file
    // keeps: such a file is checkpointed and switched back here (the caller
    // holds the directory lock), with one warning naming the file and the
    // mode found. A file that cannot be switched (a read-only connection,
    // another connection holding the log, the switch turned off) is opened
    // and used as it is, with a warning; SQLite reads it whole either way.
    static cr_status_t open(const std::string& file, std::unique_ptr<catalog_store>* out);

    // Creates the database `file` (its directory exists) with the `catalog`
    // table and its backupid index, and closes it again. Returns 0 or the
    // mapped status, logged for "create_db"; a file left by a failed table or
    // index creation stays on disk, for the next insert to complete.
    static cr_status_t create(const std::string& file);

    // Takes over `db`, an open connection to `file` (for callers that opened
    // it themselves, such as tests). A null `db` gives a null store.
    static std::unique_ptr<catalog_store> adopt(sqlite3* db, const std::string& file);

    // Finalises the kept statements, then closes the connection: a busy
    // close is tried three times, one second apart ("close_sqlite3_db: N busy
    // when close app db FILE"), then the connection is left behind.
    ~catalog_store();
    catalog_store(const catalog_store&) = delete;
    catalog_store& operator=(const catalog_store&) = delete;

    const std::string& file() const { return file_; }
    sqlite3* connection() const { return db_.handle(); }
    sqlitedb::connection& db() { return db_; }

    // Whether the file the connection has open is no longer the one its name
    // leads to (another process replaced or removed it).
    bool has_moved() const;

    // Whether the database holds no schema object at all: what a creation
    // that failed half-way leaves (the file made, the table not). Such a file
    // holds no rows. Anything that cannot be read (not a database, busy,
    // damaged) counts as not empty and is left for the operation to report.
    bool holds_no_table() const;

    // Completes a database that holds no table with the `catalog` table and
    // its index, inside one immediate transaction (two openers cannot both
    // create it); a database holding anything else is left alone.
    // `completed` tells whether the schema was added. 0 or the logged status.
    cr_status_t complete_tableless(bool& completed);

    // ---- one attempt of each row operation ----

    // Inserts `item` (a file without its table is completed first) and puts
    // its literal INSERT text into `sql` once it is bound. 0, or the status.
    cr_status_t insert(const app_catalog_item& item, std::string& sql);

    // Runs the SELECT `sql` of `query` (its type tells what to bind) and hands
    // each row to `sink` as it is read, with the query's client and policy,
    // after checking its checksum: a mismatch ends the query with 67 after the
    // rows before it. A file without its table has no rows (0). A status the
    // sink returns ends the query as it is.
    cr_status_t query(const app_query& query, const std::string& sql, catalog_item_sink& sink);

    // The same for a filter's statement: its values are bound in order and
    // each row goes to `sink` with `client` and `policy`, after the same
    // checksum check.
    cr_status_t query(const catalog_filter_statement& statement, const std::string& client,
                      const std::string& policy, catalog_item_sink& sink);

    // Deletes the rows whose `key` column is `key_value`, and puts the literal
    // DELETE text into `sql`. DONE is success also when no row matched; a file
    // without its table has nothing to delete. With a `check`, only the rows
    // the caller may remove go (see removal_check), and `sql` stays empty when
    // none went. `function` names the operation in log records.
    cr_status_t remove(const char* function, removal_key key, const std::string& key_value,
                       std::string& sql, removal_check* check);

    // Steps the single-value statement `sql`; true at the first value equal
    // to `expect`. Every value read is appended to *result when given. False,
    // silently, when it does not prepare.
    bool run_pragma(const std::string& sql, const std::string& expect, std::string* result);

private:
    // Prepares the SELECT `sql` (kept), lets `bind` bind its parameters
    // (returning 0 or its logged status), then steps it to its end, checking
    // every row's checksum and handing it to `sink` with `client` and
    // `policy`. A file without its table has no rows (0).
    cr_status_t run_select(const std::string& sql, const std::string& client,
                           const std::string& policy, catalog_item_sink& sink,
                           const std::function<cr_status_t(sqlitedb::statement_ref)>& bind);

    explicit catalog_store(const std::string& file);

    // Mutable: the read-only checks (has_moved, holds_no_table) step
    // statements on it.
    mutable sqlitedb::connection db_;
    std::string file_;
};

}  // namespace appdb

#endif  // APPDB_CATALOG_STORE_H_
