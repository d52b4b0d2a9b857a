// The off-site repository's settings and the runner of the restic program.
#include "offsite/restic.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <regex>

#include "dct/inifile.h"
#include "dct/log.h"
#include "offsite/json_text.h"

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

// The lines of `text`, without their ends and trailing blanks, the empty
// ones left out.
std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        // restic's progress lines begin by clearing the terminal's line.
        const size_t clear = line.rfind("\x1b[2K");
        if (clear != std::string::npos) line.erase(0, clear + 4);
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
        if (!line.empty()) lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

// The last line of `text` that holds `marker`, from the marker on (restic may
// print "Fatal:" straight after another message, without a line break).
std::string last_line_with(const std::string& text, const std::string& marker) {
    std::string found;
    for (const std::string& line : lines_of(text)) {
        const size_t at = line.find(marker);
        if (at != std::string::npos) found = line.substr(at);
    }
    return found;
}

// What a run of restic `command` does, for a progress line.
std::string doing_of(const std::string& command) {
    static const char* const kDoing[][2] = {
        {"backup", "backing up to the repository"}, {"forget", "forgetting old snapshots"},
        {"snapshots", "listing the snapshots"},      {"check", "checking the repository"},
        {"restore", "fetching the snapshot"},        {"dump", "reading the snapshot's manifest"},
        {"init", "initialising the repository"},     {"unlock", "removing stale locks"}};
    for (const auto& d : kDoing) {
        if (command == d[0]) return d[1];
    }
    return "restic " + command;
}

// The progress line of a restic run: its newest --json status line (backup
// writes them) as a percentage and counts, else the seconds it has taken.
std::string progress_text(const std::string& doing, const std::string& out, int64_t seconds) {
    static const std::string kStatus = "{\"message_type\":\"status\"";
    const size_t end = out.rfind('\n');
    const size_t at = end == std::string::npos ? std::string::npos : out.rfind(kStatus, end);
    if (at != std::string::npos) {
        const ktool::json s = ktool::json::parse(out.substr(at, end - at), nullptr, false);
        if (s.is_object()) {
            char line[160];
            snprintf(line, sizeof(line), "%s: %.0f%%, %llu of %llu files, %llu of %llu bytes", doing.c_str(),
                     s.value("percent_done", 0.0) * 100, s.value("files_done", 0ULL), s.value("total_files", 0ULL),
                     s.value("bytes_done", 0ULL), s.value("total_bytes", 0ULL));
            return line;
        }
    }
    return doing + " (" + std::to_string(seconds) + " s)";
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
    std::string line;
    for (const std::string& l : lines_of(err)) {
        if (l.compare(0, 11, "subprocess ") == 0 || l.find("signal interrupt received") != std::string::npos) continue;
        line = l;
        break;
    }
    if (line.empty() && signal != 0) line = std::string("ended by signal ") + strsignal(signal);
    if (line.empty()) line = "exit status " + std::to_string(exit_status);
    return ssh_error.empty() ? line : line + " (" + ssh_error + ")";
}

std::string Restic::masked(std::string text) const {
    const std::string shown = shown_repository(config_.repository);
    if (shown == config_.repository) return text;
    for (size_t at = text.find(config_.repository); at != std::string::npos;
         at = text.find(config_.repository, at + shown.size())) {
        text.replace(at, config_.repository.size(), shown);
    }
    return text;
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
    if (run.locked) {
        text += "; when no restic of this repository runs any more, kavrel-shadow offsite unlock --all removes it";
    }
    return masked(text);
}

std::string Restic::report(const char* function, cr_status_t status, const std::string& what,
                           const ResticRun& run) const {
    std::string whole;
    for (const std::string& l : lines_of(run.err)) whole += (whole.empty() ? "" : " | ") + l;
    if (!run.ssh_error.empty()) whole += (whole.empty() ? "" : " | ") + run.ssh_error;
    const std::string shown = failure(what, run);
    ErrorA(status, "%s: %s [%s]", function, shown.c_str(), masked(whole).c_str());
    return shown;
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

ResticRun Restic::run_once(const std::vector<std::string>& args, const StopRule& stop) const {
    std::vector<std::string> argv_text = command_line(config_, args);
    std::vector<std::string> env_text;
    for (char** e = environ; *e != nullptr; ++e) {
        if (!overridden_by_us(*e)) env_text.push_back(*e);
    }
    env_text.push_back("RESTIC_REPOSITORY=" + config_.repository);
    std::function<void(const std::string&)> on_output;
    if (progress_) {
        const std::string doing = doing_of(args.front());
        const auto started = std::chrono::steady_clock::now();
        on_output = [this, doing, started](const std::string& out) {
            const auto seconds =
                std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started);
            progress_(progress_text(doing, out, seconds.count()));
        };
    }
    ResticRun result;
    unsigned long retries = 0;
    auto stop_on = [&](const std::string& line) {
        result.stopped = stop ? stop(line) : "";
        if (result.stopped.empty() && config_.retry_limit > 0 &&
            line.find(" returned error, retrying after ") != std::string::npos && ++retries > config_.retry_limit) {
            result.stopped = "the repository failed more often than [Offsite] RetryLimit " +
                             std::to_string(config_.retry_limit) + " allows";
        }
        if (!result.stopped.empty()) result.stop_line = line;
        return !result.stopped.empty();
    };
    ResticRun run = run_program(argv_text, env_text, false, 0, on_output, stop_on);
    run.stopped = result.stopped;
    run.stop_line = result.stop_line;
    return run;
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
