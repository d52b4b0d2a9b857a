// The one way the off-site commands start another program (restic, and ssh
// when restic could not reach an SFTP server), and collect what it says.
//
// Its output goes to unlinked temporary files, not pipes: when this process
// is killed, a pipe would break under restic, which then dies of SIGPIPE at
// its next line and leaves its lock in the repository; a file takes the line,
// and restic, interrupted, removes its lock before it ends.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>

#include "offsite/restic.h"

namespace koffsite {

namespace {

// An unlinked temporary file open for reading and writing; -1 with errno.
int unlinked_file() {
    const char* base = getenv("TMPDIR");
    const std::string dir = base != nullptr && *base != '\0' ? base : "/tmp";
    int fd = open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0) return fd;
    std::string pattern = dir + "/kavrel-shadow.XXXXXX";
    fd = mkostemp(&pattern[0], O_CLOEXEC);
    if (fd >= 0) unlink(pattern.c_str());
    return fd;
}

// Appends what `fd` holds beyond `*offset`.
void read_new(int fd, off_t* offset, std::string* into) {
    char buf[65536];
    ssize_t n;
    while ((n = pread(fd, buf, sizeof(buf), *offset)) > 0) {
        into->append(buf, static_cast<size_t>(n));
        *offset += n;
    }
}

}  // namespace

ResticRun run_program(const std::vector<std::string>& argv_in, const std::vector<std::string>& envp_in,
                      bool own_session, int timeout_seconds,
                      const std::function<void(const std::string&)>& on_output,
                      const std::function<bool(const std::string&)>& stop_on) {
    ResticRun result;
    const std::string program = find_on_path(argv_in.front());
    if (program.empty()) {
        result.error = argv_in.front() == "restic" ? "the restic program is not installed (not found on PATH)"
                                                   : argv_in.front() + ": not found on PATH";
        return result;
    }
    // Built before the fork: the child only calls what is safe there.
    std::vector<std::string> argv_text = argv_in, env_text = envp_in;
    std::vector<char*> argv, envp;
    for (std::string& a : argv_text) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    for (std::string& e : env_text) envp.push_back(&e[0]);
    envp.push_back(nullptr);

    const int out_fd = unlinked_file();
    const int err_fd = out_fd < 0 ? -1 : unlinked_file();
    if (err_fd < 0) {
        result.error = std::string("cannot make a temporary file: ") + strerror(errno);
        if (out_fd >= 0) close(out_fd);
        return result;
    }
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        result.error = std::string("fork: ") + strerror(errno);
        close(out_fd);
        close(err_fd);
        return result;
    }
    if (pid == 0) {
        // The child must not outlive this process. restic removes its lock
        // from the repository on SIGINT (not on SIGTERM).
        prctl(PR_SET_PDEATHSIG, SIGINT);
        if (getppid() != parent) _exit(127);
        if (own_session) setsid();
        const int null_fd = open("/dev/null", O_RDONLY);
        if (null_fd >= 0) dup2(null_fd, 0);
        dup2(out_fd, 1);
        dup2(err_fd, 2);
        execve(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    result.started = true;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
    off_t out_at = 0, err_at = 0;
    size_t line_start = 0;  // of the first standard error line not yet given to stop_on
    std::chrono::steady_clock::time_point kill_at{};
    bool stopping = false, killed = false;
    int status = 0;
    long pause_us = 1000;
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        read_new(out_fd, &out_at, &result.out);
        if (on_output) on_output(result.out);
        read_new(err_fd, &err_at, &result.err);
        if (done == pid || (done < 0 && errno != EINTR)) break;
        for (size_t nl; stop_on && !stopping && (nl = result.err.find('\n', line_start)) != std::string::npos;
             line_start = nl + 1) {
            if (stop_on(result.err.substr(line_start, nl - line_start))) {
                kill(pid, SIGINT);
                stopping = true;
                kill_at = std::chrono::steady_clock::now() + std::chrono::seconds(5);
            }
        }
        if (stopping && !killed && std::chrono::steady_clock::now() > kill_at) {
            kill(pid, SIGKILL);
            killed = true;
        }
        if (timeout_seconds > 0 && std::chrono::steady_clock::now() > deadline) {
            kill(own_session ? -pid : pid, SIGKILL);
            result.err += argv_in.front() + ": no answer after " + std::to_string(timeout_seconds) + " seconds\n";
            timeout_seconds = 0;
        }
        // A real wait on another process, as short as its work allows.
        const struct timespec pause = {0, pause_us * 1000};
        nanosleep(&pause, nullptr);
        if (pause_us < 20000) pause_us *= 2;
    }
    close(out_fd);
    close(err_fd);
    if (WIFEXITED(status)) {
        result.exit_status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

}  // namespace koffsite
