// catalog_application_impl_shadow: the public operations. Each marks the
// extent of one operation (for its single recovery) and runs the base's flow;
// the database steps below recover the database once when a database call
// calls for it, and journal what they changed.
#include "appdb/catalog_application_shadow.h"

namespace appdb {

cr_status_t catalog_application_impl_shadow::update_catalog(const char* user, unsigned int role,
                                                            const std::string& item_text) {
    operation_scope operation(*this);
    return update_catalog_flow(dir_lock.get(), user, role, item_text);
}

cr_status_t catalog_application_impl_shadow::find_catalog(const char* user, unsigned int role,
                                                          const std::string& query_text,
                                                          std::vector<app_catalog_item>& records) {
    operation_scope operation(*this);
    return find_catalog_flow(dir_lock.get(), user, role, query_text, records);
}

cr_status_t catalog_application_impl_shadow::find_catalog(const char* user, unsigned int role,
                                                          const std::string& query_text,
                                                          catalog_item_sink& sink) {
    operation_scope operation(*this);
    return find_catalog_flow(dir_lock.get(), user, role, query_text, sink);
}

cr_status_t catalog_application_impl_shadow::find_catalog(const char* user, unsigned int role,
                                                          const std::string& query_text,
                                                          std::string& result) {
    operation_scope operation(*this);
    return find_catalog_text_flow(user, role, query_text, result);
}

cr_status_t catalog_application_impl_shadow::find_by_image_name(const std::string& client,
                                                                const std::string& policy,
                                                                const std::string& image_name,
                                                                app_catalog_item& result,
                                                                bool lock) {
    operation_scope operation(*this);
    return find_by_image_name_flow(dir_lock.get(), client, policy, image_name, result, lock);
}

cr_status_t catalog_application_impl_shadow::find_by_file_name(const std::string& client,
                                                               const std::string& policy,
                                                               const std::string& file_name,
                                                               app_catalog_item& result,
                                                               bool lock) {
    operation_scope operation(*this);
    return find_by_file_name_flow(dir_lock.get(), client, policy, file_name, result, lock);
}

cr_status_t catalog_application_impl_shadow::expire_catalog(const char* user, unsigned int role,
                                                            const std::string& client,
                                                            const std::string& policy,
                                                            const std::string& image_name,
                                                            bool lock) {
    operation_scope operation(*this);
    // Unlike the plain catalog's message, no blank before the comma.
    return expire_catalog_flow(dir_lock.get(), "%s: authenticate failed for user %s, app owner %s",
                               user, role, client, policy, image_name, lock);
}

cr_status_t catalog_application_impl_shadow::del_catalog(const char* user, unsigned int role,
                                                         const std::string& query_text) {
    operation_scope operation(*this);
    return del_catalog_flow(dir_lock.get(), user, role, query_text);
}

cr_status_t catalog_application_impl_shadow::close_db(const std::string& path, unsigned int n,
                                                      bool lock) {
    return close_db_flow(dir_lock.get(), path, n, lock);
}

cr_status_t catalog_application_impl_shadow::insert_step(const char* fn,
                                                         const app_catalog_item& item) {
    cr_status_t status = shadow_protected_db_insert(item);
    if (status != CR_STATUS_OK && may_recover(status, item.client, item.policy)) {
        status = recover_db(fn, status, item.client, item.policy);
        if (status == CR_STATUS_OK) status = shadow_protected_db_insert(item);
    }
    return status;
}

cr_status_t catalog_application_impl_shadow::query_step(const char* fn, const app_query& query,
                                                        catalog_item_sink& sink,
                                                        const std::string& sql) {
    // A status the caller's sink gave says nothing about the database.
    bool stopped_by_sink = false;
    cr_status_t status = do_db_query(query, sink, sql, &stopped_by_sink);
    if (status == CR_STATUS_OK || stopped_by_sink || !may_recover(status, query.client, query.policy)) {
        return status;
    }
    status = recover_db(fn, status, query.client, query.policy);
    if (status != CR_STATUS_OK) return status;
    // do_db_query restarts the sink: what it took from the damaged database
    // is void.
    return do_db_query(query, sink, sql);
}

cr_status_t catalog_application_impl_shadow::expire_step(const std::string& client,
                                                         const std::string& policy,
                                                         const std::string& image_name,
                                                         removal_check& check) {
    return shadow_protected_expire_catalog(client, policy, image_name, &check);
}

cr_status_t catalog_application_impl_shadow::delete_step(const char* fn,
                                                         const std::string& client,
                                                         const std::string& policy,
                                                         const std::string& file_name,
                                                         removal_check& check) {
    return change_with_recovery(fn, "%s: failed to delete app db by file name %s", client, policy,
                                file_name, [&](std::string& statement) {
                                    return do_db_delete_by_file_name(client, policy, file_name,
                                                                     statement, &check);
                                });
}

}  // namespace appdb
