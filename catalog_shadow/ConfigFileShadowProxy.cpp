#include "catalog_shadow/ConfigFileShadowProxy.h"

#include "dct/pool_layout.h"

ConfigFileShadowProxy::ConfigFileShadowProxy(const std::string& config_file,
                                             const std::string& database_root)
    : config_file_(config_file) {
    std::string root = database_root;
    if (!root.empty() && root[root.size() - 1] == '/') root.erase(root.size() - 1);
    podb_root_ = dct::pool_layout::po_root(root);
    app_db_root = dct::pool_layout::application_root(root);
}

void ConfigFileShadowProxy::on_identity_missing(const std::string& identity_file) {
    std::lock_guard<std::mutex> guard(mutex_);
    missing_.push_back(identity_file);
}

std::vector<std::string> ConfigFileShadowProxy::missing_identities() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return missing_;
}
