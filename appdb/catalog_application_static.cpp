// The static members of catalog_application_base: the item checksum, the
// list form and the query entry point. They need no database.
#include "appdb/catalog_application_base.h"

#include <string.h>

#include "dct/log.h"

namespace appdb {

namespace {

// Gathers the checksummed bytes of an item in a stack buffer so that Adler-32
// runs over few, long pieces. Integers are written byte by byte, least
// significant first, so the stored checksums do not depend on the host.
class checksum_builder {
public:
    void put_u32(uint32_t v) {
        if (sizeof(buf_) - used_ < 4) flush();
        unsigned char* p = buf_ + used_;
        p[0] = static_cast<unsigned char>(v);
        p[1] = static_cast<unsigned char>(v >> 8);
        p[2] = static_cast<unsigned char>(v >> 16);
        p[3] = static_cast<unsigned char>(v >> 24);
        used_ += 4;
    }

    void put_u64(uint64_t v) {
        if (sizeof(buf_) - used_ < 8) flush();
        unsigned char* p = buf_ + used_;
        // Spelled out so that the compiler merges the stores into one.
        p[0] = static_cast<unsigned char>(v);
        p[1] = static_cast<unsigned char>(v >> 8);
        p[2] = static_cast<unsigned char>(v >> 16);
        p[3] = static_cast<unsigned char>(v >> 24);
        p[4] = static_cast<unsigned char>(v >> 32);
        p[5] = static_cast<unsigned char>(v >> 40);
        p[6] = static_cast<unsigned char>(v >> 48);
        p[7] = static_cast<unsigned char>(v >> 56);
        used_ += 8;
    }

    void put_text(const std::string& s) {
        const size_t n = s.size();
        if (n == 0) return;
        if (n <= sizeof(buf_) - used_) {
            memcpy(buf_ + used_, s.data(), n);
            used_ += n;
            return;
        }
        // Does not fit: send what is gathered, then a long text goes straight
        // to the checksum instead of being copied piece by piece.
        flush();
        if (n > sizeof(buf_) / 2) {
            adler_ = CRCAppend(adler_, reinterpret_cast<const unsigned char*>(s.data()), n);
        } else {
            memcpy(buf_, s.data(), n);
            used_ = n;
        }
    }

    uint32_t finish() {
        flush();
        return adler_;
    }

private:
    void flush() {
        if (used_ == 0) return;
        adler_ = CRCAppend(adler_, buf_, used_);
        used_ = 0;
    }

    uint32_t adler_ = 1;  // Adler-32 initial value
    size_t used_ = 0;
    unsigned char buf_[1024];
};

}  // namespace

uint32_t catalog_application_base::crc_value(const app_catalog_item& item) {
    checksum_builder b;
    b.put_u32(item.version);
    b.put_text(item.file_name);
    b.put_u64(item.file_len);
    b.put_text(item.backup_id);
    b.put_u32(item.policy_type);
    b.put_u32(item.schedule_type);
    b.put_u32(item.frag_nums);
    b.put_text(item.app_id);
    b.put_text(item.data_object);
    b.put_u64(static_cast<uint64_t>(item.app_expire_time));
    b.put_u64(static_cast<uint64_t>(item.orvo_expire_time));
    b.put_u64(static_cast<uint64_t>(item.backup_start_time));
    b.put_u64(static_cast<uint64_t>(item.backup_stop_time));
    b.put_text(item.owner);
    b.put_u32(item.owner_role);
    b.put_text(item.description);
    b.put_text(item.reserver0);
    b.put_text(item.reserver1);
    b.put_text(item.reserver2);
    b.put_text(item.reserver3);
    b.put_text(item.reserver4);
    b.put_text(item.reserver5);
    b.put_text(item.reserver6);
    b.put_text(item.reserver7);
    b.put_text(item.reserver8);
    b.put_text(item.reserver9);
    return b.finish();
}

std::string catalog_application_base::to_string(const std::vector<app_catalog_item>& items) {
    std::string out = std::to_string(items.size());
    out.push_back('|');
    for (const auto& item : items) out.append(item.to_string());
    return out;
}

cr_status_t catalog_application_base::parse_query(const std::string& query, app_query& q, std::string& sql) {
    if (!q.parse_query(query)) {
        ErrorA(CR_STATUS_FAILED, "%s: failed parse query str %s", "parse_query", query.c_str());
        return CR_STATUS_FAILED;
    }
    if (!q.query_sql(sql)) {
        ErrorA(CR_STATUS_FAILED, "%s: failed to generate sql from %s", "parse_query", query.c_str());
        return CR_STATUS_FAILED;
    }
    return CR_STATUS_OK;
}

}  // namespace appdb
