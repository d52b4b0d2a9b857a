// The off-site repository's settings and the runner of the restic program.
#include "offsite/restic.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <regex>

#include "dct/inifile.h"
#include "dct/log.h"

extern char** environ;

namespace koffsite {

namespace {

const char kSection[] = "Offsite";

std::string read_text(const std::string& file, const char* key) {
    char buf[4096];
    InifileGetValueA(file.c_str(), kSection, key, "", buf, sizeof(buf));
    return buf;
}

// Variables that would hand restic another repository or password than the
// configured ones.
bool overridden_by_us(const char* entry) {
    static const char* const kNames[] = {"RESTIC_REPOSITORY=", "RESTIC_REPOSITORY_FILE=", "RESTIC_PASSWORD=",
                                         "RESTIC_PASSWORD_FILE=", "RESTIC_PASSWORD_COMMAND="};
    for (const char* name : kNames) {
        if (strncmp(entry, name, strlen(name)) == 0) return true;
    }
    return false;
}

// Milliseconds of the monotonic clock: the grace a stopped restic gets is a
// real wait on another process, which no replaced clock may shorten.
int64_t monotonic_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Reads both pipes until the child closes them, so that neither fills up,
// and hands every complete line of standard error to `line_done`. Once that
// asks for a stop, the child gets SIGINT, and SIGKILL when it has not ended
// 5 seconds later.
void collect(pid_t child, int out_fd, int err_fd, std::string* out, std::string* err,
             const std::function<bool(const std::string&)>& line_done) {
    struct pollfd fds[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
    std::string* sinks[2] = {out, err};
    int open_fds = 2;
    char buf[65536];
    size_t line_start = 0;
    int64_t kill_at = -1;  // while stopping: when SIGKILL follows SIGINT
    bool killed = false;
    while (open_fds > 0) {
        const int64_t left = kill_at < 0 || killed ? -1 : std::max<int64_t>(0, kill_at - monotonic_ms());
        const int ready = poll(fds, 2, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) break;
        if (kill_at >= 0 && !killed && monotonic_ms() >= kill_at) {
            kill(child, SIGKILL);
            killed = true;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            const ssize_t n = read(fds[i].fd, buf, sizeof(buf));
            if (n > 0) {
                sinks[i]->append(buf, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_fds;
            }
        }
        for (size_t nl; kill_at < 0 && (nl = err->find('\n', line_start)) != std::string::npos;
             line_start = nl + 1) {
            if (line_done(err->substr(line_start, nl - line_start))) {
                kill(child, SIGINT);
                kill_at = monotonic_ms() + 5000;
            }
        }
    }
}

// The last non-empty line of `text` that holds `marker`, from the marker on
// (restic may print "Fatal:" straight after another message, without a line
// break between).
std::string last_line_with(const std::string& text, const std::string& marker) {
    std::string found;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
        const size_t at = line.find(marker);
        if (!line.empty() && at != std::string::npos) found = line.substr(at);
        start = end + 1;
    }
    return found;
}

// restic's command line: the password file, the CA and SFTP command when
// set, then `args`; never the repository or a password.
std::vector<std::string> command_line(const OffsiteConfig& config, const std::vector<std::string>& args) {
    std::vector<std::string> line = {"restic", "--password-file", config.password_file};
    if (!config.ca_cert_file.empty()) {
        line.push_back("--cacert");
        line.push_back(config.ca_cert_file);
    }
    if (!config.sftp_command.empty()) {
        line.push_back("-o");
        line.push_back("sftp.command=" + config.sftp_command);
    }
    line.insert(line.end(), args.begin(), args.end());
    return line;
}

// Reads the number KEY (`fallback` when absent); false with `reason` set
// when it is not a number of at least `least`.
bool read_number(const std::string& file, const char* key, unsigned long fallback, unsigned long least,
                 unsigned long* value, std::string* reason) {
    const cr_status_t s = InifileGetUIntegerA(file.c_str(), kSection, key, fallback, value);
    if ((s == CR_STATUS_OK || s == CR_STATUS_NOT_FOUND) && *value >= least) return true;
    *reason =
        std::string("[Offsite] ") + key + " in " + file + " must be a number of at least " + std::to_string(least);
    return false;
}

}  // namespace

cr_status_t read_offsite_config(const std::string& cr_config, OffsiteConfig* config, std::string* reason) {
    *config = OffsiteConfig();
    config->config_file = cr_config;
    config->repository = read_text(cr_config, "Repository");
    if (config->repository.empty()) {
        *reason = "no [Offsite] Repository in " + cr_config;
        return CR_STATUS_NOT_FOUND;
    }
    config->password_file = read_text(cr_config, "PasswordFile");
    config->sftp_command = read_text(cr_config, "SftpCommand");
    config->ca_cert_file = read_text(cr_config, "CACertFile");
    if (!read_number(cr_config, "KeepLast", 48, 1, &config->keep_last, reason) ||
        !read_number(cr_config, "KeepAllDays", 0, 0, &config->keep_all_days, reason) ||
        !read_number(cr_config, "KeepDailyDays", 0, 0, &config->keep_daily_days, reason) ||
        !read_number(cr_config, "RetryLimit", 0, 0, &config->retry_limit, reason)) {
        return CR_STATUS_FAILED;
    }
    const cr_status_t b = InifileGetBooleanA(cr_config.c_str(), kSection, "AppendOnly", false, &config->append_only);
    if (b != CR_STATUS_OK && b != CR_STATUS_NOT_FOUND) {
        *reason = "[Offsite] AppendOnly in " + cr_config + " must be yes or no";
        return CR_STATUS_FAILED;
    }
    if (config->password_file.empty()) {
        *reason = "no [Offsite] PasswordFile in " + cr_config;
        return CR_STATUS_FAILED;
    }
    return CR_STATUS_OK;
}

std::string shown_repository(const std::string& repository) {
    static const std::regex kUserinfo("(://[^/@:]*:)[^/@]*@");
    return std::regex_replace(repository, kUserinfo, "$1***@");
}

std::string find_on_path(const std::string& program) {
    if (program.find('/') != std::string::npos) return access(program.c_str(), X_OK) == 0 ? program : "";
    const char* path = getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        const std::string dir = end > start ? dirs.substr(start, end - start) : ".";
        const std::string candidate = dir + "/" + program;
        struct stat st;
        if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        start = end + 1;
    }
    return "";
}

std::string ResticRun::message() const {
    if (!started) return error;
    if (!stop_line.empty()) return stop_line;
    std::string line = last_line_with(err, "Fatal:");
    if (line.empty()) line = last_line_with(err, "");
    if (!line.empty()) return line;
    if (signal != 0) return std::string("ended by signal ") + strsignal(signal);
    return "exit status " + std::to_string(exit_status);
}

std::string Restic::failure(const std::string& what, const ResticRun& run) const {
    std::string text;
    if (!run.started) {
        text = what + " could not run: " + run.error;
    } else if (!run.stopped.empty()) {
        text = what + " was stopped (" + run.stopped + "): " + run.message();
    } else if (run.signal != 0) {
        text = what + " was ended by signal " + std::to_string(run.signal) + ": " + run.message();
    } else {
        text = what + " failed (exit status " + std::to_string(run.exit_status) + "): " + run.message();
    }
    const std::string shown = shown_repository(config_.repository);
    if (shown == config_.repository) return text;
    for (size_t at = text.find(config_.repository); at != std::string::npos;
         at = text.find(config_.repository, at + shown.size())) {
        text.replace(at, config_.repository.size(), shown);
    }
    return text;
}

cr_status_t Restic::usable(std::string* reason) const {
    if (find_on_path("restic").empty()) {
        *reason = "the restic program is not installed (not found on PATH)";
        return CR_STATUS_MISSING;
    }
    struct stat st;
    if (stat(config_.password_file.c_str(), &st) != 0) {
        const int e = errno;
        *reason = "[Offsite] PasswordFile " + config_.password_file + ": " + strerror(e);
        return e == EACCES ? CR_STATUS_ACCESS_DENIED : CR_STATUS_MISSING;
    }
    if ((st.st_mode & (S_IROTH | S_IWOTH)) != 0) {
        char mode[8];
        snprintf(mode, sizeof(mode), "%04o", static_cast<unsigned>(st.st_mode & 07777));
        *reason = "[Offsite] PasswordFile " + config_.password_file + " is open to other users (mode " + mode +
                  "); refused: make it 0600 or 0640";
        return CR_STATUS_ACCESS_DENIED;
    }
    if (access(config_.password_file.c_str(), R_OK) != 0) {
        *reason = "[Offsite] PasswordFile " + config_.password_file + ": " + strerror(errno);
        return CR_STATUS_ACCESS_DENIED;
    }
    // A REST server's password may be written into the repository's address;
    // the file that holds it then deserves the password file's care.
    if (shown_repository(config_.repository) != config_.repository && stat(config_.config_file.c_str(), &st) == 0 &&
        (st.st_mode & S_IROTH) != 0) {
        WarningA(CR_STATUS_OK, "%s: [Offsite] Repository in %s holds a password and other users may read the file "
                 "(mode %04o): make it 0640", "kavrel-shadow offsite", config_.config_file.c_str(),
                 static_cast<unsigned>(st.st_mode & 07777));
    }
    if (!config_.ca_cert_file.empty() && access(config_.ca_cert_file.c_str(), R_OK) != 0) {
        const int e = errno;
        *reason = "[Offsite] CACertFile " + config_.ca_cert_file + ": " + strerror(e);
        return e == EACCES ? CR_STATUS_ACCESS_DENIED : CR_STATUS_MISSING;
    }
    return CR_STATUS_OK;
}

ResticRun Restic::run(const std::vector<std::string>& args, const StopRule& stop) const {
    ResticRun result;
    const std::string program = find_on_path("restic");
    if (program.empty()) {
        result.error = "the restic program is not installed (not found on PATH)";
        return result;
    }
    std::vector<std::string> argv_text = command_line(config_, args);
    std::vector<std::string> env_text;
    for (char** e = environ; *e != nullptr; ++e) {
        if (!overridden_by_us(*e)) env_text.push_back(*e);
    }
    env_text.push_back("RESTIC_REPOSITORY=" + config_.repository);
    // Built before the fork: the child only calls what is safe there.
    std::vector<char*> argv, envp;
    for (std::string& a : argv_text) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    for (std::string& e : env_text) envp.push_back(&e[0]);
    envp.push_back(nullptr);

    int out_pipe[2], err_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0) {
        result.error = std::string("pipe: ") + strerror(errno);
        return result;
    }
    if (pipe2(err_pipe, O_CLOEXEC) != 0) {
        result.error = std::string("pipe: ") + strerror(errno);
        close(out_pipe[0]);
        close(out_pipe[1]);
        return result;
    }
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        result.error = std::string("fork: ") + strerror(errno);
        for (int fd : {out_pipe[0], out_pipe[1], err_pipe[0], err_pipe[1]}) close(fd);
        return result;
    }
    if (pid == 0) {
        // restic must not outlive a push that was killed.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(127);
        const int null_fd = open("/dev/null", O_RDONLY);
        if (null_fd >= 0) dup2(null_fd, 0);
        dup2(out_pipe[1], 1);
        dup2(err_pipe[1], 2);
        execve(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    close(out_pipe[1]);
    close(err_pipe[1]);
    result.started = true;
    unsigned long retries = 0;
    collect(pid, out_pipe[0], err_pipe[0], &result.out, &result.err, [&](const std::string& line) {
        result.stopped = stop ? stop(line) : "";
        if (result.stopped.empty() && config_.retry_limit > 0 &&
            line.find(" returned error, retrying after ") != std::string::npos && ++retries > config_.retry_limit) {
            result.stopped = "the repository failed more often than [Offsite] RetryLimit " +
                             std::to_string(config_.retry_limit) + " allows";
        }
        if (!result.stopped.empty()) result.stop_line = line;
        return !result.stopped.empty();
    });
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

bool Restic::no_repository(const ResticRun& run) {
    if (!run.started) return false;
    if (run.exit_status == 10) return true;
    // restic asks "Is there a repository...?" after any failure to read the
    // config file; only a file that is not there means there is none.
    static const char* const kMissing[] = {"does not exist", "no such file or directory"};
    if (run.err.find("Is there a repository at the following location?") == std::string::npos) return false;
    for (const char* words : kMissing) {
        if (last_line_with(run.err, "Fatal:").find(words) != std::string::npos) return true;
    }
    return false;
}

bool Restic::could_not_open(const ResticRun& run) {
    if (!run.started) return true;
    static const char* const kWords[] = {"wrong password or no key found", "unable to open repository",
                                         "unable to open config file", "Is there a repository at the following"};
    for (const char* words : kWords) {
        if (run.err.find(words) != std::string::npos) return true;
    }
    return false;
}

}  // namespace koffsite
