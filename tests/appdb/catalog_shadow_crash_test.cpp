// Crash safety of the shadow-protected catalog. A child process inserts
// through a type-2 catalog application and reports each acknowledged file
// name to the parent through a pipe; the parent kills it with SIGKILL at a
// random moment, deletes or damages the database, and recovers it with a
// fresh application: every acknowledged row is there, no row is there twice,
// nothing is there that was never written, and the file passes SQLite's
// integrity check. The rounds go on over the same pool, so later rounds
// recover from the journals of all earlier ones.
//
// A second test does the same with a child whose threads insert at once, so
// that the kill falls into groups of changes committed together.
//
// The seed (KAVREL_CRASH_SEED overrides it) fixes how many rows each child
// acknowledges before the kill is timed, the delays and the kinds of damage;
// the exact kill moments still depend on the machine.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "catalog_shadow_fixture.h"

namespace {

using appdb::app_catalog_item;

constexpr int kRounds = 24;
constexpr int kPerRound = 100000;  // name space of one round's child
constexpr unsigned kDefaultSeed = 20240611u;

std::string name_of(int i) { return "r" + std::to_string(i); }

app_catalog_item item_of(int i) {
    return catt::make_item("c", "p", name_of(i), "c_" + std::to_string(i / 50), 1000 + i);
}

unsigned seed() {
    const char* text = getenv("KAVREL_CRASH_SEED");
    return text != nullptr && *text != '\0' ? static_cast<unsigned>(strtoul(text, nullptr, 10)) : kDefaultSeed;
}

// The child: inserts items start, start+1, ... and writes each acknowledged
// name and "\n" to `fd`. Never returns.
[[noreturn]] void child(const shadowt::pool_layout& pool, int start, int fd) {
    dct::set_log_sink([](dct::log_level, cr_status_t, const std::string&) {});
    std::unique_ptr<CatalogShadowContext> ctx = pool.context();
    std::unique_ptr<appdb::catalog_application> app = shadowt::make_shadow_app(pool, ctx.get());
    if (app == nullptr) _exit(2);
    for (int i = start; i < start + kPerRound; ++i) {
        if (app->update_catalog("admin", 1, item_of(i).to_string()) != 0) continue;
        const std::string line = name_of(i) + "\n";
        if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(3);
    }
    _exit(0);
}

// The child of the threaded test: `threads` threads insert items start + t,
// start + t + threads, ... into the one catalog at once and write each
// acknowledged name and "\n" to `fd` (one write a name: whole lines only).
// Never returns.
[[noreturn]] void threaded_child(const shadowt::pool_layout& pool, int start, int threads, int fd) {
    dct::set_log_sink([](dct::log_level, cr_status_t, const std::string&) {});
    std::unique_ptr<CatalogShadowContext> ctx = pool.context();
    std::unique_ptr<appdb::catalog_application> app = shadowt::make_shadow_app(pool, ctx.get());
    if (app == nullptr) _exit(2);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            for (int i = start + t; i < start + kPerRound; i += threads) {
                if (app->update_catalog("admin", 1, item_of(i).to_string()) != 0) continue;
                const std::string line = name_of(i) + "\n";
                if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(3);
            }
        });
    }
    for (std::thread& w : workers) w.join();
    _exit(0);
}

// Reads from `fd` into `text` until it holds `lines` lines, the writer closed
// it, or 20 seconds passed.
void read_lines(int fd, std::string& text, size_t lines) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    char buffer[65536];
    while (static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) < lines &&
           std::chrono::steady_clock::now() < deadline) {
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) continue;
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0) {
            text.append(buffer, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            return;
        }
    }
}

// Everything the child wrote until it died; complete lines only.
std::vector<std::string> drain(int fd, std::string text) {
    char buffer[65536];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0) {
            text.append(buffer, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    std::vector<std::string> names;
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
        names.push_back(text.substr(start, nl - start));
    }
    return names;
}

// Rounds of a child (of `threads` inserting threads, or the plain loop when
// 0) killed at work, each followed by the loss of the database and its
// recovery; every acknowledged row must be there after each.
void killed_writers_lose_nothing(int rounds, int threads) {
    kt::TempDir tmp;
    shadowt::pool_layout pool(tmp.path());
    pool.prepare();
    const std::string file = pool.db_file(2, "c", "p");
    const unsigned the_seed = seed();
    SCOPED_TRACE("seed " + std::to_string(the_seed));
    std::mt19937 rng(the_seed);

    std::set<std::string> acknowledged;
    {
        // The database and its first shadow copy exist before the first kill.
        kt::LogCapture log;
        std::unique_ptr<CatalogShadowContext> ctx = pool.context();
        std::unique_ptr<appdb::catalog_application> app = shadowt::make_shadow_app(pool, ctx.get());
        ASSERT_EQ(0u, app->update_catalog("admin", 1, item_of(0).to_string())) << log.dump();
        acknowledged.insert(name_of(0));
    }

    int kills_while_writing = 0;
    for (int round = 1; round <= rounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        int fds[2];
        ASSERT_EQ(0, pipe(fds));
        fcntl(fds[1], F_SETPIPE_SZ, 1 << 20);
        const int start = round * kPerRound;
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(fds[0]);
            if (threads > 0) threaded_child(pool, start, threads, fds[1]);
            child(pool, start, fds[1]);
        }
        close(fds[1]);
        // Let the child acknowledge a few rows (so that the kill falls at
        // work, however fast the file system is), then kill it a random
        // while later: before, in or after any step of an insert.
        std::string text;
        read_lines(fds[0], text, std::uniform_int_distribution<size_t>(0, 20)(rng));
        const long delay_us = std::uniform_int_distribution<long>(0, 3000)(rng);
        const timespec pause = {0, delay_us * 1000};
        nanosleep(&pause, nullptr);
        ASSERT_EQ(0, kill(pid, SIGKILL));
        int wstatus = 0;
        ASSERT_EQ(pid, waitpid(pid, &wstatus, 0));
        if (WIFSIGNALED(wstatus)) ++kills_while_writing;
        const std::vector<std::string> names = drain(fds[0], text);
        close(fds[0]);
        acknowledged.insert(names.begin(), names.end());

        // Lose the database.
        const int how = static_cast<int>(rng() % 3);
        if (how == 0 || shadowt::file_size(file) <= 5 * 4096) {
            shadowt::delete_database(file);
        } else if (how == 1) {
            shadowt::damage_header(file, rng);
        } else {
            shadowt::damage_pages(file, rng);
        }

        // A fresh application recovers it.
        kt::LogCapture log;
        std::unique_ptr<CatalogShadowContext> ctx = pool.context();
        std::unique_ptr<appdb::catalog_application> app = shadowt::make_shadow_app(pool, ctx.get());
        cr_status_t status = 0;
        const std::map<std::string, std::string> rows = shadowt::read_back(*app, "c", "p", &status);
        ASSERT_EQ(0u, status) << "loss " << how << "\n" << log.dump();
        for (const std::string& name : acknowledged) {
            ASSERT_EQ(1u, rows.count(name)) << name << " lost (loss " << how << ")\n" << log.dump();
        }
        for (const auto& row : rows) {
            // Only rows a child tried to write, each with its own contents.
            const int i = std::stoi(row.first.substr(1));
            ASSERT_EQ(item_of(i).to_string(), row.second);
            ASSERT_LT(i, start + kPerRound);
        }
        app.reset();
        ctx.reset();
        EXPECT_EQ("ok", shadowt::integrity(file));
        EXPECT_EQ(catt::raw_scalar(file, "SELECT count(*) FROM catalog"),
                  catt::raw_scalar(file, "SELECT count(DISTINCT name) FROM catalog"));
    }
    // The children were killed at work, not after they had finished.
    EXPECT_EQ(rounds, kills_while_writing);
    EXPECT_GT(acknowledged.size(), static_cast<size_t>(rounds));
}

TEST(ShadowCrash, KilledWritersLoseNoAcknowledgedRow) { killed_writers_lose_nothing(kRounds, 0); }

// Four threads of the killed process write at once: their changes are
// committed in groups, and the kill falls before, in or after any step of a
// group (its transaction, its journal append and sync, its checksum file).
TEST(ShadowCrash, KilledThreadedWritersLoseNoAcknowledgedRow) { killed_writers_lose_nothing(12, 4); }

}  // namespace
