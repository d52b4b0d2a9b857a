// Helpers of the shadow tests: a pool layout in a temporary directory (database
// root, storage path, configuration file), contexts built on it, and versions
// made by hand (the tests here do not depend on the backup operation).
#ifndef KAVREL_TESTS_CATALOG_SHADOW_SHADOW_TEST_HELPERS_H_
#define KAVREL_TESTS_CATALOG_SHADOW_SHADOW_TEST_HELPERS_H_

#include <zlib.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "catalog_shadow/CatalogShadowCtx.h"
#include "catalog_shadow/ConfigFileShadowProxy.h"
#include "catalog_shadow/DirectoryLock.h"
#include "catalog_shadow/PODBShadowPool.h"
#include "common/test_util.h"
#include "dct/fs.h"

namespace shadow_test {

inline uint32_t adler(const std::string& text, uint32_t start = 1) {
    return static_cast<uint32_t>(
        adler32(start, reinterpret_cast<const Bytef*>(text.data()), static_cast<uInt>(text.size())));
}

// Checksum-file text for `lines` (each without "\n"), with its self= line.
inline std::string chksum_text(const std::vector<std::string>& lines) {
    std::string out;
    uint32_t crc = 1;
    for (const std::string& l : lines) {
        out += l + "\n";
        crc = adler(l, crc);
    }
    return out + "self=" + std::to_string(crc) + "\n";
}

// A pool in a temporary directory:
//   DBROOT   = <tmp>/db            PO/UL root DBROOT/databases/po
//   storage  = <tmp>/storage       application root DBROOT/databases/application
//   shadow   = <tmp>/storage/catalogshadow (the default)
//   config   = <tmp>/pool.cfg
struct PoolLayout {
    kt::TempDir tmp;
    std::string dbroot = tmp.file("db");
    std::string storage = tmp.file("storage");
    std::string shadow = storage + "/catalogshadow";
    std::string config = tmp.file("pool.cfg");

    std::string po_dir(const std::string& dsid) const { return dbroot + "/databases/po/" + dsid; }
    std::string app_dir(const std::string& rel) const { return dbroot + "/databases/application/" + rel; }

    // Writes the configuration: [Paths] StorageDatabase plus `paths_extra`
    // lines, [Storage] Storage Path.
    void write_config(const std::string& paths_extra = "") const {
        kt::write_file(config, "[Paths]\nStorageDatabase = " + dbroot + "\n" + paths_extra + "[Storage]\nStorage Path = " +
                                   storage + "\n");
    }

    void create_identity() const {
        CatalogShadowIdentity identity(shadow.c_str());
        identity.create_identity();
    }

    // A context on this layout, init() run. With `identity` the identity file
    // is made first, so the feature is on.
    std::unique_ptr<CatalogShadowContext> context(bool identity = true, const std::string& paths_extra = "") const {
        write_config(paths_extra);
        if (identity) create_identity();
        std::unique_ptr<CatalogShadowContext> ctx(
            new CatalogShadowContext(new ConfigFileShadowProxy(config, dbroot), new CatalogDirectoryLock));
        ctx->init();
        return ctx;
    }
};

// A shadow whose version count is set by the test.
class CountedShadow : public PODBShadow {
public:
    CountedShadow(const std::string& dir, const std::string& shadow_dir, uint32_t count)
        : PODBShadow(nullptr, dir, shadow_dir), count_(count) {}
    uint32_t get_max_version_count() const override { return count_; }

private:
    uint32_t count_;
};

// Adds version current+1 of `type` holding `content` as its database file, at
// the front of the list, and makes it current. Does not persist.
inline ShadowVersion& add_version(PODBShadow& shadow, const std::string& type, const std::string& content) {
    wa_createtree(shadow.get_shadow_dir(), 0755);
    const uint64_t n = shadow.get_db_current_ver_(type) + 1;
    ShadowVersion v(shadow.get_shadow_dir(), type, n);
    kt::write_file(v.db_path, content);
    v.db_crc = adler(content);
    ShadowVersionList* list = new ShadowVersionList(*shadow.get_db_versions_(type));
    list->push_front(v);
    shadow.reset_db_versions_(type, list);
    shadow.set_db_current_ver_(type, n);
    return shadow.get_db_versions_(type)->front();
}

// Names in `dir` that begin with `prefix`.
inline std::vector<std::string> entries_with_prefix(const std::string& dir, const std::string& prefix) {
    std::vector<std::string> out;
    for (const std::string& n : kt::list_dir(dir)) {
        if (n.compare(0, prefix.size(), prefix) == 0) out.push_back(n);
    }
    return out;
}

// Another thread holds `dir` through its own CatalogDirectoryLock from the
// constructor's return until release() (or the destructor), and at most five
// seconds: long enough to outlast any short wait a test sets, short enough
// that a waiter on the process-wide limit would get the directory instead.
class held_directory {
public:
    explicit held_directory(const std::string& dir) : holder_([this, dir]() {
        CatalogDirectoryLock lock;
        if (lock.Lock(dir, 2) == CR_STATUS_OK) {
            held_ = true;
            const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
            while (!done_ && std::chrono::steady_clock::now() < until)
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            lock.Unlock(dir, 2);
        }
        started_ = true;
    }) {
        while (!held_ && !started_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ~held_directory() { release(); }
    // Whether the thread got the directory.
    bool held() const { return held_; }
    void release() {
        done_ = true;
        if (holder_.joinable()) holder_.join();
    }

private:
    std::atomic<bool> held_{false};
    std::atomic<bool> started_{false};  // the thread is past its lock (failed or ended)
    std::atomic<bool> done_{false};
    std::thread holder_;
};

}  // namespace shadow_test

#endif  // KAVREL_TESTS_CATALOG_SHADOW_SHADOW_TEST_HELPERS_H_
