// Moving catalog items: what a result vector does when it grows.
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "appdb/app_catalog_item.h"
#include "gtest/gtest.h"

namespace {

using appdb::app_catalog_item;

// Without a move that cannot throw, std::vector copies every item (every
// string) each time it grows.
static_assert(std::is_nothrow_move_constructible<app_catalog_item>::value,
              "vectors of items must move them when they grow");
static_assert(std::is_nothrow_move_assignable<app_catalog_item>::value, "items must move-assign without throwing");

// An item whose every text field is too long for the short-string buffer, so
// that a move has heap storage to hand over.
app_catalog_item long_item(int i) {
    const std::string tail(40, 'x');
    app_catalog_item it;
    it.version = 7;
    it.file_name = "/data/file_" + std::to_string(i) + tail;
    it.file_len = 123456789012ULL + static_cast<uint64_t>(i);
    it.backup_id = "backup_" + std::to_string(i) + tail;
    it.policy = "policy" + tail;
    it.policy_type = 2;
    it.schedule_type = 3;
    it.frag_nums = 5;
    it.client = "client" + tail;
    it.app_id = "app" + tail;
    it.data_object = "object" + tail;
    it.app_expire_time = -1;
    it.orvo_expire_time = 1800000000;
    it.backup_start_time = 1700000000 + i;
    it.backup_stop_time = 1700000100 + i;
    it.owner = "owner" + tail;
    it.owner_role = 1;
    it.description = "description" + tail;
    std::string* reserved[] = {&it.reserver0, &it.reserver1, &it.reserver2, &it.reserver3, &it.reserver4,
                               &it.reserver5, &it.reserver6, &it.reserver7, &it.reserver8, &it.reserver9};
    for (int k = 0; k < 10; ++k) *reserved[k] = "r" + std::to_string(k) + tail;
    return it;
}

TEST(ItemMove, MoveConstructionKeepsEveryField) {
    const app_catalog_item original = long_item(1);
    app_catalog_item source = original;
    const app_catalog_item moved(std::move(source));
    EXPECT_EQ(moved.to_string(), original.to_string());
    EXPECT_EQ(moved.to_json_string(nullptr), original.to_json_string(nullptr));
}

TEST(ItemMove, MoveAssignmentKeepsEveryField) {
    const app_catalog_item original = long_item(2);
    app_catalog_item source = original;
    app_catalog_item target = long_item(3);
    target = std::move(source);
    EXPECT_EQ(target.to_string(), original.to_string());
}

TEST(ItemMove, MovedFromItemCanBeReassignedAndUsed) {
    app_catalog_item source = long_item(4);
    app_catalog_item target(std::move(source));
    source = long_item(5);
    EXPECT_EQ(source.to_string(), long_item(5).to_string());
    EXPECT_EQ(target.to_string(), long_item(4).to_string());
}

TEST(ItemMove, GrowingVectorKeepsItemsInOrder) {
    std::vector<app_catalog_item> items;
    for (int i = 0; i < 1000; ++i) {
        items.emplace_back();
        items.back() = long_item(i);
    }
    ASSERT_EQ(items.size(), 1000u);
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(items[i].to_string(), long_item(i).to_string()) << i;
}

TEST(ItemMove, CopyStillLeavesTheSourceAlone) {
    const app_catalog_item source = long_item(6);
    app_catalog_item copy(source);
    copy.file_name = "changed";
    EXPECT_EQ(source.to_string(), long_item(6).to_string());
}

}  // namespace
