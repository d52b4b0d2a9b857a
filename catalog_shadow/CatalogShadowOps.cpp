// Per-entry operations of the whole-tree backups and recoveries.
#include "catalog_shadow/CatalogShadowOps.h"

#include <boost/algorithm/string/compare.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/PODBShadowPool.h"
#include "dct/fs.h"
#include "dct/podb_names.h"
#include "dct/pool_layout.h"

bool OpCatalogBase::is_same_file(const std::string& a, const std::string& b) {
    return boost::algorithm::equals(a, b, boost::algorithm::is_iequal());
}

int OpBackupCatalog::operator()(const DirItem& item) {
    if (item.is_dir || item.stat_failed) return 0;
    const std::string* type = nullptr;
    if (app_) {
        if (is_same_file(item.name, PODBShadow::db_file_name(PODBShadow::_appdb_type_))) {
            type = &PODBShadow::_appdb_type_;
        }
    } else if (is_same_file(item.name, SQLitePODB::dbfilename)) {
        type = &PODBShadow::_podb_type_;
    } else if (is_same_file(item.name, SQLiteULDB::dbfilename)) {
        type = &PODBShadow::_uldb_type_;
    }
    if (type == nullptr) return 0;
    count(context_->backup(item.dir, *type) == CR_STATUS_OK);
    return 0;
}

int OpRecoverCatalog::operator()(const DirItem& item) {
    if (item.is_dir || item.stat_failed) return 0;
    const std::string* type = nullptr;
    if (app_) {
        if (is_same_file(item.name, PODBShadow::chksum_file(PODBShadow::_appdb_type_))) {
            type = &PODBShadow::_appdb_type_;
        }
    } else if (is_same_file(item.name, PODBShadow::chksum_file(PODBShadow::_podb_type_))) {
        type = &PODBShadow::_podb_type_;
    } else if (is_same_file(item.name, PODBShadow::chksum_file(PODBShadow::_uldb_type_))) {
        type = &PODBShadow::_uldb_type_;
    }
    if (type == nullptr) return 0;

    try {
        const std::string dir = context_->shadow_to_real_path(item.dir, *type);
        if (dir.empty()) throw "bad parameter";  // logged by the mapping
        const std::string db = dct::pool_layout::db_file_in(dir, *type);
        if (wa_access(db, 0) == 0) return 0;

        boost::shared_ptr<PODBShadow> shadow = context_->pool->get(dir);
        if (!shadow->exist(*type)) return 0;
        // A damaged checksum file is logged there and leaves no version:
        // nothing to recover from, which the count below tells.
        shadow->load_versions(*type, true);
        if (shadow->get_version_count(*type) == 0) return 0;
        count(context_->recover(dir, *type, flags_) == CR_STATUS_OK);
    } catch (const char* e) {
        ErrorA(CR_STATUS_FAILED, "%s: Got exception: [%s]", "operator()", e);
        count(false);
    }
    return 0;
}
