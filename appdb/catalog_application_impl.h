// The plain catalog kind (catalog_application_impl): the operations directly
// on the databases, without shadow copies or journals. Private to the
// library; services use catalog_application.h.
#ifndef APPDB_CATALOG_APPLICATION_IMPL_H_
#define APPDB_CATALOG_APPLICATION_IMPL_H_

#include <string>
#include <vector>

#include "appdb/catalog_application_base.h"

namespace appdb {

// The catalog operations directly on the databases, without shadow copies or
// journals. Each operation works on one database directory under dir_lock.
class catalog_application_impl : public catalog_application_base {
public:
    // dir_lock starts empty (no lock taken); the factory, or whoever builds
    // the object directly, gives it its CatalogDirectoryLock.
    catalog_application_impl(unsigned int dsid, const std::string& database_root,
                             unsigned int cache_size);
    ~catalog_application_impl() override;

    cr_status_t update_catalog(const char* user, unsigned int role,
                               const std::string& item_text) override;
    cr_status_t find_catalog(const char* user, unsigned int role, const std::string& query,
                             std::string& result) override;
    cr_status_t find_catalog(const char* user, unsigned int role, const std::string& query,
                             std::vector<app_catalog_item>& result) override;
    cr_status_t find_catalog(const char* user, unsigned int role, const std::string& query,
                             catalog_item_sink& sink) override;
    cr_status_t expire_catalog(const char* user, unsigned int role, const std::string& client,
                               const std::string& policy, const std::string& image_name,
                               bool lock) override;
    cr_status_t del_catalog(const char* user, unsigned int role, const std::string& query) override;
    cr_status_t close_db(const std::string& path, unsigned int n, bool lock) override;
    cr_status_t find_by_image_name(const std::string& client, const std::string& policy,
                                   const std::string& image_name, app_catalog_item& result,
                                   bool lock) override;
    cr_status_t find_by_file_name(const std::string& client, const std::string& policy,
                                  const std::string& file_name, app_catalog_item& result,
                                  bool lock) override;

    // The records of the database of client and policy that `statement`
    // (make_filter_statement) selects and `user` may read, handed to `sink`
    // one at a time, under the directory lock: what find_catalog does for a
    // query text (logged as "find_catalog"), for a search that no query text
    // can express.
    cr_status_t find_catalog_filtered(const char* user, unsigned int role,
                                      const std::string& client, const std::string& policy,
                                      const catalog_filter_statement& statement,
                                      catalog_item_sink& sink);

    std::unique_ptr<CatalogDirectoryLock> dir_lock;
};

}  // namespace appdb

#endif  // APPDB_CATALOG_APPLICATION_IMPL_H_
