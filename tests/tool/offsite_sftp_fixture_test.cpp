// What restic does against the test sshd and on local repositories, pinned
// down: the off-site commands of kavrel-shadow word their messages after
// these answers and rely on these options. A round trip over SFTP (init,
// backup, snapshots, restore), then every failure an operator meets: server
// stopped, server silent, wrong password, no repository, a damaged pack; and
// the backup and forget options the off-site push uses.
#include <sys/socket.h>
#include <sys/stat.h>
#include <netinet/in.h>
#include <arpa/inet.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "common/sshd_server.h"
#include "gtest/gtest.h"
#include "tool_test_util.h"

namespace {

const char kRestic[] = "/usr/bin/restic";

// restic with nothing taken from the environment or the home directory: no
// RESTIC_* variables, no cache, temporary files below `tmp`.
kt::RunResult restic(const std::string& tmp, std::vector<std::string> args) {
    kt::RunOptions options;
    options.unset_env = {"RESTIC_REPOSITORY", "RESTIC_REPOSITORY_FILE", "RESTIC_PASSWORD", "RESTIC_PASSWORD_FILE",
                         "RESTIC_PASSWORD_COMMAND", "RESTIC_CACHE_DIR", "RESTIC_COMPRESSION",
                         "RESTIC_PACK_SIZE", "RESTIC_KEY_HINT", "RESTIC_HOST"};
    options.set_env["TMPDIR"] = tmp;
    args.insert(args.begin(), "--no-cache");
    return kt::run_program(kRestic, args, options);
}

std::string describe(const kt::RunResult& r) {
    return "exit " + std::to_string(r.exit_status) + (r.timed_out ? " (timed out)" : "") + "\n--- stdout\n" + r.out +
           "--- stderr\n" + r.err;
}

// The "summary" record of `restic backup --json`.
nlohmann::json backup_summary(const std::string& out) {
    for (const std::string& line : kt::split_lines(out)) {
        nlohmann::json j = nlohmann::json::parse(line, nullptr, false);
        if (j.is_object() && j.value("message_type", "") == "summary") return j;
    }
    return nlohmann::json();
}

// Bytes that do not compress: restic would otherwise shrink a repetitive
// file into a pack too small to damage in the middle.
std::string incompressible(size_t size) {
    std::mt19937 gen(20261125);
    std::string s(size, '\0');
    for (auto& c : s) c = static_cast<char>(gen() >> 24);
    return s;
}

// A small tree to back up: DIR/src/a.txt, DIR/src/sub/b.txt and, when
// `big_bytes` > 0, DIR/src/big.bin.
std::string make_source(const kt::TempDir& dir, size_t big_bytes = 0) {
    const std::string src = dir.file("src");
    kt::make_dirs(src + "/sub");
    kt::write_file(src + "/a.txt", "catalog a\n");
    kt::write_file(src + "/sub/b.txt", "catalog b\n");
    if (big_bytes > 0) kt::write_file(src + "/big.bin", incompressible(big_bytes));
    return src;
}

// restic's standard error when ssh ended before the SFTP session began:
// ssh's own lines, prefixed "subprocess ssh: ", then one fatal line. Both
// race with ssh's end: restic may stop relaying ssh's standard error before
// every line came through (none, some or all of `ssh_lines` appear, in
// order), and the error at the end of the fatal line is "EOF" or "read |0:
// file already closed" depending on what restic saw first. Nothing else.
void expect_no_sftp_session(const std::string& repo, const std::vector<std::string>& ssh_lines,
                            const std::string& err) {
    std::vector<std::string> lines = kt::split_lines(err);
    ASSERT_FALSE(lines.empty());
    const std::string fatal = lines.back();
    lines.pop_back();
    ASSERT_LE(lines.size(), ssh_lines.size()) << err;
    for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ("subprocess ssh: " + ssh_lines[i], lines[i]);
    const std::string head = "Fatal: unable to open repository at " + repo + ": unable to start the sftp session, error: ";
    ASSERT_EQ(head, fatal.substr(0, head.size())) << err;
    const std::string tail = fatal.substr(head.size());
    EXPECT_TRUE(tail == "EOF" || tail == "read |0: file already closed") << err;
    EXPECT_EQ('\n', err.back());
}

// ---- over SFTP, against the test sshd ----

class OffsiteSftp : public ::testing::Test {
protected:
    void SetUp() override {
        if (access(kRestic, X_OK) != 0) GTEST_SKIP() << "restic is not installed (package restic)";
        server_ = std::make_unique<kt::SshdServer>();
        if (!server_->ok()) {
            if (geteuid() != 0) GTEST_SKIP() << "no sshd for this test: " << server_->error();
            FAIL() << server_->error();
        }
        password_ = dir_.file("offsite.pass");
        kt::write_file(password_, "correct horse\n");
        repo_path_ = dir_.file("vault/kavrel");
        repo_ = server_->repository(repo_path_);
    }

    // restic ARGS with the test server's SFTP command and `repo`.
    kt::RunResult run(const std::vector<std::string>& args, const std::string& repo = "",
                      const std::string& password_file = "") {
        std::vector<std::string> all = {"-o", "sftp.command=" + server_->sftp_command(), "-r",
                                        repo.empty() ? repo_ : repo, "--password-file",
                                        password_file.empty() ? password_ : password_file};
        all.insert(all.end(), args.begin(), args.end());
        return restic(dir_.path(), all);
    }

    void init() {
        kt::RunResult r = run({"init"});
        ASSERT_EQ(0, r.exit_status) << describe(r);
    }

    kt::TempDir dir_;
    std::unique_ptr<kt::SshdServer> server_;
    std::string password_, repo_path_, repo_;
};

TEST_F(OffsiteSftp, InitBackupSnapshotsRestoreRoundTrip) {
    kt::RunResult r = run({"init"});
    ASSERT_EQ(0, r.exit_status) << describe(r);
    EXPECT_EQ(0u, r.out.find("created restic repository ")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find(" at " + repo_ + "\n")) << r.out;
    EXPECT_EQ("", r.err);
    // The repository is where the server's side of the path says.
    EXPECT_TRUE(kt::file_exists(repo_path_ + "/config"));

    const std::string src = make_source(dir_, 100000);
    r = run({"backup", "--json", "--tag", "kavrel-shadow", src});
    ASSERT_EQ(0, r.exit_status) << describe(r);
    const nlohmann::json summary = backup_summary(r.out);
    ASSERT_TRUE(summary.is_object()) << r.out;
    EXPECT_EQ(3, summary["files_new"].get<int>());
    EXPECT_EQ(0, summary["files_changed"].get<int>());
    const std::string snapshot_id = summary["snapshot_id"].get<std::string>();

    r = run({"snapshots", "--json"});
    ASSERT_EQ(0, r.exit_status) << describe(r);
    const nlohmann::json snapshots = nlohmann::json::parse(r.out, nullptr, false);
    ASSERT_TRUE(snapshots.is_array()) << r.out;
    ASSERT_EQ(1u, snapshots.size());
    EXPECT_EQ(snapshot_id, snapshots[0]["short_id"].get<std::string>());
    EXPECT_EQ(nlohmann::json::array({src}), snapshots[0]["paths"]);
    EXPECT_EQ(nlohmann::json::array({"kavrel-shadow"}), snapshots[0]["tags"]);

    const std::string target = dir_.file("restored");
    r = run({"restore", "latest", "--target", target});
    ASSERT_EQ(0, r.exit_status) << describe(r);
    EXPECT_EQ("", r.err);
    // The snapshot holds the saved path whole: it comes back below the target.
    for (const char* rel : {"a.txt", "sub/b.txt", "big.bin"}) {
        const std::string restored = kt::read_file(target + src + "/" + rel);
        EXPECT_TRUE(kt::read_file(src + "/" + rel) == restored) << rel << ": " << restored.size() << " bytes";
    }
    EXPECT_EQ(100000u, kt::read_file(target + src + "/big.bin").size());
}

// A server that is gone: ssh's refusal, then restic's fatal line, status 1,
// at once.
TEST_F(OffsiteSftp, StoppedServerFailsAtOnceWithStatus1) {
    init();
    server_->stop();
    kt::RunResult r = run({"snapshots", "--json"});
    EXPECT_FALSE(r.timed_out);
    EXPECT_EQ(1, r.exit_status) << describe(r);
    EXPECT_EQ("", r.out);
    expect_no_sftp_session(
        repo_, {"ssh: connect to host 127.0.0.1 port " + std::to_string(server_->port()) + ": Connection refused"},
        r.err);
}

// A host that takes the connection and never answers would hold restic
// forever; the client configuration's ConnectTimeout also bounds the banner
// exchange. Here the timeout is cut to 1 s on a port that never speaks.
TEST_F(OffsiteSftp, SilentServerEndsAtTheConnectTimeout) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)));
    ASSERT_EQ(0, listen(fd, 4));
    ASSERT_EQ(0, getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &len));
    const std::string silent_port = std::to_string(ntohs(addr.sin_port));

    std::string config = kt::read_file(server_->client_config());
    const std::string port_line = "  Port " + std::to_string(server_->port()) + "\n";
    const std::string timeout_line =
        "  ConnectTimeout " + std::to_string(kt::SshdServer::kConnectTimeoutSeconds) + "\n";
    ASSERT_NE(std::string::npos, config.find(port_line)) << config;
    ASSERT_NE(std::string::npos, config.find(timeout_line)) << config;
    config.replace(config.find(port_line), port_line.size(), "  Port " + silent_port + "\n");
    config.replace(config.find(timeout_line), timeout_line.size(), "  ConnectTimeout 1\n");
    const std::string silent_config = dir_.file("ssh_config.silent");
    kt::write_file(silent_config, config);

    kt::RunResult r = restic(dir_.path(), {"-o", "sftp.command=ssh -F " + silent_config + " vault -s sftp", "-r",
                                           repo_, "--password-file", password_, "snapshots"});
    close(fd);
    EXPECT_FALSE(r.timed_out);
    EXPECT_EQ(1, r.exit_status) << describe(r);
    expect_no_sftp_session(repo_,
                           {"Connection timed out during banner exchange",
                            "Connection to 127.0.0.1 port " + silent_port + " timed out"},
                           r.err);
}

TEST_F(OffsiteSftp, WrongPasswordIsStatus1WithOneFatalLine) {
    init();
    const std::string wrong = dir_.file("wrong.pass");
    kt::write_file(wrong, "incorrect\n");
    kt::RunResult r = run({"snapshots"}, "", wrong);
    EXPECT_EQ(1, r.exit_status) << describe(r);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("Fatal: wrong password or no key found\n", r.err);
}

TEST_F(OffsiteSftp, MissingRepositoryIsStatus1AndNamesTheLocation) {
    const std::string missing = server_->repository(dir_.file("vault/none"));
    kt::RunResult r = run({"snapshots"}, missing);
    EXPECT_EQ(1, r.exit_status) << describe(r);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("Fatal: unable to open config file: Lstat: file does not exist\n"
              "Is there a repository at the following location?\n" +
                  missing + "\n",
              r.err);
}

// ---- local repositories: damage, change detection, forget ----

class OffsiteRestic : public ::testing::Test {
protected:
    void SetUp() override {
        if (access(kRestic, X_OK) != 0) GTEST_SKIP() << "restic is not installed (package restic)";
        password_ = dir_.file("offsite.pass");
        kt::write_file(password_, "correct horse\n");
        repo_ = dir_.file("repo");
        kt::RunResult r = run({"init"});
        ASSERT_EQ(0, r.exit_status) << describe(r);
    }

    kt::RunResult run(const std::vector<std::string>& args) {
        std::vector<std::string> all = {"-r", repo_, "--password-file", password_};
        all.insert(all.end(), args.begin(), args.end());
        return restic(dir_.path(), all);
    }

    kt::TempDir dir_;
    std::string password_, repo_;
};

// Damage in the middle of a data pack: a plain check does not read packs and
// finds nothing; --read-data names the pack; a restore restores everything
// else, names the file it could not and ends with status 1.
TEST_F(OffsiteRestic, DamagedPackFoundOnlyByReadDataAndByRestore) {
    const std::string src = make_source(dir_, 300000);
    kt::RunResult r = run({"backup", "-q", src});
    ASSERT_EQ(0, r.exit_status) << describe(r);

    std::string pack;
    off_t pack_size = 0;
    for (const std::string& sub : kt::list_dir(repo_ + "/data")) {
        for (const std::string& name : kt::list_dir(repo_ + "/data/" + sub)) {
            struct stat st;
            const std::string path = repo_ + "/data/" + sub + "/" + name;
            if (stat(path.c_str(), &st) == 0 && st.st_size > pack_size) {
                pack = path;
                pack_size = st.st_size;
            }
        }
    }
    ASSERT_GT(pack_size, 300000) << pack;
    ASSERT_EQ(0, chmod(pack.c_str(), 0600));
    std::string bytes = kt::read_file(pack);
    bytes.replace(1000, 16, "XXXXXXXXXXXXXXXX");
    kt::write_file(pack, bytes);
    const std::string pack_id = pack.substr(pack.rfind('/') + 1);

    r = run({"check"});
    EXPECT_EQ(0, r.exit_status) << describe(r);
    EXPECT_NE(std::string::npos, r.out.find("\nno errors were found\n")) << r.out;
    EXPECT_EQ("", r.err);

    r = run({"check", "--read-data"});
    EXPECT_EQ(1, r.exit_status) << describe(r);
    const std::string want = "Pack ID does not match, want " + pack_id + ", got ";
    const std::string fatal = "\nFatal: repository contains errors\n";
    ASSERT_EQ(want.size() + 64 + fatal.size(), r.err.size()) << r.err;
    EXPECT_EQ(want, r.err.substr(0, want.size()));
    EXPECT_EQ(std::string::npos, r.err.substr(want.size(), 64).find_first_not_of("0123456789abcdef")) << r.err;
    EXPECT_EQ(fatal, r.err.substr(want.size() + 64));
    EXPECT_NE(std::string::npos, r.out.find("read all data\n")) << r.out;

    const std::string target = dir_.file("restored");
    r = run({"restore", "latest", "--target", target});
    EXPECT_EQ(1, r.exit_status) << describe(r);
    EXPECT_EQ("ignoring error for " + src + "/big.bin: ciphertext verification failed\n"
              "ignoring error for " + src + "/big.bin: UtimesNano: no such file or directory\n"
              "Fatal: There were 2 errors\n\n",
              r.err);
    EXPECT_EQ("catalog a\n", kt::read_file(target + src + "/a.txt"));
    EXPECT_EQ("catalog b\n", kt::read_file(target + src + "/sub/b.txt"));
    EXPECT_FALSE(kt::file_exists(target + src + "/big.bin"));
}

// Files made anew with the same content, size and modification time (as a
// restore or an export writes them) have new inodes and change times: restic
// reads them again unless told to ignore both.
TEST_F(OffsiteRestic, RecreatedFilesAreUnmodifiedOnlyWithIgnoreInodeAndCtime) {
    const std::string src = make_source(dir_);
    const std::vector<std::string> files = {"a.txt", "sub/b.txt"};
    const struct timespec mtime = {1700000000, 123456789};
    for (const std::string& f : files) {
        const struct timespec times[2] = {mtime, mtime};
        ASSERT_EQ(0, utimensat(AT_FDCWD, (src + "/" + f).c_str(), times, 0));
    }
    kt::RunResult r = run({"backup", "--json", src});
    ASSERT_EQ(0, r.exit_status) << describe(r);
    EXPECT_EQ(2, backup_summary(r.out)["files_new"].get<int>());

    // The old files stay alive elsewhere so that their inode numbers cannot
    // come back.
    int round = 0;
    auto recreate = [&]() {
        const std::string keep = dir_.file("old" + std::to_string(++round));
        kt::make_dirs(keep);
        for (const std::string& f : files) {
            const std::string path = src + "/" + f;
            struct stat before, after;
            ASSERT_EQ(0, stat(path.c_str(), &before));
            const std::string content = kt::read_file(path);
            const std::string kept = keep + "/" + std::to_string(before.st_ino);
            ASSERT_EQ(0, rename(path.c_str(), kept.c_str()));
            kt::write_file(path, content);
            const struct timespec times[2] = {mtime, mtime};
            ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
            ASSERT_EQ(0, stat(path.c_str(), &after));
            ASSERT_NE(before.st_ino, after.st_ino);
            ASSERT_EQ(before.st_size, after.st_size);
            ASSERT_EQ(before.st_mtim.tv_sec, after.st_mtim.tv_sec);
            ASSERT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
        }
    };

    recreate();
    r = run({"backup", "--json", "--ignore-inode", "--ignore-ctime", src});
    ASSERT_EQ(0, r.exit_status) << describe(r);
    nlohmann::json summary = backup_summary(r.out);
    EXPECT_EQ(2, summary["files_unmodified"].get<int>()) << r.out;
    EXPECT_EQ(0, summary["files_changed"].get<int>()) << r.out;

    recreate();
    r = run({"backup", "--json", src});
    ASSERT_EQ(0, r.exit_status) << describe(r);
    summary = backup_summary(r.out);
    EXPECT_EQ(0, summary["files_unmodified"].get<int>()) << r.out;
    EXPECT_EQ(2, summary["files_changed"].get<int>()) << r.out;
    // Read again, but nothing new stored: same content.
    EXPECT_EQ(0, summary["data_blobs"].get<int>()) << r.out;
}

// --group-by '' puts every snapshot with the tag into one group whatever its
// host and paths; snapshots without the tag are left alone.
TEST_F(OffsiteRestic, ForgetGroupedByNothingKeepsTheLastOfTheTag) {
    const std::string src = make_source(dir_);
    const std::vector<std::vector<std::string>> backups = {
        {"--tag", "X", "--host", "a", "--time", "2026-01-01 00:00:01"},
        {"--tag", "X", "--host", "b", "--time", "2026-01-01 00:00:02"},
        {"--tag", "Y", "--host", "a", "--time", "2026-01-01 00:00:03"},
        {"--tag", "X", "--host", "a", "--time", "2026-01-01 00:00:04"},
        {"--tag", "X", "--host", "b", "--time", "2026-01-01 00:00:05"},
    };
    for (const auto& b : backups) {
        std::vector<std::string> args = {"backup", "-q"};
        args.insert(args.end(), b.begin(), b.end());
        args.push_back(src);
        kt::RunResult r = run(args);
        ASSERT_EQ(0, r.exit_status) << describe(r);
    }
    kt::RunResult r = run({"forget", "--group-by", "", "--tag", "X", "--keep-last", "2", "--prune"});
    ASSERT_EQ(0, r.exit_status) << describe(r);
    EXPECT_NE(std::string::npos, r.out.find("2 snapshots have been removed, running prune\n")) << r.out;

    r = run({"snapshots", "--json"});
    ASSERT_EQ(0, r.exit_status) << describe(r);
    const nlohmann::json left = nlohmann::json::parse(r.out, nullptr, false);
    ASSERT_TRUE(left.is_array()) << r.out;
    std::vector<std::string> kept;
    for (const auto& s : left) kept.push_back(s["hostname"].get<std::string>() + "/" + s["tags"][0].get<std::string>());
    EXPECT_EQ((std::vector<std::string>{"a/Y", "a/X", "b/X"}), kept);

    r = run({"check"});
    EXPECT_EQ(0, r.exit_status) << describe(r);
}

}  // namespace
