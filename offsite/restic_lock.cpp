// What a run of restic does about a lock left in the repository and about
// an SFTP session that would not start.
//
// restic leaves its lock behind when it is killed (SIGKILL, or SIGTERM,
// which it does not handle), and every later command that needs an
// exclusive lock (forget, prune, check) then fails. `restic unlock` removes
// only the locks whose holder is gone, so running it and trying once more
// never takes a lock away from a restic that still works.
#include <string.h>

#include <string>
#include <vector>

#include "dct/log.h"
#include "offsite/restic.h"

extern char** environ;

namespace koffsite {

namespace {

const char kLockedWords[] = "repository is already locked";

// How long ssh may take to say why it could not connect.
const int kSshSeconds = 20;

// "locked [exclusively] by PID N on HOST by USER (UID n, GID n)" from
// restic's error.
std::string lock_holder(const ResticRun& run) {
    const size_t at = run.err.find(kLockedWords);
    const size_t from = at + strlen(kLockedWords) - strlen("locked");
    const size_t end = run.err.find('\n', at);
    return run.err.substr(from, end == std::string::npos ? std::string::npos : end - from);
}

// Splits a command at blanks; quotes (' or ") keep blanks inside a word.
std::vector<std::string> split_words(const std::string& text) {
    std::vector<std::string> words;
    std::string word;
    bool in_word = false;
    char quote = 0;
    for (char c : text) {
        if (quote != 0) {
            if (c == quote) {
                quote = 0;
            } else {
                word += c;
            }
        } else if (c == '\'' || c == '"') {
            quote = c;
            in_word = true;
        } else if (c == ' ' || c == '\t') {
            if (in_word) words.push_back(word);
            word.clear();
            in_word = false;
        } else {
            word += c;
            in_word = true;
        }
    }
    if (in_word) words.push_back(word);
    return words;
}

// ssh's last line of standard error when it tries to open the SFTP session
// on its own, in batch mode ("" when it has nothing to say).
std::string ask_ssh(const OffsiteConfig& config) {
    std::vector<std::string> argv = sftp_ssh_command(config);
    if (argv.empty()) return "";
    const std::string base = argv[0].substr(argv[0].rfind('/') + 1);
    if (base == "ssh") argv.insert(argv.begin() + 1, {"-o", "BatchMode=yes"});
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) env.push_back(*e);
    const ResticRun ssh = run_program(argv, env, true, kSshSeconds);
    if (!ssh.started) return ssh.error;
    std::string last;
    size_t start = 0;
    while (start < ssh.err.size()) {
        size_t end = ssh.err.find('\n', start);
        if (end == std::string::npos) end = ssh.err.size();
        std::string line = ssh.err.substr(start, end - start);
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
        if (!line.empty()) last = line;
        start = end + 1;
    }
    return last;
}

}  // namespace

std::vector<std::string> sftp_ssh_command(const OffsiteConfig& config) {
    if (!config.sftp_command.empty()) return split_words(config.sftp_command);
    const std::string& repo = config.repository;
    std::string user, host, port;
    if (repo.compare(0, 7, "sftp://") == 0) {
        const std::string rest = repo.substr(7);
        std::string authority = rest.substr(0, rest.find('/'));
        const size_t at = authority.rfind('@');
        if (at != std::string::npos) {
            user = authority.substr(0, at);
            authority.erase(0, at + 1);
        }
        const size_t colon = authority.rfind(':');
        host = authority.substr(0, colon);
        if (colon != std::string::npos) port = authority.substr(colon + 1);
    } else if (repo.compare(0, 5, "sftp:") == 0) {
        std::string authority = repo.substr(5, repo.find(':', 5) - 5);
        const size_t at = authority.rfind('@');
        if (at != std::string::npos) {
            user = authority.substr(0, at);
            authority.erase(0, at + 1);
        }
        host = authority;
    }
    if (host.empty()) return {};
    std::vector<std::string> argv = {"ssh", host};
    if (!port.empty()) argv.insert(argv.end(), {"-p", port});
    if (!user.empty()) argv.insert(argv.end(), {"-l", user});
    argv.insert(argv.end(), {"-s", "sftp"});
    return argv;
}

ResticRun Restic::run(const std::vector<std::string>& args, const StopRule& stop) const {
    ResticRun first = run_once(args, stop);
    if (!first.ok() && first.err.find("unable to start the sftp session") != std::string::npos) {
        first.ssh_error = ask_ssh(config_);
    }
    if (first.ok() || first.err.find(kLockedWords) == std::string::npos) return first;
    const ResticRun unlocked = run_once({"unlock"});
    if (!unlocked.ok()) {
        first.locked = true;
        return first;
    }
    ResticRun again = run_once(args, stop);
    again.locked = !again.ok() && again.err.find(kLockedWords) != std::string::npos;
    if (!again.locked) {
        const std::string note =
            "removed a stale lock from the repository (" + masked(lock_holder(first)) + "): its holder is gone";
        WarningA(CR_STATUS_OK, "%s: %s", "kavrel-shadow offsite", note.c_str());
        if (note_) note_(note);
    }
    return again;
}

cr_status_t Restic::unlock(bool all, std::string* reason) const {
    const ResticRun run = run_once(all ? std::vector<std::string>{"unlock", "--remove-all"}
                                       : std::vector<std::string>{"unlock"});
    if (run.ok()) return CR_STATUS_OK;
    *reason = report("kavrel-shadow offsite unlock", CR_STATUS_FAILED, "restic unlock", run);
    return CR_STATUS_FAILED;
}

}  // namespace koffsite
