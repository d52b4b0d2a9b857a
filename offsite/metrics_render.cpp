// The exposition text: one table of series, each with its name, type, help
// and the function that gives its samples. A series without samples is left
// out whole. A new series is one row here and one entry in the manual page.
#include <inttypes.h>
#include <stdio.h>

#include <functional>
#include <string>

#include "offsite/json_text.h"
#include "offsite/metrics.h"

namespace koffsite {

namespace {

// The samples of one series: label text ("" or `{a="b",...}`) and value.
class Samples {
public:
    void add(const std::string& labels, const std::string& value) { text_ += name_ + labels + " " + value + "\n"; }
    void add(int64_t value) { add("", number(value)); }
    void add(const std::string& labels, int64_t value) { add(labels, number(value)); }
    void add_seconds(const std::string& labels, double value) {
        char buf[40];
        snprintf(buf, sizeof(buf), "%.3f", value);
        add(labels, buf);
    }
    static std::string number(int64_t value) { return std::to_string(value); }

    std::string name_;
    std::string text_;
};

// A label value as the format takes it: "\\", "\"" and a line break escaped.
// Bytes that are not UTF-8 are not allowed; such a value is written with every
// byte outside printable ASCII, and "%", as "%XX".
std::string label_value(const std::string& bytes) {
    const bool utf8 = ktool::is_utf8(bytes);
    std::string out;
    for (const unsigned char c : bytes) {
        if (c == '\\' || c == '"') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (!utf8 && (c < 0x20 || c >= 0x7f || c == '%')) {
            char buf[4];
            snprintf(buf, sizeof(buf), "%%%02X", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string label(const char* name, const std::string& value) {
    return std::string(name) + "=\"" + label_value(value) + "\"";
}

std::string one_label(const char* name, const std::string& value) { return "{" + label(name, value) + "}"; }

std::string database_labels(const DatabaseMetrics& d) {
    return "{" + label("dsid", d.dsid) + "," + label("client", d.client) + "," + label("policy", d.policy) + "," +
           label("type", d.type) + "}";
}

// Whether the samples of a command's totals and last success are shown: for
// every command that ran, for backup always, for push and check when a
// repository is configured (0: never succeeded).
bool shown(const PoolMetrics& m, int i) {
    const RecordedRun run = static_cast<RecordedRun>(i);
    return m.runs.runs[i].known || (m.shadow_up && m.runs_readable && run == RecordedRun::backup) ||
           (m.offsite_configured && m.runs_readable && (run == RecordedRun::push || run == RecordedRun::check));
}

// A sample for each command that has a record (`known_only`) or is shown.
void per_run(const PoolMetrics& m, bool known_only,
             const std::function<void(const RunRecord&, const std::string&)>& add) {
    for (int i = 0; i < kRecordedRuns; ++i) {
        if (known_only ? !m.runs.runs[i].known : !shown(m, i)) continue;
        add(m.runs.runs[i], one_label("command", run_name(static_cast<RecordedRun>(i))));
    }
}

void per_database(const PoolMetrics& m, const std::function<void(const DatabaseMetrics&, const std::string&)>& add) {
    for (const DatabaseMetrics& d : m.databases_list) add(d, database_labels(d));
}

bool repository_known(const PoolMetrics& m) { return m.offsite_configured && m.runs.repository.known; }

struct Series {
    const char* name;
    const char* type;
    const char* help;
    std::function<void(const PoolMetrics&, Samples&)> samples;
};

// clang-format off
const Series kSeries[] = {
    {"kavrel_metrics_collected_timestamp_seconds", "gauge", "When these metrics were collected.",
     [](const PoolMetrics& m, Samples& s) { s.add(m.collected); }},
    {"kavrel_metrics_collect_duration_seconds", "gauge", "Seconds the collection of these metrics took.",
     [](const PoolMetrics& m, Samples& s) { s.add_seconds("", m.collect_seconds); }},
    {"kavrel_shadow_up", "gauge", "1 when the catalog shadow runs (configured, identity file present and readable).",
     [](const PoolMetrics& m, Samples& s) { s.add(m.shadow_up ? 1 : 0); }},
    {"kavrel_metrics_readable", "gauge",
     "1 when the user who collected these metrics could read everything they needed.",
     [](const PoolMetrics& m, Samples& s) {
         s.add(!m.identity_denied && m.unreadable_dirs == 0 && m.unreadable_databases == 0 &&
               (!m.shadow_up || m.runs_readable) ? 1 : 0);
     }},
    {"kavrel_databases", "gauge", "Catalog databases in the pool.",
     [](const PoolMetrics& m, Samples& s) { if (m.shadow_up) s.add(m.databases); }},
    {"kavrel_databases_with_problems", "gauge", "Catalog databases with at least one problem.",
     [](const PoolMetrics& m, Samples& s) { if (m.shadow_up) s.add(m.with_problems); }},
    {"kavrel_problems", "gauge", "Problems found in the pool's databases and shadow, by kind.",
     [](const PoolMetrics& m, Samples& s) {
         if (!m.shadow_up) return;
         for (const auto& k : m.problems) s.add(one_label("kind", k.first), k.second);
     }},
    {"kavrel_databases_unrecoverable", "gauge", "Catalog databases whose recovery would not succeed now.",
     [](const PoolMetrics& m, Samples& s) { if (m.shadow_up) s.add(m.unrecoverable); }},
    {"kavrel_databases_unreadable", "gauge", "Catalog databases of which this user may not read something.",
     [](const PoolMetrics& m, Samples& s) { if (m.shadow_up) s.add(m.unreadable_databases); }},
    {"kavrel_directories_unreadable", "gauge", "Directories the search for databases could not enter.",
     [](const PoolMetrics& m, Samples& s) { if (m.shadow_up) s.add(m.unreadable_dirs); }},
    {"kavrel_shadow_oldest_newest_version_timestamp_seconds", "gauge",
     "Modification time of the oldest of the databases' newest shadow versions.",
     [](const PoolMetrics& m, Samples& s) { if (m.have_versions) s.add(m.oldest_newest_version); }},
    {"kavrel_shadow_journal_lines_since_version_max", "gauge",
     "The most journal lines written since a database's newest version.",
     [](const PoolMetrics& m, Samples& s) { if (m.shadow_up) s.add(m.max_journal_lines); }},
    {"kavrel_shadow_rows_not_recoverable", "gauge",
     "Live rows that a recovery from the shadow now would not give back, in all databases.",
     [](const PoolMetrics& m, Samples& s) { if (m.shadow_up) s.add(m.rows_not_recoverable); }},
    {"kavrel_restore_unfinished", "gauge", "1 while an off-site restore has been started and not finished.",
     [](const PoolMetrics& m, Samples& s) { s.add(m.restore_unfinished ? 1 : 0); }},
    {"kavrel_run_records_readable", "gauge", "1 when the record of the last runs could be read.",
     [](const PoolMetrics& m, Samples& s) { if (m.shadow_up) s.add(m.runs_readable ? 1 : 0); }},
    {"kavrel_last_run_timestamp_seconds", "gauge", "Start of the command's last run.",
     [](const PoolMetrics& m, Samples& s) {
         per_run(m, true, [&](const RunRecord& r, const std::string& l) { s.add(l, r.started); });
     }},
    {"kavrel_last_run_duration_seconds", "gauge", "Seconds the command's last run took.",
     [](const PoolMetrics& m, Samples& s) {
         per_run(m, true, [&](const RunRecord& r, const std::string& l) { s.add_seconds(l, r.duration); });
     }},
    {"kavrel_last_run_success", "gauge", "1 when the command's last run succeeded, 0 when it failed.",
     [](const PoolMetrics& m, Samples& s) {
         per_run(m, true, [&](const RunRecord& r, const std::string& l) { s.add(l, r.success ? 1 : 0); });
     }},
    {"kavrel_last_success_timestamp_seconds", "gauge", "End of the command's newest successful run (0: none).",
     [](const PoolMetrics& m, Samples& s) {
         per_run(m, false, [&](const RunRecord& r, const std::string& l) { s.add(l, r.last_success); });
     }},
    {"kavrel_runs_total", "counter", "Recorded runs of the command.",
     [](const PoolMetrics& m, Samples& s) {
         per_run(m, false, [&](const RunRecord& r, const std::string& l) { s.add(l, r.runs); });
     }},
    {"kavrel_run_failures_total", "counter", "Recorded runs of the command that failed.",
     [](const PoolMetrics& m, Samples& s) {
         per_run(m, false, [&](const RunRecord& r, const std::string& l) { s.add(l, r.failures); });
     }},
    {"kavrel_offsite_configured", "gauge", "1 when the configuration names an off-site repository.",
     [](const PoolMetrics& m, Samples& s) { s.add(m.offsite_configured ? 1 : 0); }},
    {"kavrel_offsite_repository_info", "gauge",
     "1, labelled with the id of the off-site repository the pool remembers (absent when it remembers none).",
     [](const PoolMetrics& m, Samples& s) { if (!m.repository_id.empty()) s.add(one_label("id", m.repository_id), 1); }},
    {"kavrel_offsite_repository_up", "gauge", "1 when the newest push or check could open the repository.",
     [](const PoolMetrics& m, Samples& s) { if (repository_known(m)) s.add(m.runs.repository.reachable ? 1 : 0); }},
    {"kavrel_offsite_repository_checked_timestamp_seconds", "gauge",
     "When the newest push or check learnt the repository's state.",
     [](const PoolMetrics& m, Samples& s) { if (repository_known(m)) s.add(m.runs.repository.time); }},
    {"kavrel_offsite_snapshots", "gauge", "The pool's snapshots in the repository, as the newest push or check counted.",
     [](const PoolMetrics& m, Samples& s) {
         if (repository_known(m) && m.runs.repository.snapshots >= 0) s.add(m.runs.repository.snapshots);
     }},
    {"kavrel_offsite_newest_snapshot_timestamp_seconds", "gauge", "Time of the pool's newest snapshot.",
     [](const PoolMetrics& m, Samples& s) {
         if (repository_known(m) && m.runs.repository.newest_snapshot > 0) s.add(m.runs.repository.newest_snapshot);
     }},
    {"kavrel_offsite_newest_snapshot_age_seconds", "gauge",
     "Seconds from the pool's newest snapshot to the collection of these metrics.",
     [](const PoolMetrics& m, Samples& s) {
         if (repository_known(m) && m.runs.repository.newest_snapshot > 0) {
             s.add(m.collected - m.runs.repository.newest_snapshot);
         }
     }},
    {"kavrel_database_problems", "gauge", "Problems of one database.",
     [](const PoolMetrics& m, Samples& s) {
         per_database(m, [&](const DatabaseMetrics& d, const std::string& l) { s.add(l, d.problems); });
     }},
    {"kavrel_database_recoverable", "gauge", "1 when a recovery of the database would succeed now.",
     [](const PoolMetrics& m, Samples& s) {
         per_database(m, [&](const DatabaseMetrics& d, const std::string& l) { s.add(l, d.recoverable ? 1 : 0); });
     }},
    {"kavrel_database_newest_version_timestamp_seconds", "gauge", "Modification time of the database's newest version.",
     [](const PoolMetrics& m, Samples& s) {
         per_database(m, [&](const DatabaseMetrics& d, const std::string& l) {
             if (d.newest_version > 0) s.add(l, d.newest_version);
         });
     }},
    {"kavrel_database_journal_lines_since_version", "gauge", "Journal lines since the database's newest version.",
     [](const PoolMetrics& m, Samples& s) {
         per_database(m, [&](const DatabaseMetrics& d, const std::string& l) { s.add(l, d.journal_lines); });
     }},
    {"kavrel_database_rows_not_recoverable", "gauge",
     "Live rows of the database that a recovery from its shadow now would not give back.",
     [](const PoolMetrics& m, Samples& s) {
         per_database(m, [&](const DatabaseMetrics& d, const std::string& l) { s.add(l, d.rows_not_recoverable); });
     }},
};
// clang-format on

}  // namespace

std::string render_metrics(const PoolMetrics& metrics) {
    std::string out;
    for (const Series& series : kSeries) {
        Samples s;
        s.name_ = series.name;
        series.samples(metrics, s);
        if (s.text_.empty()) continue;
        out += std::string("# HELP ") + series.name + " " + series.help + "\n";
        out += std::string("# TYPE ") + series.name + " " + series.type + "\n";
        out += s.text_;
    }
    return out;
}

}  // namespace koffsite
