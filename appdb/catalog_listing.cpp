#include "appdb/catalog_listing.h"

#include "appdb/catalog_list.h"
#include "appdb/catalog_store.h"

namespace appdb {

size_t list_default_memory_limit() { return OpList::default_memory_limit; }

void list_catalogs(const std::string& root, const std::string& backup_id_pattern, bool verbose,
                   size_t memory_limit) {
    catalog_store::set_journal_mode_switch(false);
    // The walk logs what it meets; a listing goes on past every failure.
    walk_catalog_tree(root, OpList(backup_id_pattern, verbose, memory_limit));
}

}  // namespace appdb
