// File-system calls of the platform layer.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "dct/fault.h"
#include "dct/fs.h"
#include "dct/podb_names.h"

namespace {

mode_t mode_of(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return 0;
    return st.st_mode;
}

}  // namespace

// Each new level's name is synced in its parent, top down; levels that
// existed already are not synced.
TEST(CreateTreeSynced, SyncsTheParentOfEveryLevelItCreates) {
    kt::TempDir tmp;
    const std::string top = tmp.file("a");
    const std::string leaf = top + "/b/c";
    std::vector<std::string> synced;
    dct::set_fault_hook([&synced](dct::fault_op op, const char* path) {
        if (op == dct::fault_op::fsync && *path != '\0') synced.push_back(path);
        return 0;
    });
    EXPECT_EQ(0, wa_createtree_synced(leaf, 0755));
    EXPECT_EQ(0, wa_createtree_synced(leaf, 0755));  // nothing new: nothing synced
    dct::set_fault_hook(nullptr);
    EXPECT_TRUE(wa_isdir(leaf));
    EXPECT_EQ((std::vector<std::string>{tmp.path(), top, top + "/b"}), synced);
}

TEST(CreateTreeSynced, FailedSyncFails) {
    kt::TempDir tmp;
    dct::set_fault_hook([](dct::fault_op op, const char*) { return op == dct::fault_op::fsync ? EIO : 0; });
    EXPECT_EQ(-1, wa_createtree_synced(tmp.file("x"), 0755));
    EXPECT_EQ(EIO, errno);
    dct::set_fault_hook(nullptr);
}

TEST(CreateTree, CreatesEveryMissingLevel) {
    kt::TempDir dir;
    std::string deep = dir.file("a/b/c/d");
    EXPECT_EQ(wa_createtree(deep, 0755), 0);
    EXPECT_TRUE(wa_isdir(deep));
    EXPECT_TRUE(wa_isdir(dir.file("a/b")));
}

TEST(CreateTree, ExistingDirectoryIsSuccess) {
    kt::TempDir dir;
    ASSERT_EQ(wa_createtree(dir.file("x/y"), 0755), 0);
    EXPECT_EQ(wa_createtree(dir.file("x/y"), 0755), 0);
    EXPECT_EQ(wa_createtree(dir.path(), 0755), 0);
}

TEST(CreateTree, TrailingAndDoubledSlashes) {
    kt::TempDir dir;
    EXPECT_EQ(wa_createtree(dir.path() + "//p//q/", 0755), 0);
    EXPECT_TRUE(wa_isdir(dir.file("p/q")));
}

TEST(CreateTree, UsesTheMode) {
    kt::TempDir dir;
    mode_t old = umask(0);
    int rc = wa_createtree(dir.file("m/n"), 0710);
    umask(old);
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(mode_of(dir.file("m/n")) & 07777, 0710u);
    EXPECT_EQ(mode_of(dir.file("m")) & 07777, 0710u);
}

TEST(CreateTree, FileInTheWayFails) {
    kt::TempDir dir;
    kt::write_file(dir.file("plain"), "x");
    errno = 0;
    EXPECT_NE(wa_createtree(dir.file("plain"), 0755), 0);
    EXPECT_EQ(errno, ENOTDIR);
    errno = 0;
    EXPECT_NE(CreateTreeA(dir.file("plain/below"), 0755), 0);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST(CreateTree, EmptyOrNullPathFails) {
    errno = 0;
    EXPECT_NE(wa_createtree("", 0755), 0);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_NE(wa_createtree(static_cast<const char*>(nullptr), 0755), 0);
    EXPECT_EQ(errno, ENOENT);
}

TEST(CreateTree, RelativePath) {
    kt::TempDir dir;
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    int rc = wa_createtree("rel/one", 0755);
    ASSERT_EQ(chdir(cwd), 0);
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(wa_isdir(dir.file("rel/one")));
}

TEST(DeleteTree, RemovesEverythingBelow) {
    kt::TempDir dir;
    ASSERT_EQ(wa_createtree(dir.file("t/a/b"), 0755), 0);
    kt::write_file(dir.file("t/a/b/f1"), "1");
    kt::write_file(dir.file("t/f2"), "2");
    ASSERT_EQ(wa_createtree(dir.file("t/empty"), 0755), 0);
    EXPECT_EQ(wa_deletetree(dir.file("t")), 0);
    EXPECT_FALSE(kt::file_exists(dir.file("t")));
}

TEST(DeleteTree, LinksAreRemovedNotFollowed) {
    kt::TempDir dir;
    ASSERT_EQ(wa_createtree(dir.file("keep"), 0755), 0);
    kt::write_file(dir.file("keep/precious"), "p");
    ASSERT_EQ(wa_createtree(dir.file("t"), 0755), 0);
    ASSERT_EQ(symlink(dir.file("keep").c_str(), dir.file("t/link").c_str()), 0);
    EXPECT_EQ(wa_deletetree(dir.file("t")), 0);
    EXPECT_FALSE(kt::file_exists(dir.file("t")));
    EXPECT_TRUE(kt::file_exists(dir.file("keep/precious")));
}

TEST(DeleteTree, LinkAsTheRootIsRemovedItself) {
    kt::TempDir dir;
    ASSERT_EQ(wa_createtree(dir.file("keep"), 0755), 0);
    kt::write_file(dir.file("keep/precious"), "p");
    ASSERT_EQ(symlink(dir.file("keep").c_str(), dir.file("link").c_str()), 0);
    EXPECT_EQ(wa_deletetree(dir.file("link")), 0);
    struct stat st;
    EXPECT_NE(lstat(dir.file("link").c_str(), &st), 0);
    EXPECT_TRUE(kt::file_exists(dir.file("keep/precious")));
}

TEST(DeleteTree, PlainFileIsRemoved) {
    kt::TempDir dir;
    kt::write_file(dir.file("f"), "x");
    EXPECT_EQ(wa_deletetree(dir.file("f")), 0);
    EXPECT_FALSE(kt::file_exists(dir.file("f")));
}

TEST(DeleteTree, MissingFailsWithEnoent) {
    kt::TempDir dir;
    errno = 0;
    EXPECT_NE(wa_deletetree(dir.file("none")), 0);
    EXPECT_EQ(errno, ENOENT);
}

TEST(FileCalls, TouchCreatesThenUpdates) {
    kt::TempDir dir;
    std::string f = dir.file("t");
    EXPECT_EQ(wa_touch(f), 0);
    EXPECT_TRUE(kt::file_exists(f));
    EXPECT_EQ(kt::read_file(f), "");
    kt::write_file(f, "content");
    struct timespec old_times[2] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, f.c_str(), old_times, 0), 0);
    EXPECT_EQ(wa_touch(f), 0);
    struct stat st;
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    EXPECT_GT(st.st_mtime, 1000);
    EXPECT_EQ(kt::read_file(f), "content");  // touching never truncates
}

TEST(FileCalls, TouchInMissingDirectoryFails) {
    kt::TempDir dir;
    errno = 0;
    EXPECT_NE(wa_touch(dir.file("no/t")), 0);
    EXPECT_EQ(errno, ENOENT);
}

TEST(FileCalls, RenameDeleteFileDeleteDir) {
    kt::TempDir dir;
    kt::write_file(dir.file("a"), "A");
    EXPECT_EQ(wa_rename(dir.file("a"), dir.file("b")), 0);
    EXPECT_EQ(kt::read_file(dir.file("b")), "A");
    EXPECT_FALSE(kt::file_exists(dir.file("a")));
    EXPECT_EQ(wa_deletefile(dir.file("b")), 0);
    EXPECT_FALSE(kt::file_exists(dir.file("b")));
    errno = 0;
    EXPECT_NE(wa_deletefile(dir.file("b")), 0);
    EXPECT_EQ(errno, ENOENT);

    ASSERT_EQ(wa_createtree(dir.file("d/e"), 0755), 0);
    errno = 0;
    EXPECT_NE(wa_deletedir(dir.file("d")), 0);  // not empty
    EXPECT_TRUE(errno == ENOTEMPTY || errno == EEXIST);
    EXPECT_EQ(wa_deletedir(dir.file("d/e")), 0);
    EXPECT_EQ(wa_deletedir(dir.file("d")), 0);
    EXPECT_FALSE(kt::file_exists(dir.file("d")));
}

TEST(FileCalls, AccessStatIsdirOpendir) {
    kt::TempDir dir;
    kt::write_file(dir.file("f"), "x");
    EXPECT_EQ(wa_access(dir.file("f"), F_OK), 0);
    EXPECT_EQ(dct_access(dir.file("f").c_str(), F_OK), 0);
    errno = 0;
    EXPECT_NE(wa_access(dir.file("none"), F_OK), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_NE(dct_access(dir.file("none").c_str(), F_OK), 0);

    struct stat st;
    EXPECT_EQ(wa_stat(dir.file("f"), &st), 0);
    EXPECT_EQ(st.st_size, 1);
    EXPECT_NE(wa_stat(dir.file("none"), &st), 0);

    EXPECT_TRUE(wa_isdir(dir.path()));
    EXPECT_FALSE(wa_isdir(dir.file("f")));
    EXPECT_FALSE(wa_isdir(dir.file("none")));
    ASSERT_EQ(symlink(dir.path().c_str(), dir.file("dirlink").c_str()), 0);
    EXPECT_TRUE(wa_isdir(dir.file("dirlink")));

    DIR* d = wa_opendir(dir.path());
    ASSERT_NE(d, nullptr);
    closedir(d);
    errno = 0;
    EXPECT_EQ(wa_opendir(dir.file("f")), nullptr);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST(FileCalls, SyncdirFsyncFtruncate) {
    kt::TempDir dir;
    EXPECT_EQ(wa_syncdir(dir.path()), 0);
    errno = 0;
    EXPECT_NE(wa_syncdir(dir.file("none")), 0);
    EXPECT_EQ(errno, ENOENT);

    std::string f = dir.file("f");
    kt::write_file(f, "0123456789");
    int fd = open(f.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(safe_fsync(fd), 0);
    EXPECT_EQ(safe_ftruncate(fd, 4), 0);
    close(fd);
    EXPECT_EQ(kt::read_file(f), "0123");
    errno = 0;
    EXPECT_NE(safe_fsync(-1), 0);
    EXPECT_EQ(errno, EBADF);
}

TEST(FileMove, SameFileSystemRenames) {
    kt::TempDir dir;
    kt::write_file(dir.file("a"), "payload");
    struct stat before;
    ASSERT_EQ(stat(dir.file("a").c_str(), &before), 0);
    EXPECT_EQ(FileMove(dir.file("a"), dir.file("b")), 0);
    struct stat after;
    ASSERT_EQ(stat(dir.file("b").c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);  // a rename, not a copy
    EXPECT_FALSE(kt::file_exists(dir.file("a")));
}

TEST(FileMove, MissingSourceFails) {
    kt::TempDir dir;
    errno = 0;
    EXPECT_NE(FileMove(dir.file("none"), dir.file("b")), 0);
    EXPECT_EQ(errno, ENOENT);
}

TEST(FileMove, AcrossFileSystemsCopiesThenDeletes) {
    // /dev/shm is a memory file system on Linux, apart from the temporary directory.
    kt::TempDir dir;
    struct stat a, b;
    if (stat("/dev/shm", &a) != 0 || stat(dir.path().c_str(), &b) != 0 || a.st_dev == b.st_dev ||
        access("/dev/shm", W_OK) != 0) {
        GTEST_SKIP() << "no second writable file system at /dev/shm";
    }
    std::string src = std::string("/dev/shm/kavrel-filemove-") + std::to_string(getpid());
    std::string content(200000, 'z');
    content += "end";
    kt::write_file(src, content);
    ASSERT_EQ(chmod(src.c_str(), 0640), 0);
    EXPECT_EQ(FileMove(src, dir.file("moved")), 0);
    EXPECT_FALSE(kt::file_exists(src));
    EXPECT_EQ(kt::read_file(dir.file("moved")), content);
    EXPECT_EQ(mode_of(dir.file("moved")) & 07777, 0640u);
    unlink(src.c_str());
}

TEST(Strings, DctstrcpyCopiesAndCuts) {
    char buf[6];
    memset(buf, 'x', sizeof(buf));
    EXPECT_EQ(dctstrcpy(buf, "abc", sizeof(buf)), buf);
    EXPECT_STREQ(buf, "abc");
    dctstrcpy(buf, "abcdefgh", sizeof(buf));
    EXPECT_STREQ(buf, "abcde");
    dctstrcpy(buf, "abcde", sizeof(buf));
    EXPECT_STREQ(buf, "abcde");
    dctstrcpy(buf, nullptr, sizeof(buf));
    EXPECT_STREQ(buf, "");
    char one[1] = {'x'};
    dctstrcpy(one, "abc", 1);
    EXPECT_EQ(one[0], '\0');
    char untouched[2] = {'x', 'y'};
    dctstrcpy(untouched, "abc", 0);
    EXPECT_EQ(untouched[0], 'x');
    EXPECT_EQ(dctstrcpy(nullptr, "abc", 4), nullptr);
}

TEST(Strings, ConvertStringCaseFoldsAsciiLetters) {
    std::string s = "Po.DB/APP_db-123 Zz";
    ConvertStringCase(s);
    EXPECT_EQ(s, "po.db/app_db-123 zz");
    std::string high = "\xC3\x84x";  // bytes above 127 stay as they are
    ConvertStringCase(high);
    EXPECT_EQ(high, "\xC3\x84x");
    std::string empty;
    ConvertStringCase(empty);
    EXPECT_EQ(empty, "");
}

TEST(Strings, CaseSensitivityOverride) {
    EXPECT_TRUE(OSIsCaseSensitive());
    dct::set_case_sensitive_override(0);
    EXPECT_FALSE(OSIsCaseSensitive());
    dct::set_case_sensitive_override(1);
    EXPECT_TRUE(OSIsCaseSensitive());
    dct::set_case_sensitive_override(0);
    dct::set_case_sensitive_override(-1);
    EXPECT_TRUE(OSIsCaseSensitive());
}

TEST(PoolDatabaseNames, Names) {
    EXPECT_STREQ(SQLitePODB::dbfilename, "po.db");
    EXPECT_STREQ(SQLiteULDB::dbfilename, "ul.db");
}

// A pipe takes at most its buffer per write(2), so a large block needs many
// writes; the reader drains it meanwhile.
TEST(WriteAll, WritesEveryByteAcrossShortWrites) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    std::string data(1 << 20, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
    std::string got;
    std::thread reader([&]() {
        char block[4096];
        ssize_t n;
        while ((n = read(fds[0], block, sizeof block)) > 0) got.append(block, static_cast<size_t>(n));
    });
    EXPECT_EQ(0, wa_write_all(fds[1], data.data(), data.size()));
    close(fds[1]);
    reader.join();
    close(fds[0]);
    EXPECT_TRUE(got == data);
}

TEST(WriteAll, FailureIsMinusOneWithErrno) {
    errno = 0;
    EXPECT_EQ(-1, wa_write_all(-1, "x", 1));
    EXPECT_EQ(EBADF, errno);
    // /dev/full refuses every byte with ENOSPC.
    const int fd = open("/dev/full", O_WRONLY);
    ASSERT_GE(fd, 0);
    errno = 0;
    EXPECT_EQ(-1, wa_write_all(fd, "abc", 3));
    EXPECT_EQ(ENOSPC, errno);
    close(fd);
    EXPECT_EQ(0, wa_write_all(-1, "", 0));
}
