// Helpers of the kavrel-shadow end-to-end tests: where the built binary is, a
// catalog item of a client and policy, and a tree made read-only for a user
// who may only read (the tests run as root and drop to nobody in the child).
#ifndef KAVREL_TESTS_TOOL_SHADOW_TOOL_UTIL_H_
#define KAVREL_TESTS_TOOL_SHADOW_TOOL_UTIL_H_

#include <ftw.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "appdb/app_catalog_item.h"

namespace kst {

inline std::string shadow_binary() {
    const char* dir = getenv("KAVREL_BINARY_DIR");
    return std::string(dir != nullptr ? dir : "") + "/tool/kavrel-shadow";
}

// Item `n` of a client and policy, owned by the application user "svc".
inline appdb::app_catalog_item item(const std::string& client, const std::string& policy, int n) {
    appdb::app_catalog_item it;
    it.client = client;
    it.policy = policy;
    it.backup_id = client + "_" + std::to_string(1700000000 + n);
    it.file_name = it.backup_id + "_C1_F1";
    it.file_len = 4096u * static_cast<uint64_t>(n + 1);
    it.policy_type = 4;
    it.frag_nums = 1;
    it.app_id = "orcl";
    it.data_object = "DATAFILE";
    it.backup_start_time = 1700000000 + n;
    it.backup_stop_time = 1700000600 + n;
    it.owner = "svc";
    it.owner_role = appdb::APP_ROLE_APP;
    return it;
}

// nftw callbacks: the tree readable by everyone and writable by no one, and
// back.
inline int make_read_only(const char* path, const struct stat* st, int flag, struct FTW*) {
    chmod(path, flag == FTW_D ? 0555 : (S_ISREG(st->st_mode) ? 0444 : st->st_mode));
    return 0;
}
inline int make_writable(const char* path, const struct stat* st, int flag, struct FTW*) {
    chmod(path, flag == FTW_DP || flag == FTW_D ? 0755 : (S_ISREG(st->st_mode) ? 0644 : st->st_mode));
    return 0;
}

// RunOptions::in_child: runs the program as nobody when the test is root.
inline int drop_privileges() {
    if (geteuid() != 0) return 0;
    if (setgid(65534) != 0) return 1;
    if (setuid(65534) != 0) return 2;
    return 0;
}

}  // namespace kst

#endif  // KAVREL_TESTS_TOOL_SHADOW_TOOL_UTIL_H_
