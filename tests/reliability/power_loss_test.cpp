// Power loss at any moment of a catalog's work: inserts, deletes, backups,
// the creation of a second database, and groups of inserts that threads make
// at once (committed together, one journal append and sync). A model of the disk (power_loss.h)
// remembers what each file of the database tree and the shadow tree held at
// its last sync and, at the chosen moment, keeps only that. Afterwards a
// restarted service must find every acknowledged change in the database, and
// after the database is lost too, recovery must bring every acknowledged
// change back from the shadow copies and journals. The change in flight at
// the crash may or may not be there.
#include <stdlib.h>

#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "appdb/catalog_group_helpers.h"
#include "common/power_loss.h"
#include "reliability_fixture.h"

namespace {

using appdb::app_catalog_item;
using shadowt::pool_layout;

struct step {
    enum kind { insert, remove, backup, group } what;
    std::string client;
    std::string name;
    // A group: inserts made by threads at once, committed together. A name
    // with the prefix "dup:" inserts that existing name again (another
    // backup id): refused alone (4), its row and line never kept.
    std::vector<std::string> members = {};
};

const char kDup[] = "dup:";

bool is_dup(const std::string& member) { return member.compare(0, 4, kDup) == 0; }

std::vector<step> workload() {
    std::vector<step> w;
    for (int i = 1; i <= 6; ++i) w.push_back({step::insert, "alpha", "a" + std::to_string(i)});
    w.push_back({step::backup, "alpha", ""});
    w.push_back({step::insert, "alpha", "a7"});
    w.push_back({step::remove, "alpha", "a2"});
    for (int i = 1; i <= 3; ++i) w.push_back({step::insert, "beta", "b" + std::to_string(i)});
    w.push_back({step::insert, "alpha", "a8"});
    w.push_back({step::remove, "beta", "b1"});
    w.push_back({step::backup, "alpha", ""});
    w.push_back({step::insert, "alpha", "a9"});
    w.push_back({step::backup, "beta", ""});
    w.push_back({step::insert, "beta", "b4"});
    return w;
}

// What one run left: the acknowledged rows per client, the rows in flight at
// the crash, and whether the client's database was ever acknowledged.
struct outcome {
    std::map<std::string, std::set<std::string>> rows;
    std::set<std::string> touched;
    std::set<std::string> in_flight;
    long events = 0;
    long unattributed = 0;
};

// The first changes of new databases: each creates its database, the shadow
// directory, the first version and the first journal line.
std::vector<step> first_changes() {
    return {{step::insert, "alpha", "a1"}, {step::insert, "alpha", "a2"}, {step::insert, "beta", "b1"},
            {step::insert, "beta", "b2"}};
}

class power_loss_run {
public:
    // `dirs_need_sync`: new directories are lost unless their parent was
    // synced (PowerLossModel::dirs_need_parent_sync).
    explicit power_loss_run(std::vector<step> steps = workload(), bool dirs_need_sync = false)
        : steps_(std::move(steps)), dirs_need_sync_(dirs_need_sync), pool(tmp.path()) {
        pool.prepare();
    }

    // Runs the workload, crashing before event `crash_at` (0: never).
    outcome run(long crash_at) {
        outcome out;
        kt::PowerLossModel model({pool.dbroot, pool.storage});
        model.crash_at(crash_at);
        model.dirs_need_parent_sync(dirs_need_sync_);
        {
            std::unique_ptr<CatalogShadowContext> ctx = pool.context();
            std::unique_ptr<appdb::catalog_application> app = shadowt::make_shadow_app(pool, ctx.get());
            for (const step& s : steps_) {
                const bool before = model.crashed();
                cr_status_t status = 0;
                const std::string dir = pool.db_dir(2, s.client, "pol");
                switch (s.what) {
                    case step::insert:
                        status = app->update_catalog(
                            "alice", 4, catt::make_item(s.client, "pol", s.name, "bid").to_string());
                        break;
                    case step::remove:
                        status = app->del_catalog("alice", 4, "name|" + s.client + ",pol," + s.name);
                        break;
                    case step::backup:
                        status = ctx->backup(dir, "appdb");
                        break;
                    case step::group:
                        run_group(*app, dir, s);
                        break;
                }
                if (before) continue;  // after the crash: nothing of it survives
                if (model.crashed()) {
                    out.in_flight.insert(s.name);
                    for (const std::string& m : s.members) out.in_flight.insert(m);
                    continue;
                }
                if (s.what == step::group) {
                    for (size_t i = 0; i < s.members.size(); ++i) {
                        EXPECT_EQ(is_dup(s.members[i]) ? CR_STATUS_FAILED : 0u, statuses_[i])
                            << s.members[i] << "\n" << log.dump();
                        if (!is_dup(s.members[i])) out.rows[s.client].insert(s.members[i]);
                    }
                    out.touched.insert(s.client);
                    continue;
                }
                EXPECT_EQ(0u, status) << s.name << "\n" << log.dump();
                if (s.what == step::insert) out.rows[s.client].insert(s.name);
                if (s.what == step::remove) out.rows[s.client].erase(s.name);
                if (s.what != step::backup) out.touched.insert(s.client);
            }
        }
        out.events = model.events();
        out.unattributed = model.unattributed_syncs();
        model.restore();
        return out;
    }

    // Checks the database as found, takes one more change into it, then
    // checks it lost and recovered.
    void verify(outcome out, const std::string& label) {
        SCOPED_TRACE(label);
        std::unique_ptr<CatalogShadowContext> ctx = pool.context();
        std::unique_ptr<appdb::catalog_application> app = shadowt::make_shadow_app(pool, ctx.get());
        for (const std::string& client : out.touched) {
            check(*app, client, out, "after restart");
        }
        for (const std::string& client : out.touched) {
            const std::string name = client.substr(0, 1) + "next";
            EXPECT_EQ(0u, app->update_catalog("alice", 4, catt::make_item(client, "pol", name, "bid").to_string()))
                << client << "\n" << log.dump();
            out.rows[client].insert(name);
        }
        app.reset();
        for (const std::string& client : out.touched) {
            const std::string dir = pool.db_dir(2, client, "pol");
            shadowt::delete_database(dir + "/app.db");
            EXPECT_EQ(0u, ctx->recover(dir, "appdb", 0)) << client << "\n" << log.dump();
        }
        app = shadowt::make_shadow_app(pool, ctx.get());
        for (const std::string& client : out.touched) {
            check(*app, client, out, "after loss and recovery");
        }
    }

private:
    // The members of group `s` committed as one group; their statuses go to
    // statuses_.
    void run_group(appdb::catalog_application& app, const std::string& dir, const step& s) {
        std::vector<std::function<cr_status_t()>> calls;
        for (const std::string& m : s.members) {
            const app_catalog_item item = is_dup(m) ? catt::make_item(s.client, "pol", m.substr(4), "dupbid")
                                                    : catt::make_item(s.client, "pol", m, "bid");
            calls.push_back([&app, item] { return app.update_catalog("alice", 4, item.to_string()); });
        }
        statuses_ = groupt::one_group(dynamic_cast<appdb::catalog_application_base&>(app), dir, calls);
    }

    void check(appdb::catalog_application& app, const std::string& client, const outcome& out, const char* when) {
        cr_status_t status = 0;
        const auto found = shadowt::read_back(app, client, "pol", &status);
        ASSERT_EQ(0u, status) << client << " " << when << "\n" << log.dump();
        std::set<std::string> expected;
        auto it = out.rows.find(client);
        if (it != out.rows.end()) expected = it->second;
        std::set<std::string> got;
        for (const auto& f : found) {
            got.insert(f.first);
            // Each row as it was written first: a refused second row of a
            // name never replaces it, and never reaches the journal.
            EXPECT_EQ(catt::make_item(client, "pol", f.first, "bid").to_string(), f.second) << when;
        }
        for (const std::string& name : out.in_flight) {
            expected.erase(name);
            got.erase(name);
        }
        EXPECT_EQ(expected, got) << client << " " << when << "\n" << log.dump();
    }

    std::vector<step> steps_;
    std::vector<cr_status_t> statuses_;
    bool dirs_need_sync_;
    kt::TempDir tmp;
    kt::LogCapture log;
    kt::SleepCounter sleeps;
    pool_layout pool;
};

long crash_points() {
    const char* env = getenv("KAVREL_POWER_LOSS_POINTS");
    const long n = env != nullptr ? atol(env) : 0;
    return n > 0 ? n : 220;
}

TEST(PowerLoss, WithoutCrashEverythingIsKept) {
    power_loss_run r;
    const outcome out = r.run(0);
    EXPECT_GT(out.events, 100);
    EXPECT_EQ(0, out.unattributed);
    r.verify(out, "no crash");
}

TEST(PowerLoss, SeededCrashPointsLoseNothingAcknowledged) {
    long events = 0;
    {
        power_loss_run dry;
        events = dry.run(0).events;
    }
    ASSERT_GT(events, 0);
    const long points = crash_points();
    std::mt19937 rng(20240611);
    std::set<long> tried;
    for (long i = 0; i < points && !::testing::Test::HasFailure(); ++i) {
        // Every event while there are fewer than the points asked for, else
        // a seeded choice.
        const long at = points >= events ? 1 + i % events : 1 + static_cast<long>(rng() % events);
        tried.insert(at);
        power_loss_run r;
        const outcome out = r.run(at);
        EXPECT_EQ(0, out.unattributed);
        r.verify(out, "crash before event " + std::to_string(at) + " of " + std::to_string(events));
    }
    printf("[ power loss ] %ld events in the workload, %ld crash points run, %zu distinct\n", events, points,
           tried.size());
}

// A crash at every step of the first changes of two new databases, with new
// directories lost unless their parent was synced and journal lines lost
// unless synced: the shadow directory, the first version, its journal and the
// recorded count of 0 lines (checksum 1) of a journal whose first line was
// written but not yet counted. After each crash the next change and a
// recovery work, and every acknowledged row is there.
// Runs `steps` once without a crash, then once crashing before each of its
// events (new directories lost unless their parent was synced), checking
// each run; returns the number of events.
long crash_at_every_event(const std::vector<step>& steps) {
    long events = 0;
    {
        power_loss_run dry(steps, true);
        const outcome out = dry.run(0);
        events = out.events;
        EXPECT_EQ(0, out.unattributed);
        dry.verify(out, "no crash");
    }
    EXPECT_GT(events, 10);
    for (long at = 1; at <= events && !::testing::Test::HasFailure(); ++at) {
        power_loss_run r(steps, true);
        const outcome out = r.run(at);
        EXPECT_EQ(0, out.unattributed);
        r.verify(out, "crash before event " + std::to_string(at) + " of " + std::to_string(events));
    }
    return events;
}

TEST(PowerLoss, EveryCrashPointOfTheFirstChangesLosesNothingAcknowledged) { crash_at_every_event(first_changes()); }

// Groups of inserts, one with a refused second row of a name, around a
// backup: a crash at every event of their work. Nothing acknowledged is
// lost, a group's rows are there whole or not at all once it was cut, and
// the journal never holds the line of a row that was rolled back (the
// refused row is never found, and the recovery replays every journal).
std::vector<step> group_changes() {
    return {{step::insert, "alpha", "a1"},
            {step::group, "alpha", "", {"a2", "a3", "dup:a1", "a4"}},
            {step::insert, "alpha", "a5"},
            {step::backup, "alpha", ""},
            {step::group, "alpha", "", {"a6", "dup:a5", "a7"}}};
}

TEST(PowerLoss, EveryCrashPointOfGroupsLosesNothingAcknowledged) {
    const long events = crash_at_every_event(group_changes());
    printf("[ power loss ] %ld events in the groups' workload, each a crash point\n", events);
}

}  // namespace
