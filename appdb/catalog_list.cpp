#include "appdb/catalog_list.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string>

#include "appdb/app_catalog_item.h"
#include "appdb/catalog_application_impl.h"
#include "appdb/catalog_item_sink.h"
#include "catalog_shadow/DirectoryLock.h"
#include "dct/log.h"
#include "dct/pool_layout.h"
#include "dct/status.h"

namespace {

// Open databases kept per data store while its directories are listed.
const unsigned int kListCacheSize = 5;

// Each readable item of a catalog as a printed line into the buffer; a
// restarted query starts the catalog's lines afresh. The line is written by
// its length: a text field may hold a NUL byte, which must not cut it short.
class list_sink : public appdb::catalog_item_sink {
public:
    list_sink(dct::spill_buffer& out, bool verbose) : out_(out), verbose_(verbose) {}

    void restart() override {
        out_.clear();
        count_ = 0;
    }
    cr_status_t take(appdb::app_catalog_item& item) override {
        line_ = verbose_ ? item.to_json_string(nullptr) : item.to_string();
        line_ += '\n';
        const cr_status_t status = out_.append(line_.data(), line_.size());
        if (status == CR_STATUS_OK) ++count_;
        return status;
    }
    unsigned int count() const { return count_; }

private:
    dct::spill_buffer& out_;
    bool verbose_;
    std::string line_;
    unsigned int count_ = 0;
};

}  // namespace

const char kListUser[] = "";
const unsigned int kListRole = appdb::APP_ROLE_ADMIN;

const size_t OpList::default_memory_limit = 1u << 20;

OpList::OpList(const std::string& backup_id_pattern, bool verbose, size_t memory_limit)
    : backup_id_(backup_id_pattern), verbose_(verbose),
      out_(std::make_shared<dct::spill_buffer>(memory_limit)) {}

int OpList::operator()(const DirItem& item) const {
    if (!item.is_dir) return 0;
    try {
        list_catalog(item.fullpath);
    } catch (const std::bad_alloc&) {
        // The walk goes on; what this directory printed so far stays printed.
        ErrorA(CR_STATUS_NOMEM, "%s: out of memory", "operator()");
    }
    return 0;
}

void OpList::list_catalog(const std::string& dir) const {
    std::string client;
    std::string policy;
    std::unique_ptr<appdb::catalog_application> app(parse_path(dir, client, policy));
    if (!app) return;

    fputc('[', stdout);
    fwrite(dir.data(), 1, dir.size(), stdout);
    fputs("]\n", stdout);

    const std::string query = "backup_id|" + client + "," + policy + "," + backup_id_;
    list_sink sink(*out_, verbose_);
    cr_status_t status = app->find_catalog(kListUser, kListRole, query, sink);
    if (status != CR_STATUS_OK) {
        out_->clear();
        ErrorA(CR_STATUS_NONE, "%s: find catalog failed by %s", "operator()", query.c_str());
        return;
    }
    // Closes the connection this directory's application opened before the
    // walk goes on.
    app.reset();

    // A failed copy is logged; the total still ends the block.
    out_->write_to(stdout);
    printf("total app catalog %u\n", sink.count());
    fputc('\n', stdout);
}

appdb::catalog_application* OpList::parse_path(const std::string& path, std::string& client,
                                               std::string& policy) const {
    try {
        return parse_catalog_path(path, client, policy);
    } catch (const std::bad_alloc&) {
        // Building the path pieces failed (the application itself reports
        // its own allocation failures below).
        ErrorA(CR_STATUS_NOMEM, "%s: out of memory", "parse_path");
        return nullptr;
    }
}

bool parse_catalog_dir(const std::string& path, catalog_dir* out) {
    dct::pool_layout::catalog_dir_parts parts;
    switch (dct::pool_layout::split_catalog_dir(path, &parts)) {
        case dct::pool_layout::catalog_dir_error::none: break;
        case dct::pool_layout::catalog_dir_error::no_databases:
            __TraceA("path %s database root is not correct\n", path.c_str());
            return false;
        case dct::pool_layout::catalog_dir_error::no_application:
            __TraceA("database_app_root=%s\n", parts.application.c_str());
            return false;
        case dct::pool_layout::catalog_dir_error::no_store_below: {
            // Past the end there is no character; the string's terminator is shown.
            const size_t start = parts.application.size() + 1;
            __TraceA("path %s database_app_root %s %c\n", path.c_str(), parts.application.c_str(),
                     path.c_str()[std::min(start, path.size())]);
            return false;
        }
        case dct::pool_layout::catalog_dir_error::no_store_end:
            __TraceA("path %s dsid is not correct\n", path.c_str());
            return false;
        case dct::pool_layout::catalog_dir_error::no_client_end:
            __TraceA("path %s client is not correct\n", path.c_str());
            return false;
        case dct::pool_layout::catalog_dir_error::below_policy:
            __TraceA("path %s policy is not correct\n", path.c_str());
            return false;
    }
    out->dsid = parts.dsid;
    out->database_root = parts.databases;
    out->client = parts.client;
    out->policy = parts.policy;

    __TraceA("client %s policy %s dsid %u database_root %s\n", out->client.c_str(),
             out->policy.c_str(), out->dsid, out->database_root.c_str());
    return true;
}

appdb::catalog_application* OpList::parse_catalog_path(const std::string& path, std::string& client,
                                                       std::string& policy) {
    catalog_dir dir;
    if (!parse_catalog_dir(path, &dir)) return nullptr;
    client = dir.client;
    policy = dir.policy;
    return create_list_catalog(dir.dsid, dir.database_root);
}

appdb::catalog_application_impl* OpList::create_list_catalog(uint32_t dsid,
                                                             const std::string& database_root) {
    appdb::catalog_application_impl* app = nullptr;
    try {
        app = new (std::nothrow) appdb::catalog_application_impl(dsid, database_root, kListCacheSize);
        if (app == nullptr) {
            ErrorA(CR_STATUS_NOMEM, "%s: out of memory", "parse_path");
            return nullptr;
        }
        app->dir_lock.reset(new CatalogDirectoryLock());
    } catch (const std::bad_alloc&) {
        ErrorA(CR_STATUS_NOMEM, "%s: out of memory", "create_catalog");
        delete app;
        return nullptr;
    }
    return app;
}
