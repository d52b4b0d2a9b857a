// catalog_item_sink: receives the records of a query one at a time, as they
// are read, instead of a vector that holds them all. A listing of a large
// catalog then needs memory for one record, not for the catalog.
#ifndef APPDB_CATALOG_ITEM_SINK_H_
#define APPDB_CATALOG_ITEM_SINK_H_

#include "appdb/app_catalog_item.h"
#include "dct/status.h"

namespace appdb {

class catalog_item_sink {
public:
    virtual ~catalog_item_sink() = default;
    // An attempt of the query starts (a busy database is tried again from the
    // start, a recovered one is read again): everything taken before is void.
    // Called once before the first attempt too.
    virtual void restart() = 0;
    // One record that passed its row checksum and the access rule, in the
    // order of the query. The sink may move from `item`. A non-zero status
    // stops the query, which returns it as it is: it is not retried, even
    // when it reads as busy, nor taken as damage to the database (no
    // recovery). The sink logs its own failure.
    virtual cr_status_t take(app_catalog_item& item) = 0;
};

}  // namespace appdb

#endif  // APPDB_CATALOG_ITEM_SINK_H_
