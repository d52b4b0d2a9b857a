// kavrel-find end to end: every filter alone and combined, the time forms,
// glob edge cases, each output form against the independent reference
// (Python's sqlite3 on the same files), ordering and limits, and what a
// damaged, an unreadable or a missing database and an empty pool do to the
// output and the exit status.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "kavrel_find_test_util.h"
#include "offsite/json_text.h"

namespace {

using kt::find_row;
using kt::RawRow;
using kt::RunResult;
using kt::sorted_lines;

const char kUsageFirstLine[] = "Search the application catalog.\n";

class KavrelFindTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE("", kt::kavrel_find_binary()) << "KAVREL_BINARY_DIR is not set";
        RawRow odd = find_row("A_1700000000_C1_F3", "A_1700000000", 1700000000, "svc", 1700600000, 0, 7);
        odd.description = "comma, \"quote\"\nand a line break";
        a_daily_ = pool_.add(1, "clientA", "daily",
                             {find_row("A_1700000000_C1_F1", "A_1700000000", 1700000000, "svc", 1700600000, 1701000000),
                              find_row("A_1700000000_C1_F2", "A_1700000000", 1700000000, "svc", 0, 1700500000, 5),
                              odd,
                              find_row("A_1700086400_C1_F1", "A_1700086400", 1700086400, "bob", 1700700000, 0),
                              find_row("A_1700172800_C1_F1", "A_1700172800", 1700172800, "bob")});
        pool_.add(1, "clientA", "weekly",
                  {find_row("A_1699900000_C2_F1", "A_1699900000", 1699900000, "svc", 1702000000, 1702000000)});
        pool_.add(1, "clientB", "daily",
                  {find_row("B_1700000100_C1_F1", "B_1700000100", 1700000100, "alice", 0, 1700400000, 4096),
                   find_row("B_1700090000_C1_F1", "B_1700090000", 1700090000, "alice")});
        pool_.add(2, "clientA", "daily", {find_row("A2_1700000000_C1_F1", "A2_1700000000", 1700000000, "svc")});
        // Names that hold the pattern characters themselves.
        pool_.add(1, "c[1]", "p?", {find_row("brackets_F1", "BR_1", 1700000200, "svc")});
        pool_.add(1, "c?x", "p", {find_row("question_F1", "QU_1", 1700000300, "svc")});
        // A file name that is not UTF-8.
        pool_.add(2, "clientC", "raw", {find_row(std::string("bad\xff\xfe_F1"), "RAW_1", 1700000400, "svc")});
        // A catalog directory without its database holds no items.
        kt::make_dirs(pool_.catalog_dir(1, "clientD", "empty"));
    }

    // kavrel-find and the reference agree, line for line (in any order), and
    // the command exits 0.
    void expect_same(const std::vector<std::string>& args) {
        const RunResult got = pool_.find(args);
        const RunResult want = pool_.reference(args);
        ASSERT_EQ(0, want.exit_status) << want.err;
        EXPECT_EQ(0, got.exit_status) << got.err;
        EXPECT_EQ(sorted_lines(want.out), sorted_lines(got.out)) << ::testing::PrintToString(args);
        // Nothing failed on the way (the log goes to standard error here).
        EXPECT_EQ(std::string::npos, got.err.find("ERROR")) << got.err;
        EXPECT_EQ(std::string::npos, got.err.find("kavrel-find:")) << got.err;
    }

    // Every output form of a search against the reference (with `few`, the
    // line form, JSON lines, the count and the summary).
    void expect_same_in_every_form(const std::vector<std::string>& filters, bool few = false) {
        const std::vector<std::vector<std::string>> few_forms = {{}, {"--json-lines"}, {"--count"}, {"--summary"}};
        const std::vector<std::vector<std::string>> all_forms = {
            {}, {"--json-lines"}, {"--csv"}, {"--format", "{dsid}/{client}/{policy} {file_name} {{{backup_start_time_utc}}}"},
            {"--count"}, {"--summary"}, {"--summary", "--json-lines"}, {"--summary", "--csv"},
            {"--summary", "--format", "{client}:{items}:{earliest_expire_time_utc}"}};
        for (const auto& form : few ? few_forms : all_forms) {
            std::vector<std::string> args = filters;
            args.insert(args.end(), form.begin(), form.end());
            expect_same(args);
        }
    }

    kt::FindPool pool_;
    std::string a_daily_;
};

TEST_F(KavrelFindTest, NoFilterFindsEveryItemInEveryForm) {
    expect_same_in_every_form({});
    EXPECT_EQ("12\n", pool_.find({"--count"}).out);
}

TEST_F(KavrelFindTest, EachFilterAloneMatchesTheReference) {
    const std::vector<std::vector<std::string>> filters = {
        {"--dsid", "2"},
        {"--dsid", "9"},
        {"--client", "clientA"},
        {"--client", "client[AB]"},
        {"--client", "*"},
        {"--policy", "daily"},
        {"--policy", "w*"},
        {"--backup-id", "A_1700000000"},
        {"--backup-id", "A_17000?????"},
        {"--file-name", "*_C1_F1"},
        {"--file-name", "A_1700000000_C1_F2"},
        {"--owner", "bob"},
        {"--owner", "nobody-owns-this"},
        {"--since", "1700086400"},
        {"--until", "1700000000"},
        {"--expires-before", "1700600001"},
    };
    for (const auto& f : filters) expect_same_in_every_form(f, true);
}

TEST_F(KavrelFindTest, CombinedFiltersMatchTheReference) {
    expect_same_in_every_form({"--client", "clientA", "--policy", "daily", "--since", "1700000000", "--until",
                               "1700086400"});
    expect_same_in_every_form({"--dsid", "1", "--owner", "svc", "--expires-before", "1700600001", "--file-name",
                               "A_*"});
    expect_same_in_every_form({"--client", "client?", "--backup-id", "*_17000*", "--owner", "alice"});
    // Each filter narrows: the combination finds exactly one item.
    const RunResult r = pool_.find({"--client", "clientA", "--policy", "daily", "--owner", "bob", "--since",
                                    "1700100000", "--format", "{file_name}"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ("A_1700172800_C1_F1\n", r.out);
}

TEST_F(KavrelFindTest, DefaultOutputIsKavrelsLineForm) {
    const RunResult r = pool_.find({"--client", "clientB"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(kt::raw_line_form(find_row("B_1700000100_C1_F1", "B_1700000100", 1700000100, "alice", 0, 1700400000, 4096),
                                "clientB", "daily") +
                  "\n" +
                  kt::raw_line_form(find_row("B_1700090000_C1_F1", "B_1700090000", 1700090000, "alice"), "clientB",
                                    "daily") +
                  "\n",
              r.out);
}

TEST_F(KavrelFindTest, TimeFormsSelectTheSameItems) {
    // 1700000000 is 2023-11-14T22:13:20Z.
    const std::string seconds = pool_.find({"--since", "1700000000", "--format", "{file_name}"}).out;
    for (const std::string t : {"2023-11-14T22:13:20Z", "2023-11-14T22:13:20", "2023-11-14 22:13:20",
                                 "2023-11-14T23:13:20+01:00", "2023-11-14T17:13:20-0500"}) {
        const RunResult r = pool_.find({"--since", t, "--format", "{file_name}"});
        EXPECT_EQ(0, r.exit_status) << t << r.err;
        EXPECT_EQ(sorted_lines(seconds), sorted_lines(r.out)) << t;
    }
    // A date is its midnight, UTC.
    const RunResult date = pool_.find({"--until", "2023-11-14", "--format", "{file_name}"});
    EXPECT_EQ(sorted_lines(pool_.find({"--until", "1699920000", "--format", "{file_name}"}).out),
              sorted_lines(date.out));
    EXPECT_EQ("A_1699900000_C2_F1\n", date.out);
    // Relative times count from now.
    kt::RunOptions now;
    now.set_env["KAVREL_FIND_NOW"] = "1700172800";
    const RunResult relative = pool_.find({"--since", "-1d", "--format", "{file_name}"}, now);
    EXPECT_EQ(sorted_lines(pool_.find({"--since", "1700086400", "--format", "{file_name}"}).out),
              sorted_lines(relative.out));
    const RunResult hours = pool_.find({"--since", "-24h", "--format", "{file_name}"}, now);
    EXPECT_EQ(relative.out, hours.out);
    const RunResult ahead = pool_.find({"--expires-before", "+1w", "--count"}, now);
    EXPECT_EQ(pool_.find({"--expires-before", "1700777600", "--count"}).out, ahead.out);
}

TEST_F(KavrelFindTest, BadTimesAreUsageErrors) {
    for (const std::string t : {"yesterday", "2023-13-01", "2023-02-30", "2023-11-14T25:00", "-7x", "7d", ""}) {
        const RunResult r = pool_.find({"--since", t});
        EXPECT_EQ(2, r.exit_status) << t;
        EXPECT_EQ("", r.out);
        EXPECT_EQ(0u, r.err.find("kavrel-find: --since: \"" + t +
                                 "\" is not a time (seconds, 2026-11-25, 2026-11-25T08:30:00Z, -7d)\n" +
                                 kUsageFirstLine))
            << r.err;
    }
}

TEST_F(KavrelFindTest, GlobEdgeCases) {
    // "[" opens a set; "[[]" is a literal "[".
    RunResult r = pool_.find({"--client", "c[[]1]", "--format", "{client}/{policy}"});
    EXPECT_EQ("c[1]/p?\n", r.out);
    r = pool_.find({"--client", "c[1]", "--count"});
    EXPECT_EQ("0\n", r.out);  // the set [1] matches "c1" only
    // "?" is any one character: "c?x" names the directory c?x, and so would cax.
    r = pool_.find({"--client", "c?x", "--format", "{client}"});
    EXPECT_EQ("c?x\n", r.out);
    r = pool_.find({"--policy", "p[?]", "--format", "{policy}"});
    EXPECT_EQ("p?\n", r.out);
    // An unclosed set matches nothing.
    r = pool_.find({"--client", "c[1", "--count"});
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ("0\n", r.out);
    // Case counts.
    EXPECT_EQ("0\n", pool_.find({"--client", "CLIENTA", "--count"}).out);
    expect_same_in_every_form({"--client", "c[[]*"});
    expect_same_in_every_form({"--file-name", "*[?]*"});
}

TEST_F(KavrelFindTest, BarInAFilterValueIsRefused) {
    for (const std::string option : {"--client", "--policy", "--backup-id", "--file-name", "--owner"}) {
        const RunResult r = pool_.find({option, "a|b"});
        EXPECT_EQ(2, r.exit_status) << option;
        EXPECT_EQ("", r.out);
        EXPECT_EQ(0u, r.err.find("kavrel-find: " + option +
                                 " \"a|b\" holds \"|\", which no client, policy, backup id, file name or owner "
                                 "can hold\n" + kUsageFirstLine))
            << r.err;
    }
}

TEST_F(KavrelFindTest, JsonLinesFollowTheSchema) {
    const RunResult r = pool_.find({"--client", "clientB", "--file-name", "*0100*", "--json-lines"});
    ASSERT_EQ(0, r.exit_status) << r.err;
    const std::vector<std::string> lines = kt::split_lines(r.out);
    ASSERT_EQ(1u, lines.size());
    const auto j = ktool::json::parse(lines[0]);
    std::vector<std::string> keys;
    for (auto it = j.begin(); it != j.end(); ++it) keys.push_back(it.key());
    const std::vector<std::string> expected_keys = {
        "dsid", "version", "file_name", "file_len", "backup_id", "policy", "policy_type", "schedule_type",
        "frag_nums", "client", "app_id", "data_object", "app_expire_time", "app_expire_time_utc",
        "orvo_expire_time", "orvo_expire_time_utc", "backup_start_time", "backup_start_time_utc",
        "backup_stop_time", "backup_stop_time_utc", "owner", "owner_role", "description", "reserver0",
        "reserver1", "reserver2", "reserver3", "reserver4", "reserver5", "reserver6", "reserver7", "reserver8",
        "reserver9"};
    EXPECT_EQ(expected_keys, keys);
    EXPECT_EQ(1, j["dsid"]);
    EXPECT_EQ("B_1700000100_C1_F1", j["file_name"]);
    EXPECT_EQ(4096u, j["file_len"]);
    EXPECT_EQ(1700000100, j["backup_start_time"]);
    EXPECT_EQ("2023-11-14T22:15:00Z", j["backup_start_time_utc"]);
    EXPECT_EQ(1700400000, j["orvo_expire_time"]);
    EXPECT_EQ("2023-11-19T13:20:00Z", j["orvo_expire_time_utc"]);
    EXPECT_EQ("clientB", j["client"]);
    EXPECT_EQ(4, j["owner_role"]);
}

TEST_F(KavrelFindTest, TextThatIsNotUtf8ReadsBackToTheSameBytes) {
    const RunResult r = pool_.find({"--client", "clientC", "--json-lines"});
    ASSERT_EQ(0, r.exit_status) << r.err;
    const auto j = ktool::json::parse(kt::split_lines(r.out).at(0));
    EXPECT_EQ(ktool::json::parse("{\"hex\":\"626164fffe5f4631\"}"), j["file_name"]);
    std::string bytes;
    ASSERT_TRUE(ktool::json_text_bytes(j["file_name"], &bytes));
    EXPECT_EQ(std::string("bad\xff\xfe_F1"), bytes);
    ASSERT_TRUE(ktool::json_text_bytes(j["client"], &bytes));
    EXPECT_EQ("clientC", bytes);
}

TEST_F(KavrelFindTest, CsvQuotesWhatNeedsQuoting) {
    const RunResult r = pool_.find({"--file-name", "*_F3", "--csv"});
    ASSERT_EQ(0, r.exit_status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find(",\"comma, \"\"quote\"\"\nand a line break\",")) << r.out;
    EXPECT_EQ(0u, r.out.find("dsid,version,file_name,file_len,backup_id,policy,"));
}

TEST_F(KavrelFindTest, SortFirstAndLastOrderAcrossThePool) {
    const RunResult all = pool_.reference({"--format", "{file_name}"});
    ASSERT_EQ(0, all.exit_status) << all.err;
    std::vector<std::string> names = sorted_lines(all.out);
    ASSERT_GE(names.size(), 3u);
    std::string joined;
    for (const auto& n : names) joined += n + "\n";
    RunResult r = pool_.find({"--sort", "file_name", "--format", "{file_name}"});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ(joined, r.out);
    std::string reversed;
    for (auto it = names.rbegin(); it != names.rend(); ++it) reversed += *it + "\n";
    EXPECT_EQ(reversed, pool_.find({"--sort", "-file_name", "--format", "{file_name}"}).out);
    EXPECT_EQ(names[0] + "\n" + names[1] + "\n" + names[2] + "\n",
              pool_.find({"--sort", "file_name", "--first", "3", "--format", "{file_name}"}).out);
    EXPECT_EQ(names[names.size() - 2] + "\n" + names.back() + "\n",
              pool_.find({"--sort", "file_name", "--last", "2", "--format", "{file_name}"}).out);
    // By a number, ties kept in walk order: the oldest start first.
    r = pool_.find({"--sort", "backup_start_time", "--first", "1", "--format", "{file_name}"});
    EXPECT_EQ("A_1699900000_C2_F1\n", r.out);
    r = pool_.find({"--sort", "-file_len", "--first", "1", "--format", "{file_len}"});
    EXPECT_EQ("4096\n", r.out);
    // Without --sort, --first N is the first N of the walk and --last N its last N.
    r = pool_.find({"--first", "4", "--format", "{file_name}"});
    EXPECT_EQ(4u, kt::split_lines(r.out).size());
    const std::vector<std::string> walk = kt::split_lines(pool_.find({"--format", "{file_name}"}).out);
    const std::vector<std::string> last = kt::split_lines(pool_.find({"--last", "3", "--format", "{file_name}"}).out);
    EXPECT_EQ(std::vector<std::string>(walk.end() - 3, walk.end()), last);
    EXPECT_EQ(std::vector<std::string>(walk.begin(), walk.begin() + 4), kt::split_lines(r.out));
    EXPECT_EQ("", pool_.find({"--first", "0"}).out);
}

TEST_F(KavrelFindTest, UsageErrors) {
    const std::vector<std::vector<std::string>> bad = {
        {"--frobnicate"}, {"--client"}, {"--dsid", "x"}, {"--json-lines", "--csv"}, {"--count", "--summary"},
        {"--count", "--sort", "file_name"}, {"--sort", "nosuchfield"}, {"--format", "{nosuchfield}"},
        {"--format", "{file_name"}, {"--format", "a}b"}, {"--first", "-1"}, {"--first", "2", "--last", "2"},
        {"--registry", "x", "--dbpath", "y"}, {"--summary", "--format", "{file_name}"}, {"--count", "--csv"}};
    for (const auto& args : bad) {
        const RunResult r = pool_.find(args);
        EXPECT_EQ(2, r.exit_status) << ::testing::PrintToString(args);
        EXPECT_EQ("", r.out);
        EXPECT_NE(std::string::npos, r.err.find(kUsageFirstLine)) << r.err;
    }
    const RunResult help = pool_.find({"--help"});
    EXPECT_EQ(0, help.exit_status);
    EXPECT_EQ(0u, help.out.find(kUsageFirstLine));
}

TEST_F(KavrelFindTest, DbpathAndRegistryChooseTheTree) {
    kt::FindPool other;
    other.add(5, "x", "y", {find_row("other_F1", "O_1", 1)});
    EXPECT_EQ("other_F1\n", pool_.find({"--dbpath", other.root() + "/", "--format", "{file_name}"}).out);
    EXPECT_EQ("other_F1\n", pool_.find({"--registry", other.registry(), "--format", "{file_name}"}).out);
    kt::RunOptions no_registry;
    no_registry.set_env[appdb::kRegistryEnv] = pool_.dir().file("missing.cfg");
    const RunResult r = kt::run_program(kt::kavrel_find_binary(), {"--count"}, no_registry);
    EXPECT_EQ(3, r.exit_status);
    EXPECT_EQ("", r.out);
    EXPECT_NE(std::string::npos,
              r.err.find("kavrel-find: no CR configuration file found through " + pool_.dir().file("missing.cfg") + "\n"))
        << r.err;
    const RunResult missing_root = pool_.find({"--dbpath", pool_.dir().file("nothing-here"), "--count"});
    EXPECT_EQ(3, missing_root.exit_status);
}

TEST_F(KavrelFindTest, EmptyPoolFindsNothingAndSucceeds) {
    kt::FindPool empty;
    RunResult r = empty.find({});
    EXPECT_EQ(0, r.exit_status) << r.err;
    EXPECT_EQ("", r.out);
    EXPECT_EQ("0\n", empty.find({"--count"}).out);
    r = empty.find({"--csv"});
    EXPECT_EQ(0, r.exit_status);
    EXPECT_EQ(empty.reference({"--csv"}).out, r.out);  // the header alone
    EXPECT_EQ("", empty.find({"--summary"}).out);
    EXPECT_EQ("", empty.find({"--sort", "file_name"}).out);
}

TEST_F(KavrelFindTest, DamagedDatabaseIsReportedAndSkipped) {
    // Bytes written over the middle of the file.
    const std::string file = pool_.catalog_dir(1, "clientB", "daily") + "/app.db";
    const int fd = open(file.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    const std::string garbage(4096, '\x5a');
    ASSERT_EQ(static_cast<ssize_t>(garbage.size()), pwrite(fd, garbage.data(), garbage.size(), 0));
    close(fd);

    for (const std::vector<std::string>& form :
         {std::vector<std::string>{}, {"--json-lines"}, {"--sort", "file_name"}, {"--summary"}}) {
        const RunResult r = pool_.find(form);
        EXPECT_EQ(1, r.exit_status) << r.err;
        // Everything but clientB, as the reference reads it.
        std::vector<std::string> ref = form;
        ref.insert(ref.begin(), {"--client", "c*[^B]"});
        EXPECT_EQ(sorted_lines(pool_.reference(ref).out), sorted_lines(r.out));
        const std::string dir = pool_.catalog_dir(1, "clientB", "daily");
        EXPECT_NE(std::string::npos,
                  r.err.find("kavrel-find: skipped " + dir + ": the catalog database could not be read (status"))
            << r.err;
        // The log has it too, at the status the catalog reported.
        const size_t logged = r.err.find("] kavrel-find: skipped " + dir + ": the catalog database could not be read\n");
        EXPECT_NE(std::string::npos, logged) << r.err;
        EXPECT_NE(std::string::npos, r.err.rfind("ERROR [", logged)) << r.err;
    }
    EXPECT_EQ("10\n", pool_.find({"--count"}).out);
}

TEST_F(KavrelFindTest, RowWithABadChecksumSkipsItsWholeDatabase) {
    ASSERT_EQ("", kt::raw_exec(a_daily_ + "/app.db", "UPDATE catalog SET filelen = 999 WHERE name = 'A_1700086400_C1_F1'"));
    const RunResult r = pool_.find({"--client", "clientA", "--format", "{client}/{policy}/{file_name}"});
    EXPECT_EQ(1, r.exit_status);
    EXPECT_EQ(sorted_lines("clientA/weekly/A_1699900000_C2_F1\nclientA/daily/A2_1700000000_C1_F1\n"),
              sorted_lines(r.out));
    EXPECT_NE(std::string::npos, r.err.find("ERROR [67] kavrel-find: skipped " + a_daily_ + ": ")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("try_do_db_query: crc mismatch for app cat item 1|A_1700086400_C1_F1|"))
        << r.err;
    // A filter that leaves out the bad row reads the database whole.
    EXPECT_EQ(0, pool_.find({"--client", "clientA", "--owner", "svc"}).exit_status);
}

TEST_F(KavrelFindTest, UnreadableDatabaseIsSkippedByAnOrdinaryUser) {
    const std::string file = pool_.catalog_dir(1, "clientB", "daily") + "/app.db";
    ASSERT_EQ(0, chmod(file.c_str(), 0));
    const RunResult r = pool_.find_as_nobody({"--format", "{client}/{file_name}"});
    if (geteuid() == 0) {
        EXPECT_EQ(1, r.exit_status) << r.err;
        EXPECT_NE(std::string::npos,
                  r.err.find("kavrel-find: skipped " + pool_.catalog_dir(1, "clientB", "daily") +
                             ": not readable (permission denied)\n"))
            << r.err;
        EXPECT_NE(std::string::npos, r.err.find("ERROR [106] kavrel-find: skipped " +
                                                pool_.catalog_dir(1, "clientB", "daily") +
                                                ": not readable (permission denied)\n"))
            << r.err;
        EXPECT_EQ(10u, kt::split_lines(r.out).size()) << r.out;
        EXPECT_EQ(std::string::npos, r.out.find("clientB"));
    }
    // An unreadable directory is skipped too, and the search goes on.
    ASSERT_EQ(0, chmod(file.c_str(), 0644));
    const std::string locked = pool_.app_root(1) + "/clientA";
    ASSERT_EQ(0, chmod(locked.c_str(), 0));
    const RunResult d = pool_.find_as_nobody({"--format", "{client}/{file_name}"});
    ASSERT_EQ(0, chmod(locked.c_str(), 0755));
    if (geteuid() == 0) {
        EXPECT_EQ(1, d.exit_status) << d.err;
        EXPECT_NE(std::string::npos,
                  d.err.find("kavrel-find: skipped " + locked + ": cannot read the directory (Permission denied)\n"))
            << d.err;
        EXPECT_EQ(std::string::npos, d.out.find("clientA/A_1"));
        EXPECT_NE(std::string::npos, d.out.find("clientB/B_1700000100_C1_F1"));
    }
    // Read access is all it needs: as nobody, a readable pool reads whole.
    const RunResult ok = pool_.find_as_nobody({"--count"});
    EXPECT_EQ(0, ok.exit_status) << ok.err;
    EXPECT_EQ("12\n", ok.out);
}

}  // namespace
