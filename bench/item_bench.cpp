// Cost per catalog item of the checksum verified on every row read, of the
// line form and of reading it back; the checksum beside zlib's adler32 over the
// very same bytes, which is its floor.
#include <zlib.h>

#include <sstream>
#include <string>

#include "appdb/app_catalog_item.h"
#include "appdb/catalog_application_base.h"
#include "benchmark/benchmark.h"

namespace {

using appdb::app_catalog_item;

// About 200 bytes of text, as an application backup item usually carries.
app_catalog_item typical_item() {
    app_catalog_item it;
    it.file_name = "/u01/app/oracle/fast_recovery_area/ORCL/archivelog/o1_mf_1_4711.arc";
    it.file_len = 268435456;
    it.backup_id = "dbsrv01_1700000000";
    it.policy = "oracle-daily";
    it.policy_type = 4;
    it.schedule_type = 1;
    it.frag_nums = 2;
    it.client = "dbsrv01.example.net";
    it.app_id = "ORCL";
    it.data_object = "archivelog thread 1 sequence 4711";
    it.app_expire_time = 1702592000;
    it.orvo_expire_time = 1702592000;
    it.backup_start_time = 1700000000;
    it.backup_stop_time = 1700000420;
    it.owner = "oracle";
    it.owner_role = 4;
    it.description = "nightly archive log backup, level 0";
    return it;
}

// The checksummed bytes of the item, laid out as the checksum reads them.
std::string checksum_bytes(const app_catalog_item& it) {
    auto le = [](std::string& s, uint64_t v, int n) {
        for (int i = 0; i < n; ++i) s.push_back(static_cast<char>(v >> (8 * i)));
    };
    std::string s;
    le(s, it.version, 4);
    s += it.file_name;
    le(s, it.file_len, 8);
    s += it.backup_id;
    le(s, it.policy_type, 4);
    le(s, it.schedule_type, 4);
    le(s, it.frag_nums, 4);
    s += it.app_id + it.data_object;
    le(s, static_cast<uint64_t>(it.app_expire_time), 8);
    le(s, static_cast<uint64_t>(it.orvo_expire_time), 8);
    le(s, static_cast<uint64_t>(it.backup_start_time), 8);
    le(s, static_cast<uint64_t>(it.backup_stop_time), 8);
    s += it.owner;
    le(s, it.owner_role, 4);
    s += it.description + it.reserver0 + it.reserver1 + it.reserver2 + it.reserver3 + it.reserver4 +
         it.reserver5 + it.reserver6 + it.reserver7 + it.reserver8 + it.reserver9;
    return s;
}

void BM_ItemChecksum(benchmark::State& state) {
    const app_catalog_item it = typical_item();
    const size_t bytes = checksum_bytes(it).size();
    for (auto _ : state) {
        benchmark::DoNotOptimize(appdb::catalog_application_base::crc_value(it));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    state.counters["bytes_per_item"] = static_cast<double>(bytes);
}
BENCHMARK(BM_ItemChecksum);

void BM_ZlibAdler32SameBytes(benchmark::State& state) {
    const std::string bytes = checksum_bytes(typical_item());
    if (static_cast<uint32_t>(adler32(1, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size())) !=
        appdb::catalog_application_base::crc_value(typical_item())) {
        state.SkipWithError("byte layout differs from the item checksum");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            adler32(1, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_ZlibAdler32SameBytes);

void BM_ItemToString(benchmark::State& state) {
    const app_catalog_item it = typical_item();
    size_t bytes = 0;
    for (auto _ : state) {
        std::string line = it.to_string();
        bytes += line.size();
        benchmark::DoNotOptimize(line.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(BM_ItemToString);

void BM_ItemFromString(benchmark::State& state) {
    const std::string line = typical_item().to_string();
    for (auto _ : state) {
        std::istringstream in(line);
        app_catalog_item it;
        bool ok = appdb::from_string(in, it);
        benchmark::DoNotOptimize(ok);
        benchmark::DoNotOptimize(it.reserver9.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line.size()));
}
BENCHMARK(BM_ItemFromString);

}  // namespace
