// vector_item_sink: the sink behind the vector forms of the queries. It appends
// what it takes to the caller's vector, and restart() empties it, so that a
// retried query never returns a record twice.
#ifndef APPDB_VECTOR_ITEM_SINK_H_
#define APPDB_VECTOR_ITEM_SINK_H_

#include <new>
#include <utility>
#include <vector>

#include "appdb/catalog_item_sink.h"
#include "dct/log.h"

namespace appdb {

class vector_item_sink : public catalog_item_sink {
public:
    explicit vector_item_sink(std::vector<app_catalog_item>& items) : items_(items) {}

    void restart() override { items_.clear(); }
    // 22 when the vector cannot grow: what it held is dropped, as a result
    // cut short is no result.
    cr_status_t take(app_catalog_item& item) override {
        try {
            items_.push_back(std::move(item));
        } catch (const std::bad_alloc&) {
            items_.clear();
            ErrorA(CR_STATUS_NOMEM, "%s: out of memory when insert items", "try_do_db_query");
            return CR_STATUS_NOMEM;
        }
        return CR_STATUS_OK;
    }

private:
    std::vector<app_catalog_item>& items_;
};

}  // namespace appdb

#endif  // APPDB_VECTOR_ITEM_SINK_H_
