// ConfigFileShadowProxy: the proxy for programs that need nothing special. The
// real trees lie below the database root:
//   PO/UL databases            DBROOT/databases/po
//   application databases      DBROOT/databases/application
// and the shadow settings are read from the given configuration file.
#ifndef CATALOG_SHADOW_CONFIGFILESHADOWPROXY_H_
#define CATALOG_SHADOW_CONFIGFILESHADOWPROXY_H_

#include <mutex>
#include <string>
#include <vector>

#include "catalog_shadow/CatalogShadowCtx.h"

class ConfigFileShadowProxy : public CatalogShadowProxy {
public:
    // `database_root` may end in "/" (one is dropped).
    ConfigFileShadowProxy(const std::string& config_file, const std::string& database_root);

    std::string get_config_file() const override { return config_file_; }
    std::string get_podb_root() const override { return podb_root_; }
    // Remembers the path; the context has already logged the loss.
    void on_identity_missing(const std::string& identity_file) override;

    // Identity files reported missing, in order.
    std::vector<std::string> missing_identities() const;

private:
    std::string config_file_;
    std::string podb_root_;
    mutable std::mutex mutex_;
    std::vector<std::string> missing_;
};

#endif  // CATALOG_SHADOW_CONFIGFILESHADOWPROXY_H_
