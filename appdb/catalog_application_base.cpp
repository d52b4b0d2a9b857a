// catalog_application_base: construction, naming of the databases of a data
// store, the status table, the access-rule wrapper and the image-name rules.
#include "appdb/catalog_application_base.h"

#include <new>

#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"

namespace appdb {

const char* const app_db_filename = dct::pool_layout::kAppDbFile;

const std::string catalog_application::catalog_root_name_ = dct::pool_layout::kApplicationDir;

catalog_application::~catalog_application() = default;

catalog_application_base::catalog_application_base(unsigned int dsid_in,
                                                   const std::string& database_root_in,
                                                   unsigned int cache_size)
    : dsid(dsid_in),
      db_name(app_db_filename),
      // The cache announces its size itself ("%s: app db use cache size %u").
      // A failed allocation leaves it null and is reported by the first
      // operation that needs it.
      cache(new (std::nothrow) appdb_cache(cache_size)),
      db_type(dct::pool_layout::kAppdbType),
      database_root(database_root_in) {
    app_root = dct::pool_layout::application_store(database_root, dsid);
}

// The cache closes every connection it still holds when it is destroyed.
catalog_application_base::~catalog_application_base() = default;

void catalog_application_base::use_environment(const dct::environment& env) {
    service_env_ = env;
    use_busy_timeout_ms(env.busy_timeout_ms);
    use_commit_bounds(env.commit_group_changes, env.commit_group_bytes);
    if (cache) cache->use_environment(env);
}

bool catalog_application_base::shadow_copy_exist(const std::string&, const std::string&) {
    return false;
}

cr_status_t catalog_application_base::dberr_to_crstatus(int rc) {
    return catalog_store::map_status(rc);
}

void catalog_application_base::set_busy_timeout_ms(int ms) {
    catalog_store::set_busy_timeout_ms(ms);
}

int catalog_application_base::busy_timeout_ms() { return catalog_store::busy_timeout_ms(); }

std::string catalog_application_base::to_db_full_path(const std::string& client,
                                                      const std::string& policy) const {
    return dct::pool_layout::catalog_dir(app_root, client, policy);
}

cr_status_t catalog_application_base::check_db_names(const char* function,
                                                     const std::string& client,
                                                     const std::string& policy) {
    for (const std::string* name : {&client, &policy}) {
        if (name->empty() || *name == "." || *name == ".." ||
            name->find_first_of(std::string("/\0", 2)) != std::string::npos) {
            ErrorA(CR_STATUS_FAILED,
                   "%s: bad client or policy name, c %s p %s (empty, \".\", \"..\", \"/\" or NUL)",
                   function, client.c_str(), policy.c_str());
            return CR_STATUS_FAILED;
        }
    }
    return CR_STATUS_OK;
}

std::string catalog_application_base::to_db_full_name(const std::string& client,
                                                      const std::string& policy) const {
    return to_db_full_path(client, policy) + "/" + db_name;
}

std::string catalog_application_base::to_primary_name(const std::string& name) {
    return name;
}

bool catalog_application_base::db_existed(const std::string& client,
                                          const std::string& policy) const {
    const std::string name = to_db_full_name(client, policy);
    __TraceA("%s: app db name %s", "db_existed", name.c_str());
    if (wa_access(name, 0) != 0) {
        __TraceA("%s: no %s", "db_existed", name.c_str());
        return false;
    }
    return true;
}

cr_status_t catalog_application_base::check_db_readable(const char* function, const std::string& client,
                                                        const std::string& policy) const {
    const std::string name = to_db_full_name(client, policy);
    if (dct::probe_readable(name) != dct::path_state::denied) return CR_STATUS_OK;
    ErrorA(CR_STATUS_ACCESS_DENIED, "%s: app db %s is not readable (permission denied)", function, name.c_str());
    return CR_STATUS_ACCESS_DENIED;
}

cr_status_t catalog_application_base::authenticate(const std::string& user, unsigned int role,
                                                   const app_catalog_item* item,
                                                   auth_application_ac access, bool log) {
    const cr_status_t status =
        auth_app_factory::get_instance().authenticate(user, role, item, access, log);
    if (status != CR_STATUS_OK && log) {
        ErrorA(status, "%s: auth failed owner %s user %s", "authenticate",
               item != nullptr ? item->owner.c_str() : "", user.c_str());
    }
    return status;
}

bool catalog_application_base::from_po_name_to_bid(const std::string& client,
                                                   const std::string& /*policy*/,
                                                   const std::string& po_name,
                                                   std::string& backup_id) {
    const size_t c = po_name.rfind("_C");
    if (c != std::string::npos) {
        backup_id = po_name.substr(0, c);
        return true;
    }
    __TraceA("%s: not normal image name %s format", "from_po_name_to_bid", po_name.c_str());
    // Event objects carry no copy number: their backup id is the client and
    // the time part, EVENT_<x>_<time>_<rest> -> CLIENT_<time>.
    const std::string event = "EVENT_";
    const size_t e = po_name.find(event);
    if (e != std::string::npos) {
        const size_t u = po_name.find('_', e + event.size());
        if (u != std::string::npos) {
            const size_t v = po_name.find('_', u + 1);
            backup_id = client + po_name.substr(u, v == std::string::npos ? std::string::npos : v - u);
            return true;
        }
    }
    ErrorA(CR_STATUS_NONE, "%s: unknown po name %s", "from_po_name_to_bid", po_name.c_str());
    return false;
}

bool catalog_application_base::is_HDR_image(const std::string& image_name,
                                            std::string& backup_id) const {
    const size_t p = image_name.rfind("_C");
    if (p == std::string::npos) {
        ErrorA(CR_STATUS_NONE, "%s: wrong image name %s format", "is_HDR_image",
               image_name.c_str());
        return false;
    }
    if (image_name.find("_HDR", p) != std::string::npos) {
        backup_id = image_name.substr(0, p);
        return true;
    }
    __TraceA("%s: not HDR image %s", "is_HDR_image", image_name.c_str());
    return false;
}

cr_status_t catalog_application_base::do_db_close(const std::string& path, unsigned int) {
    const size_t p = path.rfind('/');
    if (p == std::string::npos) {
        ErrorA(CR_STATUS_FAILED, "%s: failed to find app path %s from %s", "do_db_close",
               app_root.c_str(), path.c_str());
        return CR_STATUS_FAILED;
    }
    const std::string policy = path.substr(p + 1);
    const std::string parent = path.substr(0, p);
    const size_t q = parent.rfind('/');
    if (q == std::string::npos) {
        ErrorA(CR_STATUS_FAILED, "%s: failed to find client from %s", "do_db_close", path.c_str());
        return CR_STATUS_FAILED;
    }
    const std::string client = parent.substr(q + 1);
    const cr_status_t names = check_db_names("do_db_close", client, policy);
    if (names != CR_STATUS_OK) return names;
    __TraceA("%s: find client %s, policy %s from %s", "do_db_close", client.c_str(),
             policy.c_str(), path.c_str());
    if (cache) cache->close_db(to_db_full_path(client, policy));
    return CR_STATUS_OK;
}

cr_status_t catalog_application_base::expire_catalog_by_image_name(const std::string& client,
                                                                   const std::string& policy,
                                                                   const std::string& image_name,
                                                                   std::string& sql,
                                                                   removal_check* check) {
    __TraceA("%s: app db expire image name %s", "expire_catalog_by_image_name", image_name.c_str());
    std::string backup_id;
    if (!is_HDR_image(image_name, backup_id)) return CR_STATUS_OK;
    return do_db_delete_by_backup_id(client, policy, backup_id, sql, check);
}

}  // namespace appdb
