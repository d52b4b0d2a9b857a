#include "offsite/repository_id.h"

#include <string.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "dct/file_io.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "offsite/json_text.h"
#include "offsite/offsite.h"

namespace koffsite {

const char* const kRepositoryIdFile = ".offsite_repository_id";

namespace {

const char* const kFn = "kavrel-shadow offsite";

bool is_id(const std::string& id) {
    static const std::regex kId("[0-9a-f]{16,128}");
    return std::regex_match(id, kId);
}

}  // namespace

std::string repository_id_path(const std::string& shadow_root) { return shadow_root + "/" + kRepositoryIdFile; }

cr_status_t remembered_repository_id(const std::string& shadow_root, std::string* id) {
    id->clear();
    const std::string path = repository_id_path(shadow_root);
    switch (dct::probe_readable(path)) {
        case dct::path_state::missing: return CR_STATUS_MISSING;
        case dct::path_state::denied: return CR_STATUS_ACCESS_DENIED;
        case dct::path_state::present: break;
    }
    std::ifstream in(path);
    std::getline(in, *id);
    if (!is_id(*id)) {
        ErrorA(CR_STATUS_CORRUPT, "%s: %s holds no repository id", kFn, path.c_str());
        id->clear();
        return CR_STATUS_CORRUPT;
    }
    return CR_STATUS_OK;
}

cr_status_t remember_repository_id(const std::string& shadow_root, const std::string& id, std::string* why) {
    dct::file_failure failure;
    const cr_status_t status = dct::write_file_atomic(shadow_root, repository_id_path(shadow_root), id + "\n",
                                                      dct::atomic_write_options(), &failure);
    if (status != CR_STATUS_OK) {
        *why = "cannot write " + failure.path + ": " + strerror(failure.error);
        ErrorA(status, "%s: %s", kFn, why->c_str());
    }
    return status;
}

cr_status_t repository_id(const Restic& restic, std::string* id, std::string* reason) {
    id->clear();
    const ResticRun run = restic.run({"cat", "config"});
    const std::string shown = shown_repository(restic.config().repository);
    if (!run.ok()) {
        const bool none = Restic::no_repository(run);
        *reason = none ? "no restic repository at " + shown + "; nothing was created (moved or not mounted? a new "
                             "one is made only by: kavrel-shadow offsite init)"
                       : restic.failure("restic cat config", run);
        // No repository is init's normal start: the callers that need one log it.
        if (!none) ErrorA(CR_STATUS_FAILED, "%s: %s", kFn, reason->c_str());
        return none ? CR_STATUS_MISSING : CR_STATUS_FAILED;
    }
    const ktool::json config = ktool::json::parse(run.out, nullptr, false);
    if (config.is_object() && config.contains("id") && config["id"].is_string()) *id = config["id"].get<std::string>();
    if (!is_id(*id)) {
        id->clear();
        *reason = "restic cat config gave no repository id for " + shown;
        ErrorA(CR_STATUS_FAILED, "%s: %s", kFn, reason->c_str());
        return CR_STATUS_FAILED;
    }
    return CR_STATUS_OK;
}

cr_status_t check_repository(const Restic& restic, const std::string& shadow_root, std::string* id,
                             bool* remembered, std::string* reason) {
    std::string known;
    const cr_status_t read = remembered_repository_id(shadow_root, &known);
    *remembered = read == CR_STATUS_OK;
    if (read != CR_STATUS_OK && read != CR_STATUS_MISSING) {
        *reason = repository_id_path(shadow_root) + (read == CR_STATUS_ACCESS_DENIED ? ": not readable (permission "
                                                                                        "denied)"
                                                                                      : ": holds no repository id");
        return read;
    }
    const cr_status_t found = repository_id(restic, id, reason);
    if (found != CR_STATUS_OK) {
        if (found == CR_STATUS_MISSING && *remembered) {
            *reason = "the repository " + shown_repository(restic.config().repository) + " (id " + known.substr(0, 8) +
                      ", remembered in " + repository_id_path(shadow_root) + ") is not there; nothing was created";
        }
        if (found == CR_STATUS_MISSING) ErrorA(found, "%s: %s", kFn, reason->c_str());
        return found;
    }
    if (*remembered && *id != known) {
        *reason = "the repository at " + shown_repository(restic.config().repository) + " has id " +
                  id->substr(0, 8) + ", but this pool's is " + known.substr(0, 8) + " (" +
                  repository_id_path(shadow_root) + "); nothing was done (kavrel-shadow offsite init makes it the "
                  "pool's repository)";
        ErrorA(CR_STATUS_CORRUPT, "%s: %s", kFn, reason->c_str());
        return CR_STATUS_CORRUPT;
    }
    return CR_STATUS_OK;
}

cr_status_t init_repository(CatalogShadowContext& context, const Restic& restic, InitRepositoryResult* r) {
    *r = InitRepositoryResult();
    r->repository = shown_repository(restic.config().repository);
    const std::string shadow_root = shadow_root_of(context);
    ScratchLock lock;
    cr_status_t status = lock.take(shadow_root, &r->reason);
    if (status != CR_STATUS_OK) return status;
    status = repository_id(restic, &r->id, &r->reason);
    if (status == CR_STATUS_MISSING) {
        const ResticRun init = restic.run({"init"});
        if (!init.ok()) {
            r->reason = restic.failure("restic init", init);
            ErrorA(CR_STATUS_FAILED, "%s: %s", kFn, r->reason.c_str());
            return CR_STATUS_FAILED;
        }
        r->created = true;
        InfoA(CR_STATUS_OK, "%s: initialised the repository %s", kFn, r->repository.c_str());
        status = repository_id(restic, &r->id, &r->reason);
    }
    if (status != CR_STATUS_OK) return status;
    std::string known;
    if (remembered_repository_id(shadow_root, &known) == CR_STATUS_OK && known != r->id) r->previous_id = known;
    return remember_repository_id(shadow_root, r->id, &r->reason);
}

}  // namespace koffsite
