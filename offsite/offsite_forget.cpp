// The retention rule and offsite forget.
#include "offsite/offsite_forget.h"

#include <algorithm>

#include "dct/log.h"
#include "offsite/json_text.h"

namespace koffsite {

namespace {

using ktool::json;

// Why a line of restic's means the repository will not delete: a REST
// server in append-only mode answers 403, a store without the right
// "permission denied". restic would retry each for about a minute.
std::string refusal(const std::string& line) {
    if (line.find("Remove(") == std::string::npos) return "";
    if (line.find("403 Forbidden") == std::string::npos && line.find("permission denied") == std::string::npos) {
        return "";
    }
    return "the repository refuses deletion";
}

// The snapshots `restic forget --json` keeps and removes: its JSON list of
// groups is one line of its standard output (prune's report may follow).
void read_groups(const std::string& out, ForgetResult* r) {
    size_t start = 0;
    while (start < out.size()) {
        size_t end = out.find('\n', start);
        if (end == std::string::npos) end = out.size();
        const json groups = out[start] == '[' ? json::parse(out.substr(start, end - start), nullptr, false) : json();
        start = end + 1;
        if (!groups.is_array()) continue;
        for (const auto& g : groups) {
            if (!g.is_object()) continue;
            for (const char* part : {"keep", "remove"}) {
                auto list = g.find(part);
                if (list == g.end() || !list->is_array()) continue;
                for (const auto& s : *list) {
                    Snapshot snap;
                    if (snapshot_of(s, &snap)) (part[0] == 'k' ? r->kept : r->removed).push_back(snap);
                }
            }
        }
    }
    for (auto* list : {&r->kept, &r->removed}) {
        std::stable_sort(list->begin(), list->end(),
                         [](const Snapshot& a, const Snapshot& b) { return a.time < b.time; });
    }
}

}  // namespace

std::vector<std::string> retention_options(const OffsiteConfig& config) {
    std::vector<std::string> options = {"--keep-last", std::to_string(config.keep_last)};
    if (config.keep_all_days > 0) {
        options.push_back("--keep-within");
        options.push_back(std::to_string(config.keep_all_days) + "d");
    }
    if (config.keep_daily_days > 0) {
        options.push_back("--keep-within-daily");
        options.push_back(std::to_string(config.keep_daily_days) + "d");
    }
    return options;
}

std::string retention_text(const OffsiteConfig& config) {
    std::string text = "keep last " + std::to_string(config.keep_last);
    if (config.keep_all_days > 0) text += ", every snapshot of " + std::to_string(config.keep_all_days) + " days";
    if (config.keep_daily_days > 0) {
        text += ", the newest of each day for " + std::to_string(config.keep_daily_days) + " days";
    }
    return text;
}

cr_status_t forget(const Restic& restic, const std::string& pool, bool dry_run, ForgetResult* r,
                   const char* function) {
    *r = ForgetResult();
    r->repository = shown_repository(restic.config().repository);
    r->rule = retention_text(restic.config());
    r->dry_run = dry_run;
    std::vector<std::string> args = {"forget", "--json", "--tag", pool_tag(pool), "--group-by", ""};
    const std::vector<std::string> rule = retention_options(restic.config());
    args.insert(args.end(), rule.begin(), rule.end());
    args.push_back(dry_run ? "--dry-run" : "--prune");
    const ResticRun run = restic.run(args, refusal);
    if (run.ok()) {
        read_groups(run.out, r);
        return CR_STATUS_OK;
    }
    r->refused = !run.stop_line.empty() && !refusal(run.stop_line).empty();
    r->stop = Restic::could_not_open(run) ? Stop::not_started : Stop::failed;
    // A refusal is what an append-only repository is for; whether it is a
    // failure is the caller's to say.
    if (r->refused) {
        r->reason = restic.failure("restic forget", run);
        WarningA(CR_STATUS_ACCESS_DENIED, "%s: %s", function, r->reason.c_str());
    } else {
        r->reason = restic.report(function, CR_STATUS_FAILED, "restic forget", run);
    }
    return CR_STATUS_FAILED;
}

}  // namespace koffsite
