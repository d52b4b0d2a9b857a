// The checksum file survives a crash at any moment and a failure at any step:
// it is always either the complete old file or the complete new one.

// Shadows live on the heap in these tests: ThreadSanitizer forgets a mutex only
// when its memory is freed, and a stack address reused by another test's mutex
// would otherwise look like one lock taken in two orders.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "common/test_util.h"
#include "dct/clock.h"
#include "dct/fault.h"
#include "dct/fs.h"
#include "dct/log.h"
#include "shadow_test_helpers.h"

using dct::log_level;
using shadow_test::add_version;

namespace {

struct CrashDir {
    kt::TempDir tmp;
    std::string real = tmp.file("real");
    std::string dir = tmp.file("shadow");
    std::string chksum = dir + "/.chksum.podb";
    std::string temp = chksum + ".tmp";
};

// Five versions of "podb", persisted.
void make_five_versions(PODBShadow& shadow) {
    for (int i = 1; i <= 5; ++i) add_version(shadow, "podb", "database " + std::to_string(i));
    ASSERT_EQ(0u, shadow.persist_chksum("podb"));
}

// Gives the newest version journal counters that depend on `which` (0 or 1).
void set_state(PODBShadow& shadow, int which) {
    ShadowVersion& newest = shadow.get_db_versions_("podb")->front();
    newest.journal_lines = which == 0 ? 0 : 1;
    newest.journal_crc = which == 0 ? 1 : shadow_test::adler("INSERT INTO po VALUES(1);");
}

}  // namespace

// Directory for the kill test: on tmpfs when there is one, so that rounds are
// not paced by the disk (a killed process leaves the page cache as it is, so
// what the test sees is the same on any file system).
class KillDir {
public:
    KillDir() {
        std::string base = wa_isdir("/dev/shm") && access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "";
        if (base.empty()) {
            const char* t = getenv("TMPDIR");
            base = t != nullptr && *t != '\0' ? t : "/tmp";
        }
        std::string templ = base + "/kavrel-kill-XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) != nullptr) path_ = buf.data();
    }
    ~KillDir() {
        if (!path_.empty()) wa_deletetree(path_);
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// A child rewrites the checksum file of a five-version shadow in a tight loop,
// alternating two contents; the parent kills it at seeded random moments.
TEST(ShadowCrash, KilledWriterLeavesOldOrNewFile) {
    KillDir kill_dir;
    ASSERT_FALSE(kill_dir.path().empty());
    const std::string real = kill_dir.path() + "/real";
    const std::string dir = kill_dir.path() + "/shadow";
    const std::string chksum = dir + "/.chksum.podb";
    const std::string temp = chksum + ".tmp";

    std::string contents[2];
    long persist_us = 0;
    {
                std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, real, dir));
        PODBShadow& shadow = *shadow_owner;
        make_five_versions(shadow);
        for (int which = 1; which >= 0; --which) {
            set_state(shadow, which);
            ASSERT_EQ(0u, shadow.persist_chksum("podb"));
            contents[which] = kt::read_file(chksum);
        }
        // How long one write takes here, to spread the kills over a few.
        const int samples = 20;
        const unsigned long start = dct::now_ms();
        for (int i = 0; i < samples; ++i) ASSERT_EQ(0u, shadow.persist_chksum("podb"));
        persist_us = static_cast<long>((dct::now_ms() - start) * 1000 / samples);
    }
    ASSERT_NE(contents[0], contents[1]);
    const int max_delay = static_cast<int>(std::max(300L, std::min(3 * persist_us + 100, 20000L)));

    std::mt19937 rng(20240611);
    std::uniform_int_distribution<int> delay_us(0, max_delay);
    int saw[2] = {0, 0};
    int leftovers = 0;
    const int rounds = 200;
    for (int round = 0; round < rounds; ++round) {
        int ready[2];
        ASSERT_EQ(0, pipe(ready));
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(ready[0]);
            dct::set_log_sink([](log_level, cr_status_t, const std::string&) {});
                        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, real, dir));
            PODBShadow& shadow = *shadow_owner;
            if (shadow.load_versions("podb", false) != 0) _exit(3);
            char byte = 1;
            if (write(ready[1], &byte, 1) != 1) _exit(4);
            // Starts with the content that is not on disk after the setup.
            for (unsigned long i = 1;; ++i) {
                set_state(shadow, static_cast<int>(i & 1));
                if (shadow.persist_chksum("podb") != CR_STATUS_OK) _exit(5);
            }
        }
        close(ready[1]);
        char byte = 0;
        ASSERT_EQ(1, read(ready[0], &byte, 1)) << "child failed to start, round " << round;
        close(ready[0]);
        usleep(static_cast<useconds_t>(delay_us(rng)));
        kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        ASSERT_TRUE(WIFSIGNALED(status)) << "child exited with " << WEXITSTATUS(status) << ", round " << round;

        if (kt::file_exists(temp)) ++leftovers;
        const std::string text = kt::read_file(chksum);
        const int which = text == contents[0] ? 0 : text == contents[1] ? 1 : -1;
        ASSERT_NE(-1, which) << "round " << round << ": checksum file is neither content:\n" << text;
        ++saw[which];

        kt::LogCapture log;
                std::unique_ptr<PODBShadow> loaded_owner(new PODBShadow(nullptr, real, dir));
        PODBShadow& loaded = *loaded_owner;
        ASSERT_EQ(0u, loaded.load_versions("podb", true)) << "round " << round << "\n" << log.dump();
        EXPECT_EQ(5u, loaded.get_version_count("podb"));
        EXPECT_FALSE(kt::file_exists(temp));
        EXPECT_TRUE(shadow_test::entries_with_prefix(dir, "#corrupt_").empty());
        EXPECT_EQ(text, kt::read_file(chksum));
    }
    // The kills landed while both contents were being written.
    EXPECT_GT(saw[0], 0);
    EXPECT_GT(saw[1], 0);
    RecordProperty("leftover_temporary_files", leftovers);
    RecordProperty("max_delay_us", max_delay);
}

// Each step of writing the file fails once: the previous file stays byte for
// byte, and no temporary file is left.
class PersistFault : public ::testing::TestWithParam<dct::fault_op> {};

TEST_P(PersistFault, PreviousFileStaysAndNoTemporaryFileRemains) {
    CrashDir d;
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, d.real, d.dir));
    PODBShadow& shadow = *shadow_owner;
    make_five_versions(shadow);
    const std::string before = kt::read_file(d.chksum);
    set_state(shadow, 1);

    const dct::fault_op failing = GetParam();
    int hits = 0;
    dct::set_fault_hook([&](dct::fault_op op, const char* path) {
        if (op == failing && d.temp == path) {
            ++hits;
            return EIO;
        }
        return 0;
    });
    kt::LogCapture log;
    const cr_status_t status = shadow.persist_chksum("podb");
    dct::set_fault_hook(nullptr);

    EXPECT_EQ(CR_STATUS_IO, status);
    EXPECT_EQ(1, hits);
    EXPECT_EQ(before, kt::read_file(d.chksum));
    EXPECT_FALSE(kt::file_exists(d.temp));
    if (failing == dct::fault_op::open_write) {
        EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_IO,
                                "persist_chksum: failed to open file " + d.temp + " to persist data (" + strerror(EIO) +
                                    ")."))
            << log.dump();
    } else {
        EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_IO, "can't persist version info file " + d.chksum + "."))
            << log.dump();
    }
    // The old file still loads as it was.
        std::unique_ptr<PODBShadow> loaded_owner(new PODBShadow(nullptr, d.real, d.dir));
    PODBShadow& loaded = *loaded_owner;
    EXPECT_EQ(0u, loaded.load_versions("podb", true));
    EXPECT_EQ(0u, loaded.get_db_versions_("podb")->front().journal_lines);
    // And the next attempt goes through.
    EXPECT_EQ(0u, shadow.persist_chksum("podb"));
    EXPECT_NE(before, kt::read_file(d.chksum));
}

INSTANTIATE_TEST_SUITE_P(EveryStep, PersistFault,
                         ::testing::Values(dct::fault_op::open_write, dct::fault_op::write, dct::fault_op::fsync,
                                           dct::fault_op::rename),
                         [](const ::testing::TestParamInfo<dct::fault_op>& info) {
                             return std::string(dct::fault_op_name(info.param));
                         });

TEST(ShadowCrash, FailedDirectorySyncIsReported) {
    CrashDir d;
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, d.real, d.dir));
    PODBShadow& shadow = *shadow_owner;
    make_five_versions(shadow);
    set_state(shadow, 1);
    dct::set_fault_hook([&](dct::fault_op op, const char* path) {
        return op == dct::fault_op::fsync && d.dir == path ? EIO : 0;
    });
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_IO, shadow.persist_chksum("podb"));
    dct::set_fault_hook(nullptr);
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_IO, "can't persist version info file " + d.chksum + "."))
        << log.dump();
    EXPECT_FALSE(kt::file_exists(d.temp));
    // The renamed file is whole, only its durability is in doubt.
        std::unique_ptr<PODBShadow> loaded_owner(new PODBShadow(nullptr, d.real, d.dir));
    PODBShadow& loaded = *loaded_owner;
    EXPECT_EQ(0u, loaded.load_versions("podb", true));
}

TEST(ShadowCrash, TemporaryNameThatCannotBeOpenedLeavesTheOldFile) {
    CrashDir d;
        std::unique_ptr<PODBShadow> shadow_owner(new PODBShadow(nullptr, d.real, d.dir));
    PODBShadow& shadow = *shadow_owner;
    make_five_versions(shadow);
    const std::string before = kt::read_file(d.chksum);
    set_state(shadow, 1);
    // Something else holds the temporary name: a directory cannot be opened
    // for writing, whoever runs the test.
    ASSERT_EQ(0, wa_createtree(d.temp, 0755));
    kt::LogCapture log;
    EXPECT_EQ(CR_STATUS_FAILED, shadow.persist_chksum("podb"));
    EXPECT_EQ(before, kt::read_file(d.chksum));
    EXPECT_EQ(1u, log.count(log_level::error, CR_STATUS_FAILED,
                            "persist_chksum: failed to open file " + d.temp + " to persist data (" + strerror(EISDIR) +
                                ")."))
        << log.dump();
}
