// The listing functor of kavrel: handed to TraverseDir, it recognises every
// per-policy catalog directory DBROOT/databases/application/DSID/CLIENT/POLICY
// below the database root and prints the catalog items it holds whose backup
// id matches a pattern.
#ifndef APPDB_CATALOG_LIST_H_
#define APPDB_CATALOG_LIST_H_

#include <stdint.h>

#include <memory>
#include <string>

#include "dct/fileutil.h"
#include "dct/spill_buffer.h"

namespace appdb {
class catalog_application;
class catalog_application_impl;
}  // namespace appdb

// The parts of a catalog directory path
// DBROOT/databases/application/DSID/CLIENT/POLICY.
struct catalog_dir {
    uint32_t dsid = 0;
    std::string database_root;  // DBROOT/databases
    std::string client;
    std::string policy;
};

// Offers `root` itself to `op` as a directory, then walks the tree below it
// with copies of `op` (TraverseDir never offers its starting directory, and
// the root may itself be a catalog directory). The walk's result.
template <typename Op>
TraverseResult walk_catalog_tree(const std::string& root, const Op& op) {
    DirItem self;
    self.fullpath = root;
    self.dir = root;
    self.name = root;
    self.depth = 0;
    self.is_dir = true;
    if (op(self) < 0) {
        TraverseResult aborted;
        aborted.status = CR_STATUS_FAILED;
        aborted.path = root;
        return aborted;
    }
    return TraverseDir(root, op, true, 0);
}

// Who a listing reads a catalog as: the administrator (user "", role 1),
// so the access rule drops nothing.
extern const char kListUser[];
extern const unsigned int kListRole;

// The path rule of the listing (OpList::parse_path without the catalog
// application): true and `*out` filled for exactly the paths it accepts;
// false, with the same trace records, for every other path.
bool parse_catalog_dir(const std::string& path, catalog_dir* out);

// Copied by value into every level of the walk, so it holds its two settings
// and a handle on the one output buffer the copies share. Everything goes to
// standard output: for each catalog directory "[" + path + "]", one item per
// line, "total app catalog N" and an empty line. Failures are logged and never
// stop the walk.
//
// The items of a catalog are printed only once the whole catalog has read
// without error (a damaged row anywhere prints none of them). They wait in
// the buffer meanwhile: up to `memory_limit` bytes in memory, the rest in a
// temporary file without a name, so a listing of any size needs the same
// memory.
class OpList {
public:
    // `backup_id_pattern` is a GLOB pattern ("*" lists everything); `verbose`
    // selects the labelled form of the items instead of the line form.
    // Bytes of printed items held in memory per catalog before they go to
    // the temporary file.
    static const size_t default_memory_limit;

    OpList(const std::string& backup_id_pattern, bool verbose,
           size_t memory_limit = default_memory_limit);

    // Walk callback. Ignores entries that are not directories and directories
    // that are not catalog directories; lists the others. Always returns 0, so
    // the walk goes on and also descends into catalog directories.
    int operator()(const DirItem& item) const;

    // Accepts exactly DBROOT/databases/application/DSID/CLIENT/POLICY with no
    // "/" inside POLICY (which may be empty). On success fills `client` and
    // `policy` and returns a new plain catalog application for data store DSID
    // below DBROOT/databases (open-database cache of 5, its own directory
    // lock), owned by the caller. DSID is read with atol, so a non-numeric
    // component reads as 0 and is accepted. Returns null (traced, or logged
    // when out of memory) for any other path.
    appdb::catalog_application* parse_path(const std::string& path, std::string& client,
                                           std::string& policy) const;

    const std::string& backup_id_pattern() const { return backup_id_; }
    bool verbose() const { return verbose_; }

    // The plain catalog application of one data store, with its own lock,
    // as every listing reads a catalog directory (open-database cache of 5,
    // access as administrator); null (logged) when it cannot be allocated.
    static appdb::catalog_application_impl* create_list_catalog(uint32_t dsid,
                                                               const std::string& database_root);

private:
    // Lists `dir` when it is a catalog directory.
    void list_catalog(const std::string& dir) const;
    // parse_path without its guard against allocation failures.
    static appdb::catalog_application* parse_catalog_path(const std::string& path, std::string& client,
                                                          std::string& policy);

    std::string backup_id_;
    bool verbose_;
    std::shared_ptr<dct::spill_buffer> out_;
};

#endif  // APPDB_CATALOG_LIST_H_
