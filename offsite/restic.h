// The off-site repository: its settings ([Offsite] in the pool's CR
// configuration file) and the one way kavrel runs the `restic` program.
//
// kavrel never reads or writes a repository's files itself. Secrets stay out
// of sight of other users: the repository (which may carry a backend's
// credentials) reaches restic through its environment, the password through
// --password-file, and neither is ever put on a command line, into a log
// record or into the output (`shown_repository` masks a password in it).
#ifndef OFFSITE_RESTIC_H_
#define OFFSITE_RESTIC_H_

#include <functional>
#include <string>
#include <vector>

#include "dct/status.h"

namespace koffsite {

// [Offsite] of the CR configuration file.
struct OffsiteConfig {
    std::string config_file;    // where it was read from
    std::string repository;     // Repository: anything restic takes
    std::string password_file;  // PasswordFile
    unsigned long keep_last = 48;  // KeepLast: the newest snapshots of this pool that are kept
    unsigned long keep_all_days = 0;    // KeepAllDays: every snapshot of this many days is kept too
    unsigned long keep_daily_days = 0;  // KeepDailyDays: and the newest of each day for this many days
    // AppendOnly: the repository refuses deletion (a REST server in
    // append-only mode); a push never forgets, the repository's host does.
    bool append_only = false;
    std::string sftp_command;   // SftpCommand: restic's -o sftp.command (optional)
    std::string ca_cert_file;   // CACertFile: restic's --cacert, the CA of a TLS server (optional)
    // RetryLimit: restic is stopped after this many of its retries in one
    // run (its lines "... returned error, retrying after ..."); 0: restic's
    // own limit.
    unsigned long retry_limit = 0;
};

// Reads [Offsite] from `cr_config`. 0 when a repository is named; 72 when
// Repository is missing or empty (nothing configured); 4 for a bad value
// (reason set: a KeepLast that is not a number of at least 1, a number or
// boolean key that is not one, a missing PasswordFile).
cr_status_t read_offsite_config(const std::string& cr_config, OffsiteConfig* config, std::string* reason);

// The repository as it may be shown: a password in "scheme://user:password@"
// is replaced by "***".
std::string shown_repository(const std::string& repository);

// What one run of restic gave.
struct ResticRun {
    bool started = false;  // false: the program could not be run (error says why)
    int exit_status = -1;  // its exit status, -1 when a signal ended it
    int signal = 0;
    // Why kavrel stopped restic before it ended ("" when it did not), and
    // the line of restic's standard error that made it stop.
    std::string stopped;
    std::string stop_line;
    std::string out;  // standard output
    std::string err;  // standard error
    std::string error;
    // ssh's last line when restic could not start its SFTP session (ssh run
    // again on its own to hear it: restic may drop ssh's words), else "".
    std::string ssh_error;
    bool locked = false;  // still failed on a lock held by a live restic (or another host's)
    // The line that says what went wrong: the line restic was stopped on,
    // else restic's first line of standard error that is its own (not a
    // relayed "subprocess" line), with ssh's line after it; else the signal
    // or status.
    std::string message() const;
    bool ok() const { return started && exit_status == 0; }
};

class Restic {
public:
    explicit Restic(const OffsiteConfig& config) : config_(config) {}

    // Whether restic can be run at all: the program on PATH, the password
    // file there, readable, and not readable or writable by others. 0, or 2
    // (reason set) when the program or the password file is missing, 106 when
    // the password file may not be read or is open to others.
    cr_status_t usable(std::string* reason) const;

    // Decides, for each line restic writes to its standard error, whether
    // to stop it there: returns why ("" to let it go on).
    using StopRule = std::function<std::string(const std::string& line)>;

    // Runs `restic` with the repository, the password file, the SFTP
    // command, the CA file and `args`, and collects what it writes. The child
    // ends with this process: it is interrupted (SIGINT, on which restic
    // removes its lock) when this process dies, however it dies. restic is
    // stopped (SIGINT; SIGKILL when it has not ended 5 seconds later) on the
    // first line `stop` gives a reason for, or when its retries exceed
    // [Offsite] RetryLimit.
    // A run that meets a lock runs `restic unlock`, which removes only the
    // locks whose holder is gone (a restic of this host that no longer
    // runs, or a lock not refreshed for 30 minutes), and runs once more; a
    // lock removed so is told to the note function and logged. A run that
    // cannot start its SFTP session asks ssh why (ssh_error).
    ResticRun run(const std::vector<std::string>& args, const StopRule& stop = StopRule()) const;

    // `restic unlock` (with --remove-all when `all`: every lock, also those
    // of running restics). 0, or 4 with `reason` set (logged).
    cr_status_t unlock(bool all, std::string* reason) const;

    // Where the notes of a run go (a stale lock removed); none by default.
    void set_note(std::function<void(const std::string&)> note) { note_ = std::move(note); }

    // Where a command says what it is doing, for a progress line, while it
    // runs ("backing up: 42%, 3 of 9 files, ..."; "" when it is done); none
    // by default. While restic runs, its --json status lines or the seconds
    // it took so far are given.
    void set_progress(std::function<void(const std::string&)> progress) { progress_ = std::move(progress); }
    void progress(const std::string& what) const {
        if (progress_) progress_(what);
    }

    // Whether a run failed because no repository is there (restic says so in
    // these words; newer versions also exit with 10), not because the
    // backend could not be reached or refused the credentials.
    static bool no_repository(const ResticRun& run);
    // Whether a run failed before it could use the repository at all: none
    // there, a wrong password, a backend that cannot be reached.
    static bool could_not_open(const ResticRun& run);

    // "WHAT failed (exit status N): MESSAGE", the repository masked as
    // shown_repository does wherever restic repeated it.
    std::string failure(const std::string& what, const ResticRun& run) const;
    // failure(), after logging it once with all that restic wrote to its
    // standard error (each line, masked, separated by " | ").
    std::string report(const char* function, cr_status_t status, const std::string& what,
                       const ResticRun& run) const;

    const OffsiteConfig& config() const { return config_; }

private:
    ResticRun run_once(const std::vector<std::string>& args, const StopRule& stop = StopRule()) const;
    std::string masked(std::string text) const;

    OffsiteConfig config_;
    std::function<void(const std::string&)> note_;
    std::function<void(const std::string&)> progress_;
};

// Clears the progress line of a command when the command ends.
class ProgressEnd {
public:
    explicit ProgressEnd(const Restic& restic) : restic_(restic) {}
    ~ProgressEnd() { restic_.progress(""); }
    ProgressEnd(const ProgressEnd&) = delete;
    ProgressEnd& operator=(const ProgressEnd&) = delete;

private:
    const Restic& restic_;
};

// Runs `argv` (argv[0] found on PATH) with `envp` and standard input from
// /dev/null, collecting its output, which goes to unlinked temporary files
// (never a pipe that breaks when this process dies); with `own_session` a
// child of its own session (no terminal to ask a password on). The child is
// interrupted (SIGINT) when this process dies. With `timeout_seconds` > 0 it
// (its process group) is killed after that long. `on_output`, when set, is
// given standard output so far every few milliseconds while it runs.
// `stop_on`, when set, is given each complete line of standard error as it
// comes; when it returns true the child is interrupted (SIGINT, so that
// restic removes its lock) and killed 5 seconds later if it has not ended.
ResticRun run_program(const std::vector<std::string>& argv, const std::vector<std::string>& envp,
                      bool own_session, int timeout_seconds,
                      const std::function<void(const std::string&)>& on_output = nullptr,
                      const std::function<bool(const std::string&)>& stop_on = nullptr);

// The ssh command restic runs for an SFTP repository: SftpCommand split at
// blanks (quotes kept together), else "ssh HOST [-p PORT] [-l USER] -s sftp"
// from "sftp:[USER@]HOST:PATH" or "sftp://[USER@]HOST[:PORT]/PATH". Empty for
// any other repository.
std::vector<std::string> sftp_ssh_command(const OffsiteConfig& config);

// The full path of `program` found on PATH ("" when none).
std::string find_on_path(const std::string& program);

}  // namespace koffsite

#endif  // OFFSITE_RESTIC_H_
