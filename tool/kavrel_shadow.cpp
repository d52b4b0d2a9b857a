// kavrel-shadow: the operator's command for the catalog shadow. Its commands
// and exit statuses are those of kUsage below and kavrel-shadow(8); the work
// itself is the offsite library's, done on each database under its directory
// lock, as the services do. status, verify, recover --dry-run and metrics
// change nothing on disk and need only read access.
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "appdb/kavrel_config.h"
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"
#include "catalog_shadow/DirectoryLock.h"
#include "dct/log.h"
#include "dct/time_text.h"
#include "offsite/metrics.h"
#include "offsite/shadow_actions.h"
#include "offsite/shadow_inventory.h"
#include "tool/offsite_command.h"
#include "tool/progress.h"
#include "tool/shadow_export_command.h"
#include "tool/shadow_init.h"
#include "tool/shadow_report.h"

namespace {

using namespace kshadow;

const char kUsage[] =
    "Check, back up and restore the catalog shadow.\n"
    "Usage:\tkavrel-shadow [--json | --json-lines] [--quiet] [--registry FILE] COMMAND [DATABASE-DIR | --all]\n"
    "Commands:\n"
    "\tstatus                 the live databases, their versions and journals (default --all)\n"
    "\tverify                 reads and checks everything; changes nothing (default --all)\n"
    "\tbackup                 takes a version now (DATABASE-DIR or --all)\n"
    "\trecover [--dry-run]    rebuilds DATABASE-DIR from its shadow, or shows the plan\n"
    "\trecover --missing      rebuilds every database that has a shadow but no live file\n"
    "\tinit                   creates the shadow root and its identity file\n"
    "\texport DIR             copies every database's versions and journals into DIR\n"
    "\tverify --export DIR    checks such a copy on its own; changes nothing\n"
    "\toffsite init           creates the [Offsite] repository (no other command does)\n"
    "\toffsite push [--if-configured]\n"
    "\t                       exports the shadow and backs it up to the [Offsite] repository\n"
    "\toffsite snapshots [--all-pools]  the pool's (every pool's) snapshots in the repository\n"
    "\toffsite check          checks the repository and the newest snapshot's export\n"
    "\toffsite restore [SNAPSHOT | latest] [--before TIME] [--dry-run]\n"
    "\t                       brings the shadow back and rebuilds every missing database\n"
    "\toffsite forget [--dry-run]  applies the [Offsite] Keep* rule where deletion is allowed\n"
    "\toffsite unlock [--all] removes the repository's stale locks (--all: every lock)\n"
    "\tmetrics [--output FILE] [--per-database]  the pool's state for Prometheus\n"
    "Exit status: 0 all well, 1 problems found, 2 usage, 3 could not run,\n"
    "\t4 some file or directory could not be read (permission denied).\n";

struct Options {
    Output output = Output::text;
    std::string registry;
    std::string command;
    std::string dir;
    std::string export_dir;  // verify --export
    std::string metrics_file;  // metrics --output
    bool per_database = false;
    bool all = false;
    bool dry_run = false;
    bool missing = false;
    bool help = false;
    koffsite::OffsiteOptions offsite;
};

// A usage error: `error` set to `why`, false returned.
bool refuse(std::string* error, const std::string& why) {
    *error = why;
    return false;
}

// The rest of an offsite command line: its command, a snapshot, --before and
// --if-configured; false (with `error` set) on a usage error.
bool parse_offsite(Options* o, std::string* error) {
    koffsite::OffsiteOptions& off = o->offsite;
    const std::string& c = off.command;
    if (c != "init" && c != "push" && c != "snapshots" && c != "check" && c != "restore" && c != "forget" &&
        c != "unlock") {
        return refuse(error, c.empty() ? "offsite needs a command: init, push, snapshots, check, restore, forget or unlock"
                                       : "unknown offsite command " + c);
    }
    if ((o->all && c != "unlock") || (off.all && c != "snapshots") || o->missing || !o->export_dir.empty()) {
        return refuse(error, "offsite " + c + " takes no --all, --all-pools, --missing or --export");
    }
    if (!off.snapshot.empty() && c != "restore") return refuse(error, "unexpected argument " + off.snapshot);
    if ((o->dry_run && c != "restore" && c != "forget") || (off.has_before && c != "restore")) {
        return refuse(error, "--dry-run belongs to offsite restore and forget, --before to offsite restore");
    }
    if (off.if_configured && c != "push") return refuse(error, "--if-configured belongs to offsite push");
    off.dry_run = o->dry_run;
    off.all = off.all || o->all;
    off.json = o->output == Output::json;
    off.json_lines = o->output == Output::json_lines;
    return true;
}

bool check_args(Options* o, std::string* error);

// Parses the arguments; false (with `error` set) on a usage error.
bool parse_args(int argc, char** argv, Options* o, std::string* error) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--json") {
            o->output = Output::json;
        } else if (arg == "--json-lines") {
            o->output = Output::json_lines;
        } else if (arg == "--registry") {
            if (i + 1 >= argc) return refuse(error, "--registry needs a file");
            o->registry = argv[++i];
        } else if (arg == "--all" || arg == "--all-pools" || arg == "--per-database") {
            (arg == "--all" ? o->all : arg == "--all-pools" ? o->offsite.all : o->per_database) = true;
        } else if (arg == "--quiet") {
            Progress::silence();
        } else if (arg == "--dry-run") {
            o->dry_run = true;
        } else if (arg == "--export" || arg == "--output") {
            if (i + 1 >= argc) return refuse(error, arg + (arg == "--export" ? " needs a directory" : " needs a file"));
            (arg == "--export" ? o->export_dir : o->metrics_file) = argv[++i];
        } else if (arg == "--missing") {
            o->missing = true;
        } else if (arg == "--if-configured") {
            o->offsite.if_configured = true;
        } else if (arg == "--before") {
            if (i + 1 >= argc || !dct::parse_time(argv[i + 1], time(nullptr), &o->offsite.before)) {
                return refuse(error, i + 1 >= argc ? "--before needs a time"
                                                   : std::string("--before: not a time: ") + argv[i + 1]);
            }
            o->offsite.has_before = true;
            ++i;
        } else if (arg == "-h" || arg == "--help") {
            o->help = true;
        } else if (!arg.empty() && arg[0] == '-') {
            return refuse(error, "unknown option " + arg);
        } else if (o->command.empty()) {
            o->command = arg;
        } else if (o->command == "offsite" && o->offsite.command.empty()) {
            o->offsite.command = arg;
        } else if (o->command == "offsite" && o->offsite.snapshot.empty()) {
            o->offsite.snapshot = arg;
        } else if (o->dir.empty()) {
            o->dir = arg;
        } else {
            return refuse(error, "unexpected argument " + arg);
        }
    }
    return o->help || check_args(o, error);
}

// The rules between the arguments; false (with `error` set) when one is broken.
bool check_args(Options* o, std::string* error) {
    const std::string& c = o->command;
    if ((!o->metrics_file.empty() || o->per_database) && c != "metrics") {
        return refuse(error, "--output and --per-database belong to metrics");
    }
    if (c == "offsite") return parse_offsite(o, error);
    if (o->offsite.has_before || o->offsite.if_configured || o->offsite.all) {
        return refuse(error, "--before, --if-configured and --all-pools belong to offsite");
    }
    if (c != "status" && c != "verify" && c != "backup" && c != "recover" && c != "init" && c != "export" &&
        c != "metrics") {
        return refuse(error, c.empty() ? "no command given" : "unknown command " + c);
    }
    if (!o->dir.empty() && (o->all || o->missing)) {
        return refuse(error, "give either a database directory or --all / --missing");
    }
    if ((o->dry_run || o->missing) && c != "recover") {
        return refuse(error, "--dry-run and --missing belong to recover");
    }
    if (c == "recover") {
        if (o->all) return refuse(error, "recover takes a database directory or --missing, not --all");
        if (o->dir.empty() && !o->missing) return refuse(error, "recover needs a database directory or --missing");
    }
    if ((c == "init" || c == "metrics") && (!o->dir.empty() || o->all)) {
        return refuse(error, c + " takes no database directory");
    }
    if (!o->export_dir.empty() && (c != "verify" || !o->dir.empty() || o->all)) {
        return refuse(error, "--export DIR belongs to verify, without a database directory");
    }
    if (c == "export" && (o->dir.empty() || o->all)) return refuse(error, "export needs a directory to export into");
    if (c == "backup" && o->dir.empty() && !o->all) {
        return refuse(error, "backup needs a database directory or --all");
    }
    if (o->dir.empty()) {
        o->all = true;
    } else if (o->dir[0] != '/') {
        // Directories are compared with the configured roots, which are absolute.
        char cwd[4096];
        if (getcwd(cwd, sizeof(cwd)) != nullptr) o->dir = std::string(cwd) + "/" + o->dir;
    }
    return true;
}

// The one line of a command that could not run, or could not read what it
// needed; returns its exit status.
int cannot_run_line(const std::string& why, int code) {
    if (code == kExitCannotRun) return cannot_run(why);
    fprintf(stderr, "kavrel-shadow: %s\n", why.c_str());
    return code;
}

int run_init(CatalogShadowContext& context, bool json) {
    InitReport report;
    const cr_status_t status = init_shadow_root(context, &report);
    fputs((json ? init_json(report) : init_text(report)).c_str(), stdout);
    if (status == CR_STATUS_NONE) return cannot_run(report.reason);
    return status == CR_STATUS_OK ? kExitOk : kExitProblems;
}

int run(const Options& o) {
    std::string why;
    if (!o.export_dir.empty()) {
        const int code = run_verify_export(o.export_dir, o.output, &why);
        return why.empty() ? code : cannot_run_line(why, code);
    }
    std::string cr_config;
    const std::string registry = appdb::registry_path(o.registry);
    if (appdb::locate_cr_config(registry, &cr_config) != CR_STATUS_OK) {
        fprintf(stderr, "kavrel-shadow: no CR configuration file found through %s\n", registry.c_str());
        return kExitCannotRun;
    }
    std::string root = appdb::read_database_root(cr_config);
    if (!root.empty() && root.back() == '/') root.pop_back();
    if (root.empty()) {
        fprintf(stderr, "kavrel-shadow: %s names no database root\n", cr_config.c_str());
        return kExitCannotRun;
    }
    CatalogShadowContext context(new ConfigFileShadowProxy(cr_config, root), new CatalogDirectoryLock());
    if (o.command == "init") return run_init(context, o.output != Output::text);
    if (o.command == "offsite") return koffsite::run_offsite(context, cr_config, root, o.offsite);
    if (o.command == "metrics") {
        std::string text;  // "" when written to the file
        const cr_status_t st = koffsite::write_metrics(context, cr_config, o.per_database, o.metrics_file, &text, &why);
        fputs(text.c_str(), stdout);
        if (!why.empty()) return cannot_run(why);
        return st == CR_STATUS_OK ? kExitOk : st == CR_STATUS_ACCESS_DENIED ? kExitNotReadable : kExitCannotRun;
    }
    const int started = start_shadow(context);
    if (started != kExitOk) return started;

    if (o.command == "export") {
        const int code = run_export(context, o.dir, o.output, &why);
        return why.empty() ? code : cannot_run_line(why, code);
    }

    std::vector<Target> targets;
    std::vector<std::string> unreadable;
    if (o.all) {
        targets = find_all_databases(context, &unreadable);
    } else if (find_databases_in(context, o.dir, &targets) != CR_STATUS_OK) {
        fprintf(stderr, "kavrel-shadow: %s is not a catalog database directory of this pool\n", o.dir.c_str());
        return kExitUsage;
    }

    const std::string command = o.command + (o.dry_run ? " --dry-run" : o.missing ? " --missing" : "");
    const koffsite::RunClock clock;
    std::vector<DatabaseReport> reports;
    {
        const Work work = work_of_command(o.command, o.dry_run);
        Progress progress(work_verb(work), targets.size());
        for (size_t i = 0; i < targets.size(); ++i) {
            if (o.missing && has_live_file(targets[i])) continue;
            progress.step(i, targets[i].dir);
            DatabaseReport r;
            r.target = targets[i];
            work_on_database(context, work, &r);
            reports.push_back(r);
            if (o.output == Output::json_lines) {
                printf("%s\n", database_json(r).c_str());
                fflush(stdout);
            } else if (o.output == Output::text) {
                printf("%s\n", database_text(command, r).c_str());
                fflush(stdout);
            }
        }
    }

    Summary summary = summarize(reports, unreadable);
    if (o.command == "status" || o.command == "verify") summary.pool_problems = pool_problems(context);
    summary.problems += summary.pool_problems.size();
    const bool nothing = !o.all && !o.missing && reports.empty();
    const bool failed = summary.problems > summary.not_readable || nothing;
    summary.exit_code = failed ? kExitProblems : summary.not_readable > 0 ? kExitNotReadable : kExitOk;
    const cr_status_t done = summary.exit_code == kExitOk ? CR_STATUS_OK : CR_STATUS_FAILED;
    if (o.command == "backup" && o.all) koffsite::record_run(context, koffsite::RecordedRun::backup, clock, done);
    if (nothing) fprintf(stderr, "kavrel-shadow: no catalog database in %s\n", o.dir.c_str());
    switch (o.output) {
    case Output::text: fputs(summary_text(command, summary).c_str(), stdout); break;
    case Output::json: fputs(document_json(command, reports, summary).c_str(), stdout); break;
    case Output::json_lines: fputs(summary_json_line(command, summary).c_str(), stdout); break;
    }
    return summary.exit_code;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    std::string error;
    if (!parse_args(argc, argv, &options, &error)) {
        fprintf(stderr, "kavrel-shadow: %s\n%s", error.c_str(), kUsage);
        return kExitUsage;
    }
    if (options.help) {
        fputs(kUsage, stdout);
        return kExitOk;
    }
    try {
        return run(options);
    } catch (...) {
        ErrorA(CR_STATUS_FAILED, "%s: unexpected exception", "kavrel-shadow");
        return cannot_run("unexpected failure");
    }
}
