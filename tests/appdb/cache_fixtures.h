// Tools for the open-database cache tests: connections whose real closes are
// counted, and a settable clock.
#ifndef KAVREL_TESTS_APPDB_CACHE_FIXTURES_H_
#define KAVREL_TESTS_APPDB_CACHE_FIXTURES_H_

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "dct/clock.h"

namespace cachet {

// Opens connections and learns when SQLite really closes each of them: the
// user data of a function registered on a connection is destroyed exactly when
// the connection goes away. Thread-safe.
class connection_counter {
public:
    sqlite3* open(const std::string& path) {
        sqlite3* db = nullptr;
        if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) {
            ADD_FAILURE() << "cannot open " << path;
            sqlite3_close(db);
            return nullptr;
        }
        probe* p = new probe{this, path};
        sqlite3_create_function_v2(
            db, "kavrel_close_probe", 0, SQLITE_UTF8, p,
            [](sqlite3_context*, int, sqlite3_value**) {}, nullptr, nullptr, [](void* data) {
                probe* pr = static_cast<probe*>(data);
                pr->owner->on_close(pr->path);
                delete pr;
            });
        ++opened_;
        std::lock_guard<std::mutex> guard(mutex_);
        ++open_by_path_[path];
        return db;
    }

    int opened() const { return opened_.load(); }
    int closed() const { return closed_.load(); }
    int live() const { return opened_.load() - closed_.load(); }
    // Connections to `path` currently open.
    int live(const std::string& path) const {
        std::lock_guard<std::mutex> guard(mutex_);
        auto it = open_by_path_.find(path);
        return it == open_by_path_.end() ? 0 : it->second;
    }

private:
    struct probe {
        connection_counter* owner;
        std::string path;
    };
    void on_close(const std::string& path) {
        ++closed_;
        std::lock_guard<std::mutex> guard(mutex_);
        --open_by_path_[path];
    }

    std::atomic<int> opened_{0};
    std::atomic<int> closed_{0};
    mutable std::mutex mutex_;
    std::map<std::string, int> open_by_path_;
};

// Replaces dct::now_ms with a value the test sets; restores the real clock.
class fake_clock {
public:
    explicit fake_clock(unsigned long start) : now_(start) {
        dct::set_clock_function([this] { return now_.load(); });
    }
    ~fake_clock() { dct::set_clock_function(nullptr); }
    void set(unsigned long t) { now_ = t; }
    void advance(unsigned long ms = 1) { now_ += ms; }
    unsigned long now() const { return now_.load(); }

private:
    std::atomic<unsigned long> now_;
};

}  // namespace cachet

#endif  // KAVREL_TESTS_APPDB_CACHE_FIXTURES_H_
