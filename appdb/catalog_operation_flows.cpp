// catalog_application_base: the public operations of both catalog kinds,
// each written once, and their plain database steps. The kind supplies the
// directory lock, may wrap the steps (insert, query, expire, delete) and, for
// expire_catalog, gives its own denial text.
#include "appdb/catalog_application_base.h"

#include <sstream>

#include "appdb/vector_item_sink.h"
#include "dct/log.h"

namespace appdb {

namespace {

const char* user_or_empty(const char* user) { return user != nullptr ? user : ""; }

}  // namespace

cr_status_t catalog_application_base::parse_query_logged(const char* fn,
                                                         const std::string& query_text,
                                                         app_query& query, std::string& sql) {
    const cr_status_t status = parse_query(query_text, query, sql);
    if (status != CR_STATUS_OK) ErrorA(status, "%s: failed to parse %s", fn, query_text.c_str());
    return status;
}

cr_status_t catalog_application_base::update_catalog_flow(CatalogDirectoryLock* dir_lock,
                                                          const char* user, unsigned int role,
                                                          const std::string& item_text) {
    const char* const fn = "update_catalog";
    InfoA(CR_STATUS_OK, "%s: update app catalog %s", fn, item_text.c_str());
    app_catalog_item item;
    std::istringstream in(item_text);
    if (!from_string(in, item)) {
        ErrorA(CR_STATUS_FAILED, "%s: failed to generate app catalog item from string %s", fn,
               item_text.c_str());
        return CR_STATUS_FAILED;
    }
    const cr_status_t names = check_db_names(fn, item.client, item.policy);
    if (names != CR_STATUS_OK) return names;
    // Refused before anything is written or journalled: a row that cannot be
    // read back as it was given would make the whole database read as corrupt.
    if (const char* field = unstorable_text_field(item)) {
        ErrorA(CR_STATUS_FAILED, "%s: field %s of %s holds a NUL byte, which a row cannot store",
               fn, field, item.file_name.c_str());
        return CR_STATUS_FAILED;
    }
    const cr_status_t auth = authenticate(user_or_empty(user), role, &item, AUTH_AC_INSERT, true);
    if (auth != CR_STATUS_OK) {
        ErrorA(CR_STATUS_ACCESS_DENIED, "%s: authenticate failed for user %s, role %u", fn,
               user_or_empty(user), role);
        return CR_STATUS_ACCESS_DENIED;
    }
    return commit_change(dir_lock, fn, item.client, item.policy, item_text.size(),
                         [&] { return insert_step(fn, item); });
}

namespace {

// Passes on the records the caller may read; the others are skipped with a
// trace, keeping the order of the rest.
class readable_item_sink : public catalog_item_sink {
public:
    readable_item_sink(const char* function, const std::string& user, unsigned int role,
                       catalog_item_sink& next)
        : function_(function), user_(user), role_(role), next_(next),
          rule_(auth_app_factory::get_instance()) {}

    void restart() override { next_.restart(); }
    cr_status_t take(app_catalog_item& item) override {
        if (rule_.authenticate(user_, role_, &item, AUTH_AC_READ, false) != CR_STATUS_OK) {
            __TraceA("%s: skip query result %s", function_, item.file_name.c_str());
            return CR_STATUS_OK;
        }
        return next_.take(item);
    }

private:
    const char* function_;
    const std::string& user_;
    unsigned int role_;
    catalog_item_sink& next_;
    authentication_application& rule_;
};

}  // namespace

template <typename Read>
cr_status_t catalog_application_base::read_locked(CatalogDirectoryLock* dir_lock, const char* fn,
                                                  const char* user, unsigned int role,
                                                  const std::string& client,
                                                  const std::string& policy,
                                                  const std::string& what, catalog_item_sink& sink,
                                                  Read read) {
    cr_status_t status = check_db_names(fn, client, policy);
    if (status != CR_STATUS_OK) return status;
    const std::string path = to_db_full_path(client, policy);
    dir_lock_scope lock(dir_lock, path, fn);
    if (lock.status() != CR_STATUS_OK) return lock.status();
    const std::string who = user_or_empty(user);
    readable_item_sink readable(fn, who, role, sink);
    status = read(readable);
    if (status != CR_STATUS_OK) {
        ErrorA(status, "%s: failed to query %s for %s", fn, what.c_str(), path.c_str());
        return status;
    }
    return CR_STATUS_OK;
}

cr_status_t catalog_application_base::find_catalog_flow(CatalogDirectoryLock* dir_lock,
                                                        const char* user, unsigned int role,
                                                        const std::string& query_text,
                                                        catalog_item_sink& sink) {
    const char* const fn = "find_catalog";
    InfoA(CR_STATUS_OK, "%s: find app catalog %s", fn, query_text.c_str());
    app_query query;
    std::string sql;
    cr_status_t status = parse_query_logged(fn, query_text, query, sql);
    if (status != CR_STATUS_OK) return status;
    return read_locked(dir_lock, fn, user, role, query.client, query.policy, query_text, sink,
                       [&](catalog_item_sink& readable) { return query_step(fn, query, readable, sql); });
}

cr_status_t catalog_application_base::find_filtered_flow(CatalogDirectoryLock* dir_lock,
                                                         const char* user, unsigned int role,
                                                         const std::string& client,
                                                         const std::string& policy,
                                                         const catalog_filter_statement& statement,
                                                         catalog_item_sink& sink) {
    const char* const fn = "find_catalog";
    InfoA(CR_STATUS_OK, "%s: find app catalog %s in %s %s", fn, statement.sql.c_str(),
          client.c_str(), policy.c_str());
    return read_locked(dir_lock, fn, user, role, client, policy, statement.sql, sink,
                       [&](catalog_item_sink& readable) {
                           return do_db_filter(client, policy, statement, readable);
                       });
}

cr_status_t catalog_application_base::find_catalog_flow(CatalogDirectoryLock* dir_lock,
                                                        const char* user, unsigned int role,
                                                        const std::string& query_text,
                                                        std::vector<app_catalog_item>& records) {
    vector_item_sink sink(records);
    return find_catalog_flow(dir_lock, user, role, query_text, sink);
}

cr_status_t catalog_application_base::find_catalog_text_flow(const char* user, unsigned int role,
                                                             const std::string& query_text,
                                                             std::string& result) {
    const char* const fn = "find_catalog";
    std::vector<app_catalog_item> records;
    const cr_status_t status = find_catalog(user, role, query_text, records);
    if (status != CR_STATUS_OK) {
        ErrorA(status, "%s: failed to find app catalog by %s", fn, query_text.c_str());
        return status;
    }
    if (records.empty()) {
        __TraceA("%s: don't find backup by %s", fn, query_text.c_str());
        result.clear();
        return CR_STATUS_OK;
    }
    result = to_string(records);
    return CR_STATUS_OK;
}

cr_status_t catalog_application_base::find_one(CatalogDirectoryLock* dir_lock, const char* fn,
                                               const std::string& client,
                                               const std::string& policy,
                                               const std::string& query_text,
                                               const char* too_many_format, const std::string& key,
                                               app_catalog_item& result, bool lock) {
    cr_status_t status = check_db_names(fn, client, policy);
    if (status != CR_STATUS_OK) return status;
    app_query query;
    std::string sql;
    status = parse_query_logged(fn, query_text, query, sql);
    if (status != CR_STATUS_OK) return status;
    std::vector<app_catalog_item> records;
    vector_item_sink sink(records);
    if (lock) {
        dir_lock_scope scope(dir_lock, to_db_full_path(client, policy), fn);
        if (scope.status() != CR_STATUS_OK) return scope.status();
        status = query_step(fn, query, sink, sql);
    } else {
        // The caller holds the lock; whatever the step does runs under it.
        status = query_step(fn, query, sink, sql);
    }
    if (status != CR_STATUS_OK) {
        ErrorA(status, "%s: failed query %s", fn, query_text.c_str());
        return status;
    }
    if (records.empty()) {
        __TraceA("%s: not found app catalog from %s", fn, query_text.c_str());
        return CR_STATUS_NOT_FOUND;
    }
    if (records.size() > 1) {
        ErrorA(CR_STATUS_OK, too_many_format, fn, static_cast<unsigned int>(records.size()),
               key.c_str());
    }
    result = records.front();
    return CR_STATUS_OK;
}

cr_status_t catalog_application_base::find_by_image_name_flow(CatalogDirectoryLock* dir_lock,
                                                              const std::string& client,
                                                              const std::string& policy,
                                                              const std::string& image_name,
                                                              app_catalog_item& result,
                                                              bool lock) {
    const char* const fn = "find_by_image_name";
    std::string backup_id;
    if (!from_po_name_to_bid(client, policy, image_name, backup_id)) {
        ErrorA(CR_STATUS_FAILED, "%s: wrong image name %s format", fn, image_name.c_str());
        return CR_STATUS_FAILED;
    }
    return find_one(dir_lock, fn, client, policy, to_query_by_backup_id(client, policy, backup_id),
                    "%s: found %u for backupid %s", backup_id, result, lock);
}

cr_status_t catalog_application_base::find_by_file_name_flow(CatalogDirectoryLock* dir_lock,
                                                             const std::string& client,
                                                             const std::string& policy,
                                                             const std::string& file_name,
                                                             app_catalog_item& result, bool lock) {
    return find_one(dir_lock, "find_by_file_name", client, policy,
                    to_query_by_file_name(client, policy, file_name),
                    "%s: found %u for file name %s", file_name, result, lock);
}

cr_status_t catalog_application_base::expire_catalog_flow(
    CatalogDirectoryLock* dir_lock, const char* denied_format, const char* user,
    unsigned int role, const std::string& client, const std::string& policy,
    const std::string& image_name, bool lock) {
    const char* const fn = "expire_catalog";
    const cr_status_t names = check_db_names(fn, client, policy);
    if (names != CR_STATUS_OK) return names;
    std::string backup_id;
    // Only header images expire catalog records.
    if (!is_HDR_image(image_name, backup_id)) {
        __TraceA("%s: skip image %s", fn, image_name.c_str());
        return CR_STATUS_OK;
    }
    app_catalog_item record;
    if (find_by_image_name(client, policy, image_name, record, lock) != CR_STATUS_OK) {
        // Nothing to expire is not an error.
        __TraceA("%s: no app catalog for img %s", fn, image_name.c_str());
        return CR_STATUS_OK;
    }
    // The access rule is applied to every record of the backup, inside the
    // removal's transaction, not to the first record found here: between the
    // two the backup may gain records, and they need not share one owner.
    removal_check check;
    check.user = user_or_empty(user);
    check.role = role;
    cr_status_t status;
    if (!lock) {
        status = expire_step(client, policy, image_name, check);
    } else {
        status = commit_change(dir_lock, fn, client, policy, image_name.size(),
                               [&] { return expire_step(client, policy, image_name, check); });
    }
    if (status != CR_STATUS_OK) return status;
    return removal_outcome(fn, check, backup_id, CR_STATUS_OK, denied_format);
}

cr_status_t catalog_application_base::removal_outcome(const char* fn, const removal_check& check,
                                                      const std::string& key,
                                                      cr_status_t none_found,
                                                      const char* denied_format) {
    if (check.matched == 0) {
        if (none_found != CR_STATUS_OK) {
            ErrorA(none_found, "%s: can't find app catalog from %s", fn, key.c_str());
        }
        return none_found;
    }
    if (check.removed == 0) {
        ErrorA(CR_STATUS_ACCESS_DENIED, denied_format, fn, check.user.c_str(),
               check.kept_owner.c_str());
        return CR_STATUS_ACCESS_DENIED;
    }
    if (check.removed < check.matched) {
        WarningA(CR_STATUS_OK, "%s: removed %u of %u records of %s; %u of other owners (first %s) stay",
                 fn, check.removed, check.matched, key.c_str(), check.matched - check.removed,
                 check.kept_owner.c_str());
    }
    return CR_STATUS_OK;
}

cr_status_t catalog_application_base::del_catalog_flow(CatalogDirectoryLock* dir_lock,
                                                       const char* user, unsigned int role,
                                                       const std::string& query_text) {
    const char* const fn = "del_catalog";
    app_query query;
    if (!query.parse_query(query_text)) {
        ErrorA(CR_STATUS_FAILED, "%s: failed parse query str %s", fn, query_text.c_str());
        return CR_STATUS_FAILED;
    }
    if (query.type != APP_QUERY_NAME) {
        ErrorA(CR_STATUS_FAILED, "%s: unsupported query type %u from %s", fn, query.type,
               query_text.c_str());
        return CR_STATUS_FAILED;
    }
    cr_status_t status = check_db_names(fn, query.client, query.policy);
    if (status != CR_STATUS_OK) return status;
    // The record removed is the record checked: the rows the delete selects
    // (the name compared with "=", a pattern character is a plain character
    // here) are checked one by one inside the delete's transaction.
    removal_check check;
    check.user = user_or_empty(user);
    check.role = role;
    status = commit_change(dir_lock, fn, query.client, query.policy, query_text.size(), [&] {
        return delete_step(fn, query.client, query.policy, query.file_name, check);
    });
    if (status != CR_STATUS_OK) return status;
    return removal_outcome(fn, check, query_text, CR_STATUS_NOT_FOUND,
                           "%s: authenticate failed for user %s , app owner %s");
}

cr_status_t catalog_application_base::close_db_flow(CatalogDirectoryLock* dir_lock,
                                                    const std::string& path, unsigned int n,
                                                    bool lock) {
    if (!lock) return do_db_close(path, n);
    dir_lock_scope scope(dir_lock, path, "close_db");
    if (scope.status() != CR_STATUS_OK) return scope.status();
    return do_db_close(path, n);
}

cr_status_t catalog_application_base::insert_step(const char* fn, const app_catalog_item& item) {
    bool created = false;
    const cr_status_t status = need_create_db(item, created);
    if (status != CR_STATUS_OK) {
        ErrorA(status, "%s: failed to call need_create_db for c %s p %s", fn, item.client.c_str(),
               item.policy.c_str());
        return status;
    }
    std::string sql;
    return do_db_insert(item, sql);
}

cr_status_t catalog_application_base::query_step(const char*, const app_query& query,
                                                 catalog_item_sink& sink, const std::string& sql) {
    return do_db_query(query, sink, sql);
}

cr_status_t catalog_application_base::expire_step(const std::string& client,
                                                  const std::string& policy,
                                                  const std::string& image_name,
                                                  removal_check& check) {
    std::string sql;
    return expire_catalog_by_image_name(client, policy, image_name, sql, &check);
}

cr_status_t catalog_application_base::delete_step(const char*, const std::string& client,
                                                  const std::string& policy,
                                                  const std::string& file_name,
                                                  removal_check& check) {
    std::string sql;
    return do_db_delete_by_file_name(client, policy, file_name, sql, &check);
}

}  // namespace appdb
