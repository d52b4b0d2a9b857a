// bench_runner: runs one comparison, kavrel beside its baseline, and keeps the
// result; prints the collected results as one table.
//
//   bench_runner run --out FILE --op NAME --size TEXT --kavrel CMD --baseline CMD
//                    [--mode wall|report] [--runs N] [--prep CMD] [--check-output]
//                    [--units N --unit WORD] [--per] [--series NAME]
//                    [--target R] [--mem-target R] [--note TEXT]
//   bench_runner table FILE
//
// Each command runs through /bin/sh -c as a child process, stdin from
// /dev/null, standard error inherited. Time: with --mode wall the wall clock
// from fork to wait4; with --mode report the child's own measurement, the
// "elapsed_ns=N" line it prints on standard output (process start and set-up
// are then left out). Peak memory: ru_maxrss of the child from wait4 (for a
// shell command, its largest process).
//
// One warm-up run of each side comes first (with --check-output their
// standard outputs must be byte-identical, compared by hash), then --runs
// rounds of both, alternating which goes first (ABBA), each after --prep.
// Alternation spreads the noise of a shared machine over both sides; the
// ratio of the two medians is what counts.
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct run_result {
    double seconds = 0;
    double cpu_seconds = 0;  // user + system time of the child and its children
    long maxrss_kib = 0;
    uint64_t output_hash = 0;
    bool ok = false;
};

double now_seconds() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Runs `cmd` under /bin/sh -c. `capture`: read its standard output (hashed,
// and searched for "elapsed_ns=") instead of sending it to /dev/null.
run_result run_command(const std::string& cmd, bool capture, bool report) {
    run_result r;
    int pipefd[2] = {-1, -1};
    if (capture && pipe(pipefd) != 0) {
        perror("bench_runner: pipe");
        return r;
    }
    const double start = now_seconds();
    pid_t pid = fork();
    if (pid < 0) {
        perror("bench_runner: fork");
        return r;
    }
    if (pid == 0) {
        int in = open("/dev/null", O_RDONLY);
        dup2(in, 0);
        if (capture) {
            dup2(pipefd[1], 1);
            close(pipefd[0]);
            close(pipefd[1]);
        } else {
            int out = open("/dev/null", O_WRONLY);
            dup2(out, 1);
        }
        execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    std::string text;
    uint64_t hash = 1469598103934665603ULL;  // FNV-1a
    if (capture) {
        close(pipefd[1]);
        char buf[65536];
        ssize_t n;
        while ((n = read(pipefd[0], buf, sizeof(buf))) > 0) {
            for (ssize_t i = 0; i < n; ++i) hash = (hash ^ static_cast<unsigned char>(buf[i])) * 1099511628211ULL;
            // Only the report line is kept; listings can be large.
            if (report) text.append(buf, static_cast<size_t>(n));
        }
        close(pipefd[0]);
    }
    int status = 0;
    struct rusage ru;
    memset(&ru, 0, sizeof(ru));
    while (wait4(pid, &status, 0, &ru) < 0) {
        if (errno != EINTR) {
            perror("bench_runner: wait4");
            return r;
        }
    }
    r.seconds = now_seconds() - start;
    r.maxrss_kib = ru.ru_maxrss;
    r.cpu_seconds = static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
                    static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1e-6;
    r.output_hash = hash;
    r.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!r.ok) {
        fprintf(stderr, "bench_runner: command failed (status %d): %s\n", status, cmd.c_str());
        return r;
    }
    if (report) {
        const size_t at = text.rfind("elapsed_ns=");
        if (at == std::string::npos) {
            fprintf(stderr, "bench_runner: no elapsed_ns line from: %s\n", cmd.c_str());
            r.ok = false;
            return r;
        }
        r.seconds = static_cast<double>(strtoll(text.c_str() + at + 11, nullptr, 10)) * 1e-9;
    }
    return r;
}

bool run_prep(const std::string& prep) {
    if (prep.empty()) return true;
    const int rc = system(prep.c_str());
    if (rc != 0) fprintf(stderr, "bench_runner: preparation failed: %s\n", prep.c_str());
    return rc == 0;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    if (n == 0) return 0;
    return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

std::string escape_field(const std::string& s) {
    std::string out = s;
    std::replace(out.begin(), out.end(), '\t', ' ');
    std::replace(out.begin(), out.end(), '\n', ' ');
    return out;
}

// ---- run ----

int do_run(const std::map<std::string, std::string>& opt, bool check_output, bool per) {
    auto get = [&](const char* k, const char* d = "") {
        auto it = opt.find(k);
        return it == opt.end() ? std::string(d) : it->second;
    };
    const std::string out = get("out"), kavrel = get("kavrel"), baseline = get("baseline");
    if (out.empty() || kavrel.empty() || baseline.empty() || get("op").empty()) {
        fprintf(stderr, "bench_runner run: --out, --op, --kavrel and --baseline are required\n");
        return 2;
    }
    const bool report = get("mode", "wall") == "report";
    const int runs = std::max(1, atoi(get("runs", "5").c_str()));
    const std::string prep = get("prep");
    const std::string label = get("op") + " " + get("size");

    fprintf(stderr, "== %s: warm-up\n", label.c_str());
    const bool capture_warm = report || check_output;
    if (!run_prep(prep)) return 1;
    run_result wk = run_command(kavrel, capture_warm, report);
    if (!run_prep(prep)) return 1;
    run_result wb = run_command(baseline, capture_warm, report);
    if (!wk.ok || !wb.ok) return 1;
    if (check_output && wk.output_hash != wb.output_hash) {
        fprintf(stderr, "bench_runner: %s: kavrel and the baseline print different output\n", label.c_str());
        return 1;
    }

    std::vector<double> tk, tb, ck, cb;
    long peak_k = std::max(0L, wk.maxrss_kib), peak_b = std::max(0L, wb.maxrss_kib);
    for (int round = 0; round < runs; ++round) {
        for (int side = 0; side < 2; ++side) {
            const bool kavrel_side = (side == 0) == (round % 2 == 0);
            if (!run_prep(prep)) return 1;
            run_result r = run_command(kavrel_side ? kavrel : baseline, report, report);
            if (!r.ok) return 1;
            (kavrel_side ? tk : tb).push_back(r.seconds);
            (kavrel_side ? ck : cb).push_back(r.cpu_seconds);
            long& peak = kavrel_side ? peak_k : peak_b;
            peak = std::max(peak, r.maxrss_kib);
        }
    }
    const double mk = median(tk), mb = median(tb);
    const double ratio = mb > 0 ? mk / mb : 0;
    // CPU time is steadier than wall time on a busy machine, but says nothing
    // of waits (syncs) and, in report mode, covers the whole process.
    const double cpu_ratio = median(cb) > 0 ? median(ck) / median(cb) : 0;
    fprintf(stderr, "== %s: kavrel %.6f s, baseline %.6f s, ratio %.3f (CPU %.3f), peak %ld / %ld KiB\n",
            label.c_str(), mk, mb, ratio, cpu_ratio, peak_k, peak_b);

    std::ofstream f(out, std::ios::app);
    f << escape_field(get("op")) << '\t' << escape_field(get("size")) << '\t' << escape_field(get("series")) << '\t'
      << get("units", "1") << '\t' << escape_field(get("unit")) << '\t' << (per ? 1 : 0) << '\t' << mk << '\t' << mb
      << '\t' << ratio << '\t' << peak_k << '\t' << peak_b << '\t' << get("target") << '\t' << get("mem-target")
      << '\t' << runs << '\t' << escape_field(get("note")) << '\t' << (report ? 0.0 : cpu_ratio) << '\n';
    return f ? 0 : 1;
}

// ---- table ----

struct row {
    std::string op, size, series, unit, target, mem_target, note;
    double units = 1, mk = 0, mb = 0, ratio = 0, cpu_ratio = 0;
    bool per = false;
    long peak_k = 0, peak_b = 0;
    int runs = 0;
};

std::string format_time(double seconds) {
    char buf[64];
    const double a = seconds < 0 ? -seconds : seconds;
    if (a >= 1)
        snprintf(buf, sizeof(buf), "%.2f s", seconds);
    else if (a >= 1e-3)
        snprintf(buf, sizeof(buf), "%.2f ms", seconds * 1e3);
    else if (a >= 1e-6)
        snprintf(buf, sizeof(buf), "%.2f µs", seconds * 1e6);
    else
        snprintf(buf, sizeof(buf), "%.0f ns", seconds * 1e9);
    return buf;
}

std::string format_mib(long kib) {
    char buf[32];
    snprintf(buf, sizeof(buf), "%.1f", static_cast<double>(kib) / 1024.0);
    return buf;
}

// "ok", or "MISSED" with what was missed.
std::string verdict(const row& r) {
    std::string out;
    if (!r.target.empty() && r.ratio > atof(r.target.c_str())) out += "time";
    if (!r.mem_target.empty() && r.peak_b > 0 &&
        static_cast<double>(r.peak_k) / static_cast<double>(r.peak_b) > atof(r.mem_target.c_str())) {
        out += out.empty() ? "memory" : " and memory";
    }
    if (out.empty()) return r.target.empty() && r.mem_target.empty() ? "" : "ok";
    return "MISSED (" + out + ")";
}

int do_table(const std::string& file) {
    std::ifstream in(file);
    if (!in) {
        fprintf(stderr, "bench_runner table: cannot read %s\n", file.c_str());
        return 1;
    }
    std::vector<row> rows;
    std::string line;
    while (std::getline(in, line)) {
        std::vector<std::string> f;
        std::stringstream ss(line);
        std::string field;
        while (std::getline(ss, field, '\t')) f.push_back(field);
        while (f.size() < 16) f.push_back("");
        row r;
        r.op = f[0];
        r.size = f[1];
        r.series = f[2];
        r.units = atof(f[3].c_str());
        if (r.units <= 0) r.units = 1;
        r.unit = f[4];
        r.per = f[5] == "1";
        r.mk = atof(f[6].c_str());
        r.mb = atof(f[7].c_str());
        r.ratio = atof(f[8].c_str());
        r.peak_k = atol(f[9].c_str());
        r.peak_b = atol(f[10].c_str());
        r.target = f[11];
        r.mem_target = f[12];
        r.runs = atoi(f[13].c_str());
        r.note = f[14];
        r.cpu_ratio = atof(f[15].c_str());
        rows.push_back(r);
    }

    printf("| operation | size | kavrel (median) | baseline (median) | ratio | target | peak memory kavrel / "
           "baseline (MiB) | verdict | baseline |\n");
    printf("|---|---|---:|---:|---:|---:|---:|---|---|\n");
    for (const row& r : rows) {
        if (!r.series.empty() && r.target.empty() && r.mem_target.empty()) continue;  // scaling points only
        const double div = r.per ? r.units : 1;
        std::string tk = format_time(r.mk / div), tb = format_time(r.mb / div);
        if (r.per && !r.unit.empty()) {
            tk += "/" + r.unit;
            tb += "/" + r.unit;
        }
        char ratio[48], mem[64];
        if (r.cpu_ratio > 0)
            snprintf(ratio, sizeof(ratio), "%.2f (CPU %.2f)", r.ratio, r.cpu_ratio);
        else
            snprintf(ratio, sizeof(ratio), "%.2f", r.ratio);
        snprintf(mem, sizeof(mem), "%s / %s", format_mib(r.peak_k).c_str(), format_mib(r.peak_b).c_str());
        std::string target = r.target.empty() ? "" : "≤ " + r.target;
        if (!r.mem_target.empty()) target += (target.empty() ? "" : ", ") + std::string("mem ≤ ") + r.mem_target;
        printf("| %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", r.op.c_str(), r.size.c_str(), tk.c_str(),
               tb.c_str(), ratio, target.c_str(), mem, verdict(r).c_str(), r.note.c_str());
    }

    std::vector<std::string> series;
    for (const row& r : rows) {
        if (!r.series.empty() && std::find(series.begin(), series.end(), r.series) == series.end())
            series.push_back(r.series);
    }
    for (const std::string& s : series) {
        printf("\nScaling: %s\n\n", s.c_str());
        // Besides the time per unit, the time each unit added since the
        // previous size costs: fixed costs (process start, opening, copying a
        // version) cancel out of it, so it stays flat when growth is linear.
        printf("| size | kavrel | per unit | per added unit | baseline | per unit | per added unit | ratio | "
               "peak memory kavrel / baseline (MiB) |\n");
        printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|\n");
        std::vector<row> points;
        for (const row& r : rows) {
            if (r.series == s) points.push_back(r);
        }
        std::stable_sort(points.begin(), points.end(), [](const row& a, const row& b) { return a.units < b.units; });
        const row* prev = nullptr;
        for (const row& r : points) {
            const std::string unit = r.unit.empty() ? "" : "/" + r.unit;
            std::string added_k = "", added_b = "";
            if (prev != nullptr && r.units > prev->units) {
                added_k = format_time((r.mk - prev->mk) / (r.units - prev->units)) + unit;
                added_b = format_time((r.mb - prev->mb) / (r.units - prev->units)) + unit;
            }
            printf("| %s | %s | %s%s | %s | %s | %s%s | %s | %.2f | %s / %s |\n", r.size.c_str(),
                   format_time(r.mk).c_str(), format_time(r.mk / r.units).c_str(), unit.c_str(), added_k.c_str(),
                   format_time(r.mb).c_str(), format_time(r.mb / r.units).c_str(), unit.c_str(), added_b.c_str(),
                   r.ratio, format_mib(r.peak_k).c_str(), format_mib(r.peak_b).c_str());
            prev = &r;
        }
    }
    return 0;
}

void usage() {
    fprintf(stderr,
            "usage: bench_runner run --out FILE --op NAME --size TEXT --kavrel CMD --baseline CMD\n"
            "                        [--mode wall|report] [--runs N] [--prep CMD] [--check-output]\n"
            "                        [--units N --unit WORD] [--per] [--series NAME]\n"
            "                        [--target R] [--mem-target R] [--note TEXT]\n"
            "       bench_runner table FILE\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 3 && strcmp(argv[1], "table") == 0) return do_table(argv[2]);
    if (argc < 2 || strcmp(argv[1], "run") != 0) {
        usage();
        return 2;
    }
    std::map<std::string, std::string> opt;
    bool check_output = false, per = false;
    for (int i = 2; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--check-output") {
            check_output = true;
        } else if (a == "--per") {
            per = true;
        } else if (a.compare(0, 2, "--") == 0 && i + 1 < argc) {
            opt[a.substr(2)] = argv[++i];
        } else {
            usage();
            return 2;
        }
    }
    return do_run(opt, check_output, per);
}
