// Whole-file work of the platform layer: the file's checksum, the durable
// copy, the atomic replacement and the private tree.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/fault_countdown.h"
#include "common/test_util.h"
#include "dct/file_io.h"

namespace {

mode_t mode_of(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return 0;
    return st.st_mode & 07777;
}

uint32_t zlib_sum(const std::string& text) {
    return static_cast<uint32_t>(
        adler32(adler32(0L, Z_NULL, 0), reinterpret_cast<const Bytef*>(text.data()), static_cast<uInt>(text.size())));
}

// More than one block of every size used.
std::string sample_bytes() {
    std::string text;
    for (int i = 0; i < 150000; ++i) text += static_cast<char>('a' + i % 26);
    return text;
}

TEST(FileIo, SumFileIsZlibsAdler32OfTheWholeFile) {
    kt::TempDir dir;
    const std::string text = sample_bytes();
    kt::write_file(dir.file("f"), text);
    uint64_t size = 0;
    uint32_t sum = 0;
    ASSERT_EQ(CR_STATUS_OK, dct::sum_file(dir.file("f"), &size, &sum, nullptr));
    EXPECT_EQ(text.size(), size);
    EXPECT_EQ(zlib_sum(text), sum);
    EXPECT_EQ(zlib_sum(text), dct::adler32_update(1, text.data(), text.size()));

    dct::file_failure failure;
    EXPECT_EQ(CR_STATUS_MISSING, dct::sum_file(dir.file("none"), &size, &sum, &failure));
    EXPECT_EQ(dct::file_step::open_source, failure.step);
    EXPECT_EQ(ENOENT, failure.error);
    EXPECT_EQ(dir.file("none"), failure.path);
}

TEST(FileIo, CopyFileCopiesAPrefixWithItsSumModeAndTimes) {
    kt::TempDir dir;
    const std::string text = sample_bytes();
    kt::write_file(dir.file("src"), text);
    const struct timespec old_times[2] = {{1600000000, 0}, {1600000000, 5}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, dir.file("src").c_str(), old_times, 0));
    const mode_t mask = umask(077);
    dct::copy_options o;
    o.length = 100000;
    o.keep_times = true;
    uint32_t sum = 0;
    const cr_status_t status = dct::copy_file(dir.file("src"), dir.file("dst"), o, &sum, nullptr);
    umask(mask);
    ASSERT_EQ(CR_STATUS_OK, status);
    EXPECT_EQ(text.substr(0, 100000), kt::read_file(dir.file("dst")));
    EXPECT_EQ(zlib_sum(text.substr(0, 100000)), sum);
    EXPECT_EQ(static_cast<mode_t>(dct::private_file_mode), mode_of(dir.file("dst")));
    struct stat st;
    ASSERT_EQ(0, stat(dir.file("dst").c_str(), &st));
    EXPECT_EQ(1600000000, st.st_mtim.tv_sec);
    EXPECT_EQ(5, st.st_mtim.tv_nsec);
}

TEST(FileIo, CopyOfAShortSourceFailsAtTheReadAndLeavesNothing) {
    kt::TempDir dir;
    kt::write_file(dir.file("src"), "short");
    dct::copy_options o;
    o.length = 6;
    dct::file_failure failure;
    EXPECT_EQ(CR_STATUS_IO, dct::copy_file(dir.file("src"), dir.file("dst"), o, nullptr, &failure));
    EXPECT_EQ(dct::file_step::read, failure.step);
    EXPECT_EQ(EIO, failure.error);
    EXPECT_EQ(dir.file("src"), failure.path);
    EXPECT_FALSE(kt::file_exists(dir.file("dst")));
}

TEST(FileIo, ExclusiveCopyRefusesAnExistingFile) {
    kt::TempDir dir;
    kt::write_file(dir.file("src"), "new");
    kt::write_file(dir.file("dst"), "old");
    dct::copy_options o;
    o.exclusive = true;
    dct::file_failure failure;
    EXPECT_EQ(CR_STATUS_EXISTS, dct::copy_file(dir.file("src"), dir.file("dst"), o, nullptr, &failure));
    EXPECT_EQ(dct::file_step::create, failure.step);
    o.exclusive = false;
    EXPECT_EQ(CR_STATUS_OK, dct::copy_file(dir.file("src"), dir.file("dst"), o, nullptr, &failure));
    EXPECT_EQ("new", kt::read_file(dir.file("dst")));
}

TEST(FileIo, AFullDiskAtAnyStepOfACopyLeavesNoPartialFile) {
    kt::TempDir dir;
    const std::string text = sample_bytes();
    kt::write_file(dir.file("src"), text);
    long at = 1;
    for (;; ++at) {
        dct::file_failure failure;
        cr_status_t status;
        {
            kt::FaultCountdown fault(at, ENOSPC, {dct::fault_op::open_write, dct::fault_op::write,
                                                  dct::fault_op::fsync}, dir.file("dst"));
            status = dct::copy_file(dir.file("src"), dir.file("dst"), dct::copy_options(), nullptr, &failure);
            if (!fault.fired()) break;
        }
        EXPECT_EQ(CR_STATUS_IO, status) << at;
        EXPECT_EQ(at == 1 ? dct::file_step::create : dct::file_step::write, failure.step) << at;
        EXPECT_EQ(dir.file("dst"), failure.path);
        EXPECT_FALSE(kt::file_exists(dir.file("dst"))) << at;
    }
    // Opened, three blocks written, synced: each of the five failed in turn.
    EXPECT_EQ(1 + 3 + 1 + 1, at);
    EXPECT_EQ(text, kt::read_file(dir.file("dst")));
}

TEST(FileIo, CopyFromTakesTheReadersBytes) {
    kt::TempDir dir;
    dct::copy_options o;
    o.length = 10;
    o.block_size = 4;
    std::vector<uint64_t> offsets;
    const dct::block_reader read = [&](char* block, size_t n, uint64_t offset) -> ssize_t {
        offsets.push_back(offset);
        memset(block, 'x', n);
        return static_cast<ssize_t>(n);
    };
    uint32_t sum = 0;
    ASSERT_EQ(CR_STATUS_OK, dct::copy_from(read, "reader", dir.file("dst"), o, &sum, nullptr));
    EXPECT_EQ(std::string(10, 'x'), kt::read_file(dir.file("dst")));
    EXPECT_EQ(zlib_sum(std::string(10, 'x')), sum);
    EXPECT_EQ((std::vector<uint64_t>{0, 4, 8}), offsets);

    const dct::block_reader broken = [](char*, size_t, uint64_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    dct::file_failure failure;
    EXPECT_EQ(CR_STATUS_IO, dct::copy_from(broken, "reader", dir.file("other"), o, &sum, &failure));
    EXPECT_EQ(dct::file_step::read, failure.step);
    EXPECT_EQ("reader", failure.path);
    EXPECT_FALSE(kt::file_exists(dir.file("other")));
}

TEST(FileIo, AtomicWriteReplacesOrLeavesTheOldFile) {
    kt::TempDir dir;
    const std::string path = dir.file("f");
    kt::write_file(path, "old");
    const dct::fault_op steps[] = {dct::fault_op::open_write, dct::fault_op::write, dct::fault_op::fsync,
                                   dct::fault_op::rename};
    const dct::file_step expected[] = {dct::file_step::create, dct::file_step::write, dct::file_step::write,
                                       dct::file_step::rename};
    for (size_t i = 0; i < 4; ++i) {
        dct::file_failure failure;
        {
            kt::FaultCountdown fault(1, ENOSPC, {steps[i]}, ".tmp");
            EXPECT_EQ(CR_STATUS_IO, dct::write_file_atomic(dir.path(), path, "new", dct::atomic_write_options(),
                                                           &failure));
        }
        EXPECT_EQ(expected[i], failure.step) << i;
        EXPECT_EQ(path + ".tmp", failure.path) << i;
        EXPECT_EQ("old", kt::read_file(path));
        EXPECT_EQ(std::vector<std::string>{"f"}, kt::list_dir(dir.path())) << i;
    }
    dct::file_failure failure;
    {
        int calls = 0;
        dct::set_fault_hook([&](dct::fault_op op, const char* p) {
            return op == dct::fault_op::fsync && dir.path() == p && ++calls == 1 ? EIO : 0;
        });
        EXPECT_EQ(CR_STATUS_IO, dct::write_file_atomic(dir.path(), path, "new", dct::atomic_write_options(),
                                                       &failure));
        dct::set_fault_hook(nullptr);
    }
    EXPECT_EQ(dct::file_step::sync_dir, failure.step);
    EXPECT_EQ("new", kt::read_file(path));
    EXPECT_EQ(static_cast<mode_t>(dct::private_file_mode), mode_of(path));
}

TEST(FileIo, CreatePrivateTreeTakesAwayWhatIsBeyondThePrivateMode) {
    kt::TempDir dir;
    ASSERT_EQ(0, mkdir(dir.file("open").c_str(), 0777));
    ASSERT_EQ(0, chmod(dir.file("open").c_str(), 0777));
    EXPECT_EQ(0, dct::create_private_tree(dir.file("open"), true));
    EXPECT_EQ(static_cast<mode_t>(dct::private_dir_mode), mode_of(dir.file("open")));
    EXPECT_EQ(0, dct::create_private_tree(dir.file("a/b/c"), false));
    EXPECT_EQ(0u, mode_of(dir.file("a/b/c")) & ~static_cast<mode_t>(dct::private_dir_mode));
    kt::write_file(dir.file("file"), "x");
    EXPECT_NE(0, dct::create_private_tree(dir.file("file"), false));
    EXPECT_EQ(ENOTDIR, errno);
}

}  // namespace
