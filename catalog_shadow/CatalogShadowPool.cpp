// PODBShadowPool: one shared PODBShadow per real directory in use.
#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/PODBShadowPool.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "dct/pool_layout.h"

PODBShadowPool::PODBShadowPool(CatalogShadowContext* context, int64_t size) : context_(context), size_(size) {}

PODBShadowPool::~PODBShadowPool() {}

std::string PODBShadowPool::key_(const std::string& dir) const {
    std::string key = dir;
    // One directory written in different letter case is one shadow.
    if (!OSIsCaseSensitive()) ConvertStringCase(key);
    return key;
}

// Shadows that a caller still holds stay, so the pool may exceed its size:
// dropping one would let a second shadow of the same directory appear, with its
// own journal stream on the same file.
void PODBShadowPool::evict_unused_() {
    for (auto it = shadows_.begin(); it != shadows_.end();) {
        if (it->second.use_count() == 1) {
            it = shadows_.erase(it);
        } else {
            ++it;
        }
    }
}

boost::shared_ptr<PODBShadow> PODBShadowPool::get(const std::string& dir) {
    boost::unique_lock<boost::mutex> lock(mutex_);
    const std::string key = key_(dir);
    auto it = shadows_.find(key);
    if (it != shadows_.end()) return it->second;

    if (static_cast<int64_t>(shadows_.size()) >= size_) evict_unused_();

    const std::string shadow_dir = context_->real_to_shadow_path(dir);
    // Logged by the mapping; the public operation above reports it.
    if (shadow_dir.empty()) throw "invalid PODB path";
    boost::shared_ptr<PODBShadow> shadow(new PODBShadow(context_, dir, shadow_dir));
    if (wa_access(dct::pool_layout::db_file_in(dir, dct::pool_layout::kUldbType), 0) == 0) {
        __TraceA("New ULDB shadow for %s", dir.c_str());
    } else {
        __TraceA("New PODB shadow for %s", dir.c_str());
    }
    shadow->load_all();
    shadows_[key] = shadow;
    return shadow;
}

void PODBShadowPool::erase(const std::string& dir) {
    boost::unique_lock<boost::mutex> lock(mutex_);
    shadows_.erase(key_(dir));
}

size_t PODBShadowPool::size() const {
    boost::unique_lock<boost::mutex> lock(mutex_);
    return shadows_.size();
}
