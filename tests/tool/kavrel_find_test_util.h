// Helpers of the kavrel-find end-to-end tests: a pool whose catalogs are
// written by the independent writer (raw_catalog.h), the command run on it,
// and the independent reference (kavrel_find_reference.py, Python's sqlite3
// module on the same files) run with the same options.
#ifndef KAVREL_TESTS_TOOL_KAVREL_FIND_TEST_UTIL_H_
#define KAVREL_TESTS_TOOL_KAVREL_FIND_TEST_UTIL_H_

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "raw_catalog.h"
#include "tool_test_util.h"

namespace kt {

// $KAVREL_BINARY_DIR/tool/kavrel-find; "" when unset.
inline std::string kavrel_find_binary() {
    const char* dir = getenv("KAVREL_BINARY_DIR");
    if (dir == nullptr || *dir == '\0') return "";
    return std::string(dir) + "/tool/kavrel-find";
}

// The reference lies beside this header (the build compiles it from the
// source tree, so the path is known there).
inline std::string kavrel_find_reference_script() {
    const std::string self = __FILE__;
    return self.substr(0, self.rfind('/') + 1) + "kavrel_find_reference.py";
}

// The lines of `text`, sorted: the walk's order is the file system's.
inline std::vector<std::string> sorted_lines(const std::string& text) {
    std::vector<std::string> lines = split_lines(text);
    std::sort(lines.begin(), lines.end());
    return lines;
}

inline RawRow find_row(const std::string& file_name, const std::string& backup_id, int64_t start,
                       const std::string& owner = "svc", int64_t app_expire = 0, int64_t orvo_expire = 0,
                       uint64_t file_len = 100) {
    RawRow r;
    r.file_name = file_name;
    r.backup_id = backup_id;
    r.file_len = file_len;
    r.frag_nums = 1;
    r.app_id = "orcl";
    r.data_object = "DATAFILE";
    r.app_expire_time = app_expire;
    r.orvo_expire_time = orvo_expire;
    r.backup_start_time = start;
    r.backup_stop_time = start + 60;
    r.owner = owner;
    r.description = "backup of " + backup_id;
    return r;
}

class FindPool : public TestPool {
public:
    // Writes the catalog DSID/CLIENT/POLICY; returns its directory.
    std::string add(unsigned dsid, const std::string& client, const std::string& policy,
                    const std::vector<RawRow>& rows) const {
        const std::string dir = catalog_dir(dsid, client, policy);
        make_dirs(dir);
        const std::string error = raw_write_catalog(dir + "/app.db", rows);
        EXPECT_EQ("", error) << dir;
        return dir;
    }

    // kavrel-find with VELKREGISTRY naming this pool's registry.
    RunResult find(const std::vector<std::string>& args, RunOptions options = RunOptions()) const {
        options.set_env.emplace(appdb::kRegistryEnv, registry());
        return run_program(kavrel_find_binary(), args, options);
    }

    // kavrel-find as the unprivileged user nobody (through runuser when the
    // tests run as root).
    RunResult find_as_nobody(const std::vector<std::string>& args) const {
        if (geteuid() != 0) return find(args);
        // nobody must reach the pool: the temporary directory is the
        // creator's alone.
        chmod(dir().path().c_str(), 0755);
        chmod(registry().c_str(), 0644);
        chmod(config().c_str(), 0644);
        std::vector<std::string> all = {"-u", "nobody", "--", kavrel_find_binary()};
        all.insert(all.end(), args.begin(), args.end());
        RunOptions options;
        options.set_env.emplace(appdb::kRegistryEnv, registry());
        return run_program("/usr/sbin/runuser", all, options);
    }

    // The reference's output for the same options (times in seconds).
    RunResult reference(const std::vector<std::string>& args) const {
        std::vector<std::string> all = {kavrel_find_reference_script(), root()};
        all.insert(all.end(), args.begin(), args.end());
        return run_program("/usr/bin/python3", all);
    }
};

}  // namespace kt

#endif  // KAVREL_TESTS_TOOL_KAVREL_FIND_TEST_UTIL_H_
