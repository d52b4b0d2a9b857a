// catalog_application_base: group commit of the changes to one database.
//
// Threads of one process that change one database at the same moment (a
// backup with several streams ends in several inserts into one client and
// policy) wait in that database's line (commit_queue.h). The change at the
// front takes the directory lock and every change behind it, and runs them
// as one group:
//
//   1. one transaction on the database's store (BEGIN IMMEDIATE), each change
//      in its own savepoint: a change that SQLite refuses on its own (a
//      second row of one file name, a value or row over SQLite's length
//      limit) is rolled back to its savepoint and keeps its status, the
//      others go on; the journal lines of the changes are kept, not written;
//   2. COMMIT: one sync chain of SQLite's for every row of the group;
//   3. the kind protects what was committed (protect_group): the shadow kind
//      writes the kept lines with one append, one sync and one checksum file;
//   4. the directory lock is released and every member is woken with its own
//      status.
//
// So a change is reported done only when its row and its journal line are
// both durable, and the order is the one a single change has always had:
// the row commits before its line is written, a line is written only for a
// row that committed, and the checksum file counts lines only after they
// were synced. A crash anywhere leaves rows committed whose lines are
// missing or not counted (never acknowledged), never a line without its row.
//
// Anything that is not one change's own failure (busy, input/output, damage,
// out of memory, a failure that calls for a recovery, a transaction SQLite
// ended) gives the whole group up: it is rolled back before anything is
// journalled, and each of its changes runs again alone on its own thread,
// exactly as it would without the line (busy retries, one recovery per
// operation, its own records). A change to a database that does not exist
// yet, or whose shadow holds no copy yet, runs alone too: it creates or
// copies the database.
#include "appdb/catalog_application_base.h"

#include <sys/stat.h>

#include <chrono>
#include <new>

#include "dct/fs.h"
#include "dct/log.h"

namespace appdb {

namespace {

// The group the calling thread is running, while it runs its changes.
struct running_group {
    const catalog_application_base* app;
    const std::string& path;
    appdb_value* value;
    std::vector<std::string> lines;  // journal texts of the change being run
    bool given_up = false;
};

thread_local running_group* running = nullptr;

// Makes `group` the calling thread's running group for one scope.
class running_scope {
public:
    explicit running_scope(running_group* group) { running = group; }
    ~running_scope() { running = nullptr; }
    running_scope(const running_scope&) = delete;
    running_scope& operator=(const running_scope&) = delete;
};

running_group* running_on(const catalog_application_base* app, const std::string& path) {
    return running != nullptr && running->app == app && running->path == path ? running : nullptr;
}

// Whether the failure of the change just run is its own: SQLite refused that
// one statement (a second row of one file name, a value or a row over its
// length limit) and the group's transaction is still open.
bool own_failure(const sqlitedb::connection& db) {
    const int primary = db.last_error() & 0xFF;
    return db.in_transaction() && (primary == SQLITE_CONSTRAINT || primary == SQLITE_TOOBIG);
}

const char kSavepoint[] = "SAVEPOINT catalog_change;";
const char kRelease[] = "RELEASE catalog_change;";
const char kRollbackChange[] = "ROLLBACK TO catalog_change; RELEASE catalog_change;";

// Runs each member of `group` in its own savepoint of the open transaction
// on `db`: a member's own failure is rolled back to its savepoint and kept as
// its status; its kept journal lines are moved to `lines` (with their owners)
// when it succeeded. Anything else gives the group up (run.given_up).
void run_members(sqlitedb::connection& db, running_group& run, std::vector<commit_queue::change*>& group,
                 std::vector<std::string>& lines, std::vector<size_t>& owners) {
    for (size_t i = 0; i < group.size() && !run.given_up; ++i) {
        run.lines.clear();
        if (db.exec(kSavepoint) != CR_STATUS_OK) {
            run.given_up = true;
            return;
        }
        const cr_status_t status = group[i]->step();
        if (run.given_up) return;
        if (status == CR_STATUS_OK) {
            if (db.exec(kRelease) != CR_STATUS_OK) {
                run.given_up = true;
                return;
            }
            for (std::string& line : run.lines) {
                lines.push_back(std::move(line));
                owners.push_back(i);
            }
        } else if (own_failure(db) && db.exec(kRollbackChange) == CR_STATUS_OK) {
            // Its row is gone, its line never kept; the others go on.
            group[i]->status = status;
        } else {
            run.given_up = true;
        }
    }
}

}  // namespace

bool held_by_running_group(const appdb_value* value) {
    return running != nullptr && running->value == value;
}

void catalog_application_base::use_commit_bounds(std::optional<unsigned> changes,
                                                 std::optional<size_t> bytes) {
    commit_bounds bounds = commits_->bounds();
    if (changes) bounds.changes = *changes;
    if (bytes) bounds.bytes = *bytes;
    commits_.reset(new commit_queue(bounds));
}

appdb_value* catalog_application_base::group_store_(const std::string& path) const {
    const running_group* group = running_on(this, path);
    return group != nullptr ? group->value : nullptr;
}

bool catalog_application_base::defer_journal_line(const std::string& path,
                                                  const std::string& statement) {
    running_group* group = running_on(this, path);
    if (group == nullptr) return false;
    group->lines.push_back(statement);
    return true;
}

bool catalog_application_base::give_up_group(const std::string& path) {
    running_group* group = running_on(this, path);
    if (group == nullptr) return false;
    group->given_up = true;
    return true;
}

bool catalog_application_base::group_ready(const std::string& client, const std::string& policy) {
    // An empty file is a creation that failed half-way: the change that
    // completes it runs alone.
    struct stat st;
    return wa_stat(to_db_full_name(client, policy), &st) == 0 && st.st_size > 0;
}

cr_status_t catalog_application_base::protect_group(const std::string&,
                                                    const std::vector<std::string>&) {
    return CR_STATUS_OK;
}

cr_status_t catalog_application_base::commit_change(CatalogDirectoryLock* dir_lock,
                                                    const char* fn, const std::string& client,
                                                    const std::string& policy, size_t bytes,
                                                    const std::function<cr_status_t()>& step) {
    const std::string path = to_db_full_path(client, policy);
    auto alone = [&]() -> cr_status_t {
        dir_lock_scope lock(dir_lock, path, fn);
        if (lock.status() != CR_STATUS_OK) return lock.status();
        return step();
    };
    // A thread that holds the directory itself (an outer lock of its own)
    // must not wait in line behind a front that waits for that very lock.
    // (A database still to be created is made by a front alone: a group
    // finds it missing and is given up, group_ready.)
    if (commits_->bounds().changes < 2 || CatalogDirectoryLock::held_descriptor(path) >= 0) {
        return alone();
    }
    commit_queue::change me(bytes, step);
    bool leads;
    try {
        leads = commits_->wait_turn(path, me);
    } catch (const std::bad_alloc&) {
        return alone();  // not in line
    }
    if (leads) {
        // The line goes on however the front's turn ends; the directory is
        // let go first.
        struct turn_end {
            commit_queue& line;
            const std::string& path;
            std::vector<commit_queue::change*> group;
            bool given_up = false;
            const std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now();
            ~turn_end() { line.finish(path, group, std::chrono::steady_clock::now() - began, given_up); }
        } turn{*commits_, path, {}};
        dir_lock_scope lock(dir_lock, path, fn);
        if (lock.status() != CR_STATUS_OK) {
            // Only the front waited for the lock: the others stay in line.
            return lock.status();
        }
        try {
            turn.group = commits_->take_group(path, me);
        } catch (const std::bad_alloc&) {
            turn.group.clear();  // the front runs alone
        }
        if (turn.group.size() < 2) return step();
        turn.given_up = !run_group_(client, policy, turn.group);
        if (!turn.given_up) return me.status;
        for (commit_queue::change* c : turn.group) c->alone = true;
    }
    return me.alone ? alone() : me.status;
}

bool catalog_application_base::run_group_(const std::string& client, const std::string& policy,
                                           std::vector<commit_queue::change*>& group) {
    const char* const fn = "commit_change";
    const std::string path = to_db_full_path(client, policy);
    if (!group_ready(client, policy)) return false;
    appdb_value* value = nullptr;
    if (open_db_with_cached(client, policy, &value) != CR_STATUS_OK) return false;
    // The group keeps the store borrowed from its first change to its last
    // line: the cache may close only idle stores, never one inside a
    // transaction.
    Auto_Return_DB back(cache.get(), path, value);
    sqlitedb::connection& db = value->store->db();
    if (db.in_transaction() || db.exec("BEGIN IMMEDIATE TRANSACTION;") != CR_STATUS_OK) {
        InfoA(db.map(db.code()), "%s: %u changes to %s not begun together (%s), each runs alone", fn,
              static_cast<unsigned int>(group.size()), path.c_str(), db.errmsg());
        return false;
    }
    // The journal lines of the changes that stay, in order, and whose they are.
    std::vector<std::string> lines;
    std::vector<size_t> owners;
    bool given_up = false;
    {
        running_group run{this, path, value, {}, false};
        running_scope scope(&run);
        try {
            run_members(db, run, group, lines, owners);
        } catch (...) {
            // What escaped a change is met again when it runs alone.
            run.given_up = true;
        }
        given_up = run.given_up;
    }
    if (!given_up && db.exec("COMMIT TRANSACTION;") != CR_STATUS_OK) given_up = true;
    if (given_up) {
        InfoA(db.map(db.last_error()), "%s: %u changes to %s rolled back together (%s), each runs alone",
              fn, static_cast<unsigned int>(group.size()), path.c_str(), db.errmsg());
        if (db.in_transaction()) db.exec("ROLLBACK TRANSACTION;");
        return false;
    }
    __TraceA("%s: %u changes to %s committed together", fn, static_cast<unsigned int>(group.size()),
             path.c_str());
    const cr_status_t protect = protect_group(path, lines);
    if (protect != CR_STATUS_OK) {
        for (size_t owner : owners) group[owner]->status = protect;
    }
    return true;
}

}  // namespace appdb
