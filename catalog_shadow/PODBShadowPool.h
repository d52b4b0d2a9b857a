// PODBShadowPool: the shadows of the directories a context has in use. Private
// to the shadow subsystem; the context owns one.
#ifndef CATALOG_SHADOW_PODBSHADOWPOOL_H_
#define CATALOG_SHADOW_PODBSHADOWPOOL_H_

#include <stdint.h>

#include <map>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include "catalog_shadow/CatalogShadowCtxPODBShadow.h"

class CatalogShadowContext;

// The shadows of the directories in use, keyed by real directory (letter case
// folded when the file system ignores it). A shadow stays while any caller holds
// it; past `size` entries the pool evicts the shadows that only it holds.
class PODBShadowPool {
public:
    PODBShadowPool(CatalogShadowContext* context, int64_t size);
    ~PODBShadowPool();
    PODBShadowPool(const PODBShadowPool&) = delete;
    PODBShadowPool& operator=(const PODBShadowPool&) = delete;

    // The shadow of real directory `dir`, created and loaded (PODBShadow::
    // load_all) when absent. Throws "invalid PODB path" for a directory outside
    // both real roots (from CatalogShadowContext::real_to_shadow_path).
    boost::shared_ptr<PODBShadow> get(const std::string& dir);
    // Drops the pool's reference to the shadow of `dir`.
    void erase(const std::string& dir);
    // Entries in the pool.
    size_t size() const;

private:
    std::string key_(const std::string& dir) const;
    void evict_unused_();  // with mutex_ held

    CatalogShadowContext* context_;
    int64_t size_;
    mutable boost::mutex mutex_;
    std::map<std::string, boost::shared_ptr<PODBShadow>> shadows_;
};

#endif  // CATALOG_SHADOW_PODBSHADOWPOOL_H_
