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

#include <string>
#include <vector>

#include "dct/status.h"

namespace koffsite {

// [Offsite] of the CR configuration file.
struct OffsiteConfig {
    std::string config_file;    // where it was read from
    std::string repository;     // Repository: anything restic takes
    std::string password_file;  // PasswordFile
    unsigned long keep_last = 48;  // KeepLast: snapshots of this pool each push keeps
    std::string sftp_command;   // SftpCommand: restic's -o sftp.command (optional)
};

// Reads [Offsite] from `cr_config`. 0 when a repository is named; 72 when
// Repository is missing or empty (nothing configured); 4 for a bad value
// (reason set: a KeepLast that is not a number of at least 1, a missing
// PasswordFile).
cr_status_t read_offsite_config(const std::string& cr_config, OffsiteConfig* config, std::string* reason);

// The repository as it may be shown: a password in "scheme://user:password@"
// is replaced by "***".
std::string shown_repository(const std::string& repository);

// What one run of restic gave.
struct ResticRun {
    bool started = false;  // false: the program could not be run (error says why)
    int exit_status = -1;  // its exit status, -1 when a signal ended it
    int signal = 0;
    std::string out;  // standard output
    std::string err;  // standard error
    std::string error;
    // The line that says what went wrong: restic's last "Fatal:" line, else
    // its last line of standard error, else the signal or status.
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

    // Runs `restic` with the repository, the password file, the SFTP command
    // and `args`, and collects what it writes. The child ends with this
    // process (a killed push leaves no restic behind).
    ResticRun run(const std::vector<std::string>& args) const;

    // Whether a run failed because no repository is there (restic says so in
    // these words; newer versions also exit with 10).
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
