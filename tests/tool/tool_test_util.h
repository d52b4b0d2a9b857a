// Helpers of the kavrel end-to-end tests: run the built binary with a chosen
// environment and collect its exit status, standard output and standard error
// apart; lay out a pool (registry file, CR configuration file, database root)
// in a temporary directory.
#ifndef KAVREL_TESTS_TOOL_TOOL_TEST_UTIL_H_
#define KAVREL_TESTS_TOOL_TOOL_TEST_UTIL_H_

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "appdb/kavrel_config_names.h"
#include "common/test_util.h"

namespace kt {

// The usage text exactly as kavrel writes it (puts adds each newline).
inline const std::string& kavrel_usage_text() {
    static const std::string text =
        "Query application catalog database.\n"
        "Usage:\tkavrel [-listall] [-listbybackupid bid] [-dbpath path] [-v] [-h]\n"
        "Example:\n"
        "\tkavrel -listall\n"
        "\tkavrel -listbybackupid backupid\n"
        "\tkavrel -h\n"
        "\n";
    return text;
}

// $KAVREL_BINARY_DIR/tool/kavrel (ctest sets the variable); "" when unset.
inline std::string kavrel_binary() {
    const char* dir = getenv("KAVREL_BINARY_DIR");
    if (dir == nullptr || *dir == '\0') return "";
    return std::string(dir) + "/tool/kavrel";
}

struct RunResult {
    int exit_status = -1;  // 0..255, or -1 when the process did not exit normally
    int signal = 0;        // the signal that ended it, if any
    bool timed_out = false;
    std::string out;
    std::string err;
};

struct RunOptions {
    // Variables to set ("" sets an empty value) and to remove, applied to a
    // copy of this process's environment. DCT_LOG=stderr and no DCT_TRACE
    // unless a test says otherwise.
    std::map<std::string, std::string> set_env;
    std::vector<std::string> unset_env;
    int timeout_seconds = 60;
    // Runs in the child just before exec; a non-zero result makes the child
    // exit with status 120 + result without running the program.
    std::function<int()> in_child;
};

// Runs `program` with `args` and collects everything. Standard input is
// /dev/null.
inline RunResult run_program(const std::string& program, const std::vector<std::string>& args,
                             const RunOptions& options = RunOptions()) {
    RunResult result;
    std::map<std::string, std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        const char* eq = strchr(*e, '=');
        if (eq == nullptr) continue;
        env[std::string(*e, eq - *e)] = eq + 1;
    }
    env["DCT_LOG"] = "stderr";
    env.erase("DCT_TRACE");
    for (const auto& kv : options.set_env) env[kv.first] = kv.second;
    for (const auto& name : options.unset_env) env.erase(name);

    std::vector<std::string> env_strings;
    for (const auto& kv : env) env_strings.push_back(kv.first + "=" + kv.second);
    std::vector<char*> envp;
    for (auto& s : env_strings) envp.push_back(&s[0]);
    envp.push_back(nullptr);

    std::vector<std::string> argv_strings;
    argv_strings.push_back(program);
    argv_strings.insert(argv_strings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& s : argv_strings) argv.push_back(&s[0]);
    argv.push_back(nullptr);

    int out_pipe[2];
    int err_pipe[2];
    if (pipe(out_pipe) != 0) return result;
    if (pipe(err_pipe) != 0) {
        close(out_pipe[0]);
        close(out_pipe[1]);
        return result;
    }
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0) dup2(devnull, 0);
        dup2(out_pipe[1], 1);
        dup2(err_pipe[1], 2);
        close(out_pipe[0]);
        close(out_pipe[1]);
        close(err_pipe[0]);
        close(err_pipe[1]);
        if (options.in_child) {
            int rc = options.in_child();
            if (rc != 0) _exit(120 + rc);
        }
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(out_pipe[1]);
    close(err_pipe[1]);
    if (pid < 0) {
        close(out_pipe[0]);
        close(err_pipe[0]);
        return result;
    }

    const time_t deadline = time(nullptr) + options.timeout_seconds;
    struct pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open_fds = 2;
    while (open_fds > 0) {
        if (time(nullptr) >= deadline) {
            result.timed_out = true;
            kill(pid, SIGKILL);
            break;
        }
        int n = poll(fds, 2, 1000);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buf[65536];
            ssize_t got = read(fds[i].fd, buf, sizeof(buf));
            if (got > 0) {
                sinks[i]->append(buf, got);
            } else if (got == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_fds;
            }
        }
    }
    for (auto& f : fds) {
        if (f.fd >= 0) close(f.fd);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        result.exit_status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

// Lines of `text` (without their newline).
inline std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

// A listing cut into its per-directory blocks: each block runs from a
// "[path]" line up to and including the empty line that ends it. Text that
// does not belong to a block (there should be none) is returned as its own
// entry, so a comparison shows it.
inline std::vector<std::string> listing_blocks(const std::string& out) {
    std::vector<std::string> blocks;
    size_t pos = 0;
    while (pos < out.size()) {
        size_t end = out.find("\n\n", pos);
        if (end == std::string::npos) {
            blocks.push_back(out.substr(pos));
            break;
        }
        blocks.push_back(out.substr(pos, end + 2 - pos));
        pos = end + 2;
    }
    return blocks;
}

inline std::multiset<std::string> listing_block_set(const std::string& out) {
    std::vector<std::string> blocks = listing_blocks(out);
    return std::multiset<std::string>(blocks.begin(), blocks.end());
}

// mkdir -p
inline void make_dirs(const std::string& path) {
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t slash = path.find('/', pos);
        if (slash == std::string::npos) slash = path.size();
        const std::string prefix = path.substr(0, slash);
        if (!prefix.empty()) mkdir(prefix.c_str(), 0755);
        pos = slash + 1;
    }
}

// A pool in a temporary directory:
//   <tmp>/registry.cfg    [Tamberlode] configfilepath = <tmp>/pool.cfg
//   <tmp>/pool.cfg        [Paths] Database = <tmp>/db
//   <tmp>/db              the database root (created)
class TestPool {
public:
    TestPool() {
        registry_ = dir_.file("registry.cfg");
        config_ = dir_.file("pool.cfg");
        root_ = dir_.file("db");
        make_dirs(root_);
        write_registry(config_);
        write_config(root_);
    }

    // Rewrites the registry so that it names `config_path`.
    void write_registry(const std::string& config_path) const {
        write_file(registry_, std::string("[") + appdb::kRegistrySection + "]\n" +
                                  appdb::kRegistryConfigFileKey + " = " + config_path + "\n");
    }
    // Rewrites the CR configuration so that it names `database_root`.
    void write_config(const std::string& database_root) const {
        write_file(config_, std::string("[") + appdb::kConfigPathsSection + "]\n" +
                                appdb::kConfigDatabaseKey + " = " + database_root + "\n");
    }

    const TempDir& dir() const { return dir_; }
    const std::string& registry() const { return registry_; }
    const std::string& config() const { return config_; }
    const std::string& root() const { return root_; }
    // root()/databases/application/<dsid>/<client>/<policy>
    std::string catalog_dir(unsigned dsid, const std::string& client, const std::string& policy) const {
        return app_root(dsid) + "/" + client + "/" + policy;
    }
    std::string app_root(unsigned dsid) const {
        return root_ + "/databases/application/" + std::to_string(dsid);
    }

    // Runs kavrel with VELKREGISTRY naming this pool's registry.
    RunResult run(const std::vector<std::string>& args, RunOptions options = RunOptions()) const {
        options.set_env.emplace(appdb::kRegistryEnv, registry_);
        return run_program(kavrel_binary(), args, options);
    }

private:
    TempDir dir_;
    std::string registry_;
    std::string config_;
    std::string root_;
};

}  // namespace kt

#endif  // KAVREL_TESTS_TOOL_TOOL_TEST_UTIL_H_
