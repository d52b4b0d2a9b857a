// The item record's defaults and copies, CRCAppend and the item checksum.
#include <string.h>
#include <zlib.h>

#include <string>
#include <vector>

#include "appdb/app_catalog_item.h"
#include "appdb/catalog_application_base.h"
#include "gtest/gtest.h"

namespace {

using appdb::app_catalog_item;
using appdb::catalog_application_base;

// Adler-32 straight from its definition (one byte at a time, reduced at every
// step), independent of zlib and of the library.
uint32_t reference_adler(uint32_t adler, const std::string& bytes) {
    uint32_t a = adler & 0xffff, b = adler >> 16;
    for (unsigned char c : bytes) {
        a = (a + c) % 65521;
        b = (b + a) % 65521;
    }
    return (b << 16) | a;
}

uint32_t zlib_adler(const std::string& bytes) {
    return static_cast<uint32_t>(
        adler32(adler32(0L, Z_NULL, 0), reinterpret_cast<const Bytef*>(bytes.data()),
                static_cast<uInt>(bytes.size())));
}

// Little-endian bytes by arithmetic, whatever the host order.
std::string le(uint64_t v, int width) {
    std::string out;
    for (int i = 0; i < width; ++i) {
        out.push_back(static_cast<char>(v % 256));
        v /= 256;
    }
    return out;
}

app_catalog_item full_item() {
    app_catalog_item it;
    it.version = 0x01020304u;
    it.file_name = "/data/db/redo_01.log";
    it.file_len = 0x0102030405060708ull;
    it.backup_id = "srv1_1700000000";
    it.policy = "daily-oracle";
    it.policy_type = 7;
    it.schedule_type = 0x11223344u;
    it.frag_nums = 3;
    it.client = "srv1.example";
    it.app_id = "ORCL";
    it.data_object = "tablespace USERS";
    it.app_expire_time = 1800000000;
    it.orvo_expire_time = -2;
    it.backup_start_time = 1700000000;
    it.backup_stop_time = 1700000600;
    it.owner = "oracle";
    it.owner_role = 1;
    it.description = "nightly Größe ✓";
    it.reserver0 = "r0";
    it.reserver1 = "r1";
    it.reserver2 = "r2";
    it.reserver3 = "r3";
    it.reserver4 = "r4";
    it.reserver5 = "r5";
    it.reserver6 = "r6";
    it.reserver7 = "r7";
    it.reserver8 = "r8";
    it.reserver9 = "r9";
    return it;
}

// The checksummed byte string of an item, assembled field by field.
std::string checksum_bytes(const app_catalog_item& it) {
    std::string s;
    s += le(it.version, 4);
    s += it.file_name;
    s += le(it.file_len, 8);
    s += it.backup_id;
    s += le(it.policy_type, 4);
    s += le(it.schedule_type, 4);
    s += le(it.frag_nums, 4);
    s += it.app_id;
    s += it.data_object;
    s += le(static_cast<uint64_t>(it.app_expire_time), 8);
    s += le(static_cast<uint64_t>(it.orvo_expire_time), 8);
    s += le(static_cast<uint64_t>(it.backup_start_time), 8);
    s += le(static_cast<uint64_t>(it.backup_stop_time), 8);
    s += it.owner;
    s += le(it.owner_role, 4);
    s += it.description;
    for (const std::string* r : {&it.reserver0, &it.reserver1, &it.reserver2, &it.reserver3, &it.reserver4,
                                 &it.reserver5, &it.reserver6, &it.reserver7, &it.reserver8, &it.reserver9}) {
        s += *r;
    }
    return s;
}

TEST(ItemRecord, DefaultsAreTheDocumentedOnes) {
    app_catalog_item it;
    EXPECT_EQ(1u, it.version);
    EXPECT_EQ("", it.file_name);
    EXPECT_EQ(0u, it.file_len);
    EXPECT_EQ("", it.backup_id);
    EXPECT_EQ("", it.policy);
    EXPECT_EQ(4u, it.policy_type);
    EXPECT_EQ(0u, it.schedule_type);
    EXPECT_EQ(0u, it.frag_nums);
    EXPECT_EQ("", it.client);
    EXPECT_EQ("", it.app_id);
    EXPECT_EQ("", it.data_object);
    EXPECT_EQ(0, it.app_expire_time);
    EXPECT_EQ(0, it.orvo_expire_time);
    EXPECT_EQ(0, it.backup_start_time);
    EXPECT_EQ(0, it.backup_stop_time);
    EXPECT_EQ("", it.owner);
    EXPECT_EQ(4u, it.owner_role);
    EXPECT_EQ("", it.description);
    for (const std::string* r : {&it.reserver0, &it.reserver1, &it.reserver2, &it.reserver3, &it.reserver4,
                                 &it.reserver5, &it.reserver6, &it.reserver7, &it.reserver8, &it.reserver9}) {
        EXPECT_EQ("", *r);
    }
}

TEST(ItemRecord, CopyConstructionAndAssignmentCopyEveryField) {
    const app_catalog_item src = full_item();
    app_catalog_item copied(src);
    EXPECT_EQ(src.to_string(), copied.to_string());

    app_catalog_item assigned;
    assigned = src;
    EXPECT_EQ(src.to_string(), assigned.to_string());

    // The copies share nothing with the source.
    copied.file_name = "changed";
    assigned.reserver9 = "changed";
    EXPECT_EQ("/data/db/redo_01.log", src.file_name);
    EXPECT_EQ("r9", src.reserver9);
}

TEST(ItemRecord, OwnerRoleWords) {
    EXPECT_STREQ("admin", appdb::owner_role_str(1));
    EXPECT_STREQ("app", appdb::owner_role_str(4));
    EXPECT_STREQ("unknown role", appdb::owner_role_str(0));
    EXPECT_STREQ("unknown role", appdb::owner_role_str(2));
    EXPECT_STREQ("unknown role", appdb::owner_role_str(0xffffffffu));
}

TEST(CRCAppend, NullDataGivesInitialValue) {
    EXPECT_EQ(1u, appdb::CRCAppend(0x12345678u, nullptr, 10));
    EXPECT_EQ(1u, appdb::CRCAppend(1u, nullptr, 0));
}

TEST(CRCAppend, ZeroLengthKeepsTheValue) {
    const unsigned char byte = 'x';
    EXPECT_EQ(0x0148000Au, appdb::CRCAppend(0x0148000Au, &byte, 0));
    EXPECT_EQ(1u, appdb::CRCAppend(1u, &byte, 0));
}

TEST(CRCAppend, KnownValues) {
    const std::string w = "Wikipedia";
    EXPECT_EQ(0x11E60398u, appdb::CRCAppend(1, reinterpret_cast<const unsigned char*>(w.data()), w.size()));
    const std::string abc = "abc";
    EXPECT_EQ(0x024D0127u, appdb::CRCAppend(1, reinterpret_cast<const unsigned char*>(abc.data()), abc.size()));
}

TEST(CRCAppend, MatchesDefinitionOverLongDataAndContinues) {
    // Long enough to cross zlib's 5552-byte reduction blocks several times,
    // with bytes near 0xff so the sums grow as fast as they can.
    std::string data(20000, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(0xff - (i % 7));
    const auto* p = reinterpret_cast<const unsigned char*>(data.data());
    const uint32_t whole = appdb::CRCAppend(1, p, data.size());
    EXPECT_EQ(reference_adler(1, data), whole);
    EXPECT_EQ(zlib_adler(data), whole);

    uint32_t pieces = 1;
    for (size_t off = 0; off < data.size(); off += 777) {
        pieces = appdb::CRCAppend(pieces, p + off, std::min<size_t>(777, data.size() - off));
    }
    EXPECT_EQ(whole, pieces);
}

TEST(ItemChecksum, DefaultItemIsAdlerOfSixtyBytes) {
    app_catalog_item it;
    const std::string bytes = checksum_bytes(it);
    ASSERT_EQ(60u, bytes.size());
    // Spelled out: version 1, file_len 0, policy_type 4, schedule_type 0,
    // frag_nums 0, four zero times, owner_role 4.
    std::string hand("\x01\x00\x00\x00", 4);
    hand += std::string(8, '\0');
    hand += std::string("\x04\x00\x00\x00", 4);
    hand += std::string(8, '\0');
    hand += std::string(32, '\0');
    hand += std::string("\x04\x00\x00\x00", 4);
    ASSERT_EQ(hand, bytes);
    EXPECT_EQ(21495818u, zlib_adler(hand));
    EXPECT_EQ(21495818u, catalog_application_base::crc_value(it));
    EXPECT_EQ(0x0148000Au, catalog_application_base::crc_value(it));
}

TEST(ItemChecksum, FullItemMatchesHandBuiltBytes) {
    const app_catalog_item it = full_item();
    std::string bytes = checksum_bytes(it);
    // Spot checks of the layout: version and file_len least significant byte first.
    EXPECT_EQ(std::string("\x04\x03\x02\x01", 4), bytes.substr(0, 4));
    EXPECT_EQ(std::string("\x08\x07\x06\x05\x04\x03\x02\x01", 8), bytes.substr(4 + it.file_name.size(), 8));
    EXPECT_EQ(zlib_adler(bytes), catalog_application_base::crc_value(it));
    EXPECT_EQ(reference_adler(1, bytes), catalog_application_base::crc_value(it));
}

TEST(ItemChecksum, NegativeTimesAreTwosComplement) {
    app_catalog_item it;
    it.backup_stop_time = -1;
    std::string hand("\x01\x00\x00\x00", 4);
    hand += std::string(8, '\0');
    hand += std::string("\x04\x00\x00\x00", 4);
    hand += std::string(8, '\0');
    hand += std::string(24, '\0');
    hand += std::string(8, '\xff');
    hand += std::string("\x04\x00\x00\x00", 4);
    EXPECT_EQ(zlib_adler(hand), catalog_application_base::crc_value(it));
}

TEST(ItemChecksum, LongAndBoundarySizedTextsMatchHandBuiltBytes) {
    // Text lengths around the assembly buffer's size and far beyond it.
    const size_t sizes[] = {0, 1, 511, 512, 513, 900, 1000, 1023, 1024, 1025, 2047, 5000, 70000};
    for (size_t a : sizes) {
        for (size_t b : {size_t(0), size_t(3), size_t(600), size_t(1100)}) {
            app_catalog_item it = full_item();
            it.file_name = std::string(a, 'f');
            it.app_id = std::string(b, 'a');
            it.description = std::string(a, 'd');
            it.reserver9 = std::string(b + 1, 'z');
            const std::string bytes = checksum_bytes(it);
            EXPECT_EQ(zlib_adler(bytes), catalog_application_base::crc_value(it)) << "sizes " << a << ", " << b;
        }
    }
}

TEST(ItemChecksum, ClientAndPolicyAreNotCovered) {
    app_catalog_item a = full_item();
    app_catalog_item b = a;
    b.client = "another-client";
    EXPECT_EQ(catalog_application_base::crc_value(a), catalog_application_base::crc_value(b));
    b.policy = "another-policy";
    EXPECT_EQ(catalog_application_base::crc_value(a), catalog_application_base::crc_value(b));
}

TEST(ItemChecksum, EveryCoveredFieldChangesTheChecksum) {
    const app_catalog_item base = full_item();
    const uint32_t crc = catalog_application_base::crc_value(base);
    std::vector<app_catalog_item> variants(26, base);
    int i = 0;
    variants[i++].version += 1;
    variants[i++].file_name += "x";
    variants[i++].file_len += 1;
    variants[i++].backup_id += "x";
    variants[i++].policy_type += 1;
    variants[i++].schedule_type += 1;
    variants[i++].frag_nums += 1;
    variants[i++].app_id += "x";
    variants[i++].data_object += "x";
    variants[i++].app_expire_time += 1;
    variants[i++].orvo_expire_time += 1;
    variants[i++].backup_start_time += 1;
    variants[i++].backup_stop_time += 1;
    variants[i++].owner += "x";
    variants[i++].owner_role += 1;
    variants[i++].description += "x";
    variants[i++].reserver0 += "x";
    variants[i++].reserver1 += "x";
    variants[i++].reserver2 += "x";
    variants[i++].reserver3 += "x";
    variants[i++].reserver4 += "x";
    variants[i++].reserver5 += "x";
    variants[i++].reserver6 += "x";
    variants[i++].reserver7 += "x";
    variants[i++].reserver8 += "x";
    variants[i++].reserver9 += "x";
    ASSERT_EQ(26, i);
    for (int k = 0; k < 26; ++k) {
        EXPECT_NE(crc, catalog_application_base::crc_value(variants[k])) << "variant " << k;
    }
}

TEST(ItemChecksum, NeighbouringTextsSeparatedByANumberDoNotCollide) {
    app_catalog_item a, b;
    a.file_name = "ab";
    a.backup_id = "c";
    b.file_name = "a";
    b.backup_id = "bc";
    EXPECT_NE(catalog_application_base::crc_value(a), catalog_application_base::crc_value(b));

    // The same move with file_len's bytes between the texts is what differs:
    // with those bytes taken out the two byte strings are equal.
    std::string sa = checksum_bytes(a), sb = checksum_bytes(b);
    EXPECT_NE(sa, sb);
    sa.erase(4 + 2, 8);
    sb.erase(4 + 1, 8);
    EXPECT_EQ(sa, sb);
}

TEST(ItemChecksum, AdjacentTextsCollide) {
    app_catalog_item a, b;
    a.app_id = "ab";
    a.data_object = "c";
    b.app_id = "a";
    b.data_object = "bc";
    EXPECT_EQ(catalog_application_base::crc_value(a), catalog_application_base::crc_value(b));

    app_catalog_item c, d;
    c.description = "xy";
    c.reserver0 = "z";
    d.description = "x";
    d.reserver0 = "yz";
    EXPECT_EQ(catalog_application_base::crc_value(c), catalog_application_base::crc_value(d));
}

}  // namespace
