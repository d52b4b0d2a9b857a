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
    // The line that says what went wrong: the line restic was stopped on,
    // else restic's last "Fatal:" line, else its last line of standard
    // error, else the signal or status.
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
    // ends with this process (a killed push leaves no restic behind). restic
    // is stopped (SIGINT, so that it removes its lock; SIGKILL when it has
    // not ended 5 seconds later) on the first line `stop` gives a reason for,
    // or when its retries exceed [Offsite] RetryLimit.
    ResticRun run(const std::vector<std::string>& args, const StopRule& stop = StopRule()) const;

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

    const OffsiteConfig& config() const { return config_; }

private:
    OffsiteConfig config_;
};

// The full path of `program` found on PATH ("" when none).
std::string find_on_path(const std::string& program);

}  // namespace koffsite

#endif  // OFFSITE_RESTIC_H_
