// catalog_application_impl: the catalog operations directly on the databases.
// Every operation names one database by client and policy and works on it
// under the directory lock of its directory, with the object's environment as
// the thread's; the flows and their plain database steps are the base's.
#include "appdb/catalog_application_impl.h"

namespace appdb {

catalog_application_impl::catalog_application_impl(unsigned int dsid_in,
                                                   const std::string& database_root_in,
                                                   unsigned int cache_size)
    : catalog_application_base(dsid_in, database_root_in, cache_size) {}

// dir_lock goes first, then the base closes the cache.
catalog_application_impl::~catalog_application_impl() = default;

cr_status_t catalog_application_impl::update_catalog(const char* user, unsigned int role,
                                                     const std::string& item_text) {
    dct::environment_scope scope(service_environment());
    return update_catalog_flow(dir_lock.get(), user, role, item_text);
}

cr_status_t catalog_application_impl::find_catalog_filtered(const char* user, unsigned int role,
                                                            const std::string& client,
                                                            const std::string& policy,
                                                            const catalog_filter_statement& statement,
                                                            catalog_item_sink& sink) {
    dct::environment_scope scope(service_environment());
    return find_filtered_flow(dir_lock.get(), user, role, client, policy, statement, sink);
}

cr_status_t catalog_application_impl::find_catalog(const char* user, unsigned int role,
                                                   const std::string& query_text,
                                                   std::vector<app_catalog_item>& records) {
    dct::environment_scope scope(service_environment());
    return find_catalog_flow(dir_lock.get(), user, role, query_text, records);
}

cr_status_t catalog_application_impl::find_catalog(const char* user, unsigned int role,
                                                   const std::string& query_text,
                                                   catalog_item_sink& sink) {
    dct::environment_scope scope(service_environment());
    return find_catalog_flow(dir_lock.get(), user, role, query_text, sink);
}

cr_status_t catalog_application_impl::find_catalog(const char* user, unsigned int role,
                                                   const std::string& query_text,
                                                   std::string& result) {
    dct::environment_scope scope(service_environment());
    return find_catalog_text_flow(user, role, query_text, result);
}

cr_status_t catalog_application_impl::find_by_image_name(const std::string& client,
                                                         const std::string& policy,
                                                         const std::string& image_name,
                                                         app_catalog_item& result, bool lock) {
    dct::environment_scope scope(service_environment());
    return find_by_image_name_flow(dir_lock.get(), client, policy, image_name, result, lock);
}

cr_status_t catalog_application_impl::find_by_file_name(const std::string& client,
                                                        const std::string& policy,
                                                        const std::string& file_name,
                                                        app_catalog_item& result, bool lock) {
    dct::environment_scope scope(service_environment());
    return find_by_file_name_flow(dir_lock.get(), client, policy, file_name, result, lock);
}

cr_status_t catalog_application_impl::expire_catalog(const char* user, unsigned int role,
                                                     const std::string& client,
                                                     const std::string& policy,
                                                     const std::string& image_name, bool lock) {
    dct::environment_scope scope(service_environment());
    return expire_catalog_flow(dir_lock.get(),
                               "%s: authenticate failed for user %s , app owner %s", user, role,
                               client, policy, image_name, lock);
}

cr_status_t catalog_application_impl::del_catalog(const char* user, unsigned int role,
                                                  const std::string& query_text) {
    dct::environment_scope scope(service_environment());
    return del_catalog_flow(dir_lock.get(), user, role, query_text);
}

cr_status_t catalog_application_impl::close_db(const std::string& path, unsigned int n, bool lock) {
    dct::environment_scope scope(service_environment());
    return close_db_flow(dir_lock.get(), path, n, lock);
}

}  // namespace appdb
