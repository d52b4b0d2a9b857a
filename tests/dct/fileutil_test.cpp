// The directory walk TraverseDir.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "dct/fileutil.h"
#include "dct/fs.h"

namespace {

// Records every item it is offered; answers with `decide` (0 when empty). Copies
// share the record, as the walk copies the functor into every level.
struct Recorder {
    std::vector<DirItem>* calls;
    std::function<int(const DirItem&)> decide;
    int operator()(const DirItem& item) {
        calls->push_back(item);
        return decide ? decide(item) : 0;
    }
};

TraverseResult walk(const std::string& root, std::vector<DirItem>& calls, bool recursive = true,
                    int depth = 0, std::function<int(const DirItem&)> decide = nullptr) {
    return TraverseDir(root, Recorder{&calls, std::move(decide)}, recursive, depth);
}

std::vector<std::string> paths_of(const std::vector<DirItem>& calls) {
    std::vector<std::string> p;
    for (const auto& c : calls) p.push_back(c.fullpath);
    return p;
}

const DirItem* find(const std::vector<DirItem>& calls, const std::string& fullpath) {
    for (const auto& c : calls)
        if (c.fullpath == fullpath) return &c;
    return nullptr;
}

size_t index_of(const std::vector<DirItem>& calls, const std::string& fullpath) {
    for (size_t i = 0; i < calls.size(); ++i)
        if (calls[i].fullpath == fullpath) return i;
    return calls.size();
}

void mkdirs(const std::string& path) { ASSERT_EQ(wa_createtree(path, 0755), 0) << path; }

// root/f1, root/d1/f2, root/d1/d2/f3
class Tree : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = dir_.file("root");
        mkdirs(root_ + "/d1/d2");
        kt::write_file(root_ + "/f1", "1");
        kt::write_file(root_ + "/d1/f2", "2");
        kt::write_file(root_ + "/d1/d2/f3", "3");
    }
    kt::TempDir dir_;
    std::string root_;
};

}  // namespace

TEST_F(Tree, OffersEveryEntryButNeverTheRoot) {
    std::vector<DirItem> calls;
    TraverseResult r = walk(root_, calls);
    EXPECT_EQ(r.status, CR_STATUS_OK);
    EXPECT_EQ(r.path, root_);
    std::vector<std::string> got = paths_of(calls);
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<std::string>{root_ + "/d1", root_ + "/d1/d2", root_ + "/d1/d2/f3",
                                             root_ + "/d1/f2", root_ + "/f1"}));
    EXPECT_EQ(find(calls, root_), nullptr);
}

TEST_F(Tree, ItemFieldsAndDepths) {
    std::vector<DirItem> calls;
    walk(root_, calls);
    const DirItem* f1 = find(calls, root_ + "/f1");
    const DirItem* d1 = find(calls, root_ + "/d1");
    const DirItem* d2 = find(calls, root_ + "/d1/d2");
    const DirItem* f3 = find(calls, root_ + "/d1/d2/f3");
    ASSERT_TRUE(f1 && d1 && d2 && f3);
    EXPECT_EQ(f1->dir, root_);
    EXPECT_EQ(f1->name, "f1");
    EXPECT_EQ(f1->depth, 1);
    EXPECT_FALSE(f1->is_dir);
    EXPECT_FALSE(f1->is_link);
    EXPECT_FALSE(f1->stat_failed);
    EXPECT_EQ(d1->depth, 1);
    EXPECT_TRUE(d1->is_dir);
    EXPECT_EQ(d2->dir, root_ + "/d1");
    EXPECT_EQ(d2->name, "d2");
    EXPECT_EQ(d2->depth, 2);
    EXPECT_TRUE(d2->is_dir);
    EXPECT_EQ(f3->dir, root_ + "/d1/d2");
    EXPECT_EQ(f3->depth, 3);
}

TEST_F(Tree, DirectoryOfferedBeforeItsEntries) {
    std::vector<DirItem> calls;
    walk(root_, calls);
    EXPECT_LT(index_of(calls, root_ + "/d1"), index_of(calls, root_ + "/d1/f2"));
    EXPECT_LT(index_of(calls, root_ + "/d1/d2"), index_of(calls, root_ + "/d1/d2/f3"));
}

TEST_F(Tree, DepthCountsFromTheGivenDepth) {
    std::vector<DirItem> calls;
    walk(root_, calls, true, 5);
    ASSERT_NE(find(calls, root_ + "/f1"), nullptr);
    EXPECT_EQ(find(calls, root_ + "/f1")->depth, 6);
    EXPECT_EQ(find(calls, root_ + "/d1/f2")->depth, 7);
    EXPECT_EQ(find(calls, root_ + "/d1/d2/f3")->depth, 8);
}

TEST_F(Tree, NotRecursiveStaysOnTheFirstLevel) {
    std::vector<DirItem> calls;
    TraverseResult r = walk(root_, calls, false);
    EXPECT_EQ(r.status, CR_STATUS_OK);
    std::vector<std::string> got = paths_of(calls);
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<std::string>{root_ + "/d1", root_ + "/f1"}));
}

TEST_F(Tree, PositiveReturnDoesNotDescend) {
    std::vector<DirItem> calls;
    TraverseResult r = walk(root_, calls, true, 0, [&](const DirItem& i) { return i.name == "d1" ? 1 : 0; });
    EXPECT_EQ(r.status, CR_STATUS_OK);
    std::vector<std::string> got = paths_of(calls);
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<std::string>{root_ + "/d1", root_ + "/f1"}));
}

TEST_F(Tree, PositiveReturnOnAFileGoesOn) {
    std::vector<DirItem> calls;
    TraverseResult r = walk(root_, calls, true, 0, [](const DirItem& i) { return i.is_dir ? 0 : 7; });
    EXPECT_EQ(r.status, CR_STATUS_OK);
    EXPECT_EQ(calls.size(), 5u);
}

TEST_F(Tree, NegativeReturnAbortsWithStatus4AndTheEntry) {
    kt::LogCapture log;
    std::vector<DirItem> calls;
    const std::string target = root_ + "/d1/d2/f3";
    TraverseResult r = walk(root_, calls, true, 0, [&](const DirItem& i) { return i.fullpath == target ? -1 : 0; });
    EXPECT_EQ(r.status, CR_STATUS_FAILED);
    EXPECT_EQ(r.path, target);
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.back().fullpath, target);  // nothing offered after the abort
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(Tree, NegativeReturnOnTheFirstEntryEndsAtOnce) {
    std::vector<DirItem> calls;
    TraverseResult r = walk(root_, calls, true, 0, [](const DirItem&) { return -5; });
    EXPECT_EQ(r.status, CR_STATUS_FAILED);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(r.path, calls[0].fullpath);
}

TEST_F(Tree, EmptyDirectoryOffersNothing) {
    mkdirs(dir_.file("empty"));
    std::vector<DirItem> calls;
    TraverseResult r = walk(dir_.file("empty"), calls);
    EXPECT_EQ(r.status, CR_STATUS_OK);
    EXPECT_EQ(r.path, dir_.file("empty"));
    EXPECT_TRUE(calls.empty());
}

TEST_F(Tree, FunctorIsCopiedIntoEveryLevel) {
    // A functor that counts in itself: a deeper level counts on in its own copy,
    // and what it counted does not come back to the level above.
    struct Counting {
        std::vector<std::pair<int, int>>* seen_at;  // (depth, count so far)
        int seen = 0;
        int operator()(const DirItem& item) {
            ++seen;
            seen_at->emplace_back(item.depth, seen);
            return 0;
        }
    };
    std::vector<std::pair<int, int>> seen_at;
    TraverseDir(root_, Counting{&seen_at}, true, 0);
    ASSERT_EQ(seen_at.size(), 5u);
    std::vector<int> first_level;
    for (const auto& p : seen_at)
        if (p.first == 1) first_level.push_back(p.second);
    EXPECT_EQ(first_level, (std::vector<int>{1, 2}));
}

TEST(TraverseDirRoot, MissingRootGivesStatus2AndInfo) {
    kt::TempDir dir;
    kt::LogCapture log;
    std::vector<DirItem> calls;
    const std::string missing = dir.file("nothing/here");
    TraverseResult r = walk(missing, calls);
    EXPECT_EQ(r.status, CR_STATUS_MISSING);
    EXPECT_EQ(r.path, missing);
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(log.count(dct::log_level::info, 2, "Directory " + missing + " doesn't exist."), 1u) << log.dump();
    EXPECT_EQ(log.records().size(), 1u) << log.dump();
}

TEST(TraverseDirRoot, FileAsRootFailsToOpen) {
    kt::TempDir dir;
    kt::write_file(dir.file("plain"), "x");
    kt::LogCapture log;
    std::vector<DirItem> calls;
    TraverseResult r = walk(dir.file("plain"), calls);
    EXPECT_EQ(r.status, CR_STATUS_MISSING);  // ENOTDIR maps to 2
    EXPECT_EQ(r.path, dir.file("plain"));
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(log.count(dct::log_level::error, 2, "Failed to open directory " + dir.file("plain")), 1u)
        << log.dump();
    EXPECT_EQ(*__cr_errno_location(), CR_STATUS_MISSING);
}

TEST(TraverseDirLinks, LinkToDirectoryIsFollowed) {
    kt::TempDir dir;
    const std::string root = dir.file("root");
    mkdirs(root + "/real");
    kt::write_file(root + "/real/inner", "i");
    ASSERT_EQ(symlink("real", (root + "/link").c_str()), 0);
    std::vector<DirItem> calls;
    TraverseResult r = walk(root, calls);
    EXPECT_EQ(r.status, CR_STATUS_OK);
    const DirItem* link = find(calls, root + "/link");
    ASSERT_NE(link, nullptr);
    EXPECT_TRUE(link->is_link);
    EXPECT_TRUE(link->is_dir);
    EXPECT_FALSE(link->stat_failed);
    const DirItem* real = find(calls, root + "/real");
    ASSERT_NE(real, nullptr);
    EXPECT_FALSE(real->is_link);
    const DirItem* through = find(calls, root + "/link/inner");
    ASSERT_NE(through, nullptr);
    EXPECT_EQ(through->depth, 2);
    EXPECT_EQ(through->dir, root + "/link");
    EXPECT_NE(find(calls, root + "/real/inner"), nullptr);
    EXPECT_EQ(calls.size(), 4u);
}

TEST(TraverseDirLinks, LinkToFileAndDanglingLink) {
    kt::TempDir dir;
    const std::string root = dir.file("root");
    mkdirs(root);
    kt::write_file(root + "/file", "f");
    ASSERT_EQ(symlink("file", (root + "/tofile").c_str()), 0);
    ASSERT_EQ(symlink("absent", (root + "/dangling").c_str()), 0);
    std::vector<DirItem> calls;
    EXPECT_EQ(walk(root, calls).status, CR_STATUS_OK);
    const DirItem* tofile = find(calls, root + "/tofile");
    ASSERT_NE(tofile, nullptr);
    EXPECT_TRUE(tofile->is_link);
    EXPECT_FALSE(tofile->is_dir);
    EXPECT_FALSE(tofile->stat_failed);
    const DirItem* dangling = find(calls, root + "/dangling");
    ASSERT_NE(dangling, nullptr);
    EXPECT_TRUE(dangling->is_link);
    EXPECT_TRUE(dangling->stat_failed);
    EXPECT_FALSE(dangling->is_dir);
}

TEST(TraverseDirLinks, LoopOfLinksEnds) {
    // root/d/up -> .. : root/d/up/d/up/... until the system refuses the path.
    kt::TempDir dir;
    const std::string root = dir.file("root");
    mkdirs(root + "/d");
    ASSERT_EQ(symlink("..", (root + "/d/up").c_str()), 0);
    std::vector<DirItem> calls;
    TraverseResult r = walk(root, calls, true, 0, [](const DirItem& i) { return i.depth > 100000 ? -1 : 0; });
    (void)r;
    ASSERT_FALSE(calls.empty());
    EXPECT_LT(calls.size(), 10000u);
    int deepest = 0;
    for (const auto& c : calls) deepest = std::max(deepest, c.depth);
    EXPECT_GT(deepest, 4);  // the link was followed round the loop
    // Where the loop ended, the last entry could not be resolved any more.
    const DirItem& last = calls.back();
    EXPECT_EQ(last.name, "up");
    EXPECT_TRUE(last.stat_failed);
    EXPECT_FALSE(last.is_dir);
}

// An unreadable directory deep in the tree: root/a/b/locked (mode 000), with
// plain files beside each of a, b and locked. Root reads every directory, so the
// walk runs in a child that drops to the unprivileged user nobody (65534).
namespace {

const uid_t kNobody = 65534;

// True when `name` is listed before some other entry of `dir`.
bool listed_before_another(const std::string& dir, const std::string& name) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return false;
    while (struct dirent64* e = readdir64(d)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    }
    closedir(d);
    return !names.empty() && names.back() != name;
}

// Files before and after `sub` in creation order; more until `sub` is listed
// before some file, so that the walk has something left to skip at this level.
void fill_level(const std::string& dir, const std::string& sub, const std::string& prefix) {
    for (int i = 0; i < 3; ++i) kt::write_file(dir + "/" + prefix + "pre" + std::to_string(i), "x");
    ASSERT_EQ(mkdir((dir + "/" + sub).c_str(), 0755), 0);
    int i = 0;
    do {
        kt::write_file(dir + "/" + prefix + "post" + std::to_string(i), "x");
    } while (!listed_before_another(dir, sub) && ++i < 200);
    ASSERT_TRUE(listed_before_another(dir, sub)) << dir;
}

// The calls a walk makes when it stops at `stop` (offered, then not opened).
bool reference_walk(const std::string& dir, int depth, const std::string& stop,
                    std::vector<std::string>& out) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return false;
    bool go_on = true;
    while (go_on) {
        struct dirent64* e = readdir64(d);
        if (e == nullptr) break;
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        std::string full = dir + "/" + e->d_name;
        out.push_back(full + "\t" + std::to_string(depth + 1));
        if (full == stop) go_on = false;
        else if (wa_isdir(full)) go_on = reference_walk(full, depth + 1, stop, out);
    }
    closedir(d);
    return go_on;
}

std::string read_all(int fd) {
    std::string s;
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        s.append(buf, n);
    }
    return s;
}

// Child side: drops privileges, walks, and writes one line per fact to `fd`.
[[noreturn]] void walk_as_nobody(int fd, const std::string& root, const std::string& locked) {
    std::ostringstream out;
    if (geteuid() == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) {
            out << "setup\tcannot drop privileges: " << strerror(errno) << "\n";
        }
    }
    if (access(root.c_str(), R_OK | X_OK) != 0) {
        out << "setup\tthe tree is out of the unprivileged user's reach: " << root << "\n";
    }
    DIR* probe = opendir(locked.c_str());
    if (probe != nullptr) {
        closedir(probe);
        out << "setup\tthe locked directory is still readable\n";
    }
    kt::LogCapture log;
    std::vector<DirItem> calls;
    TraverseResult r = walk(root, calls);
    for (const auto& c : calls) out << "call\t" << c.fullpath << "\t" << c.depth << "\n";
    out << "result\t" << r.status << "\t" << r.path << "\n";
    for (const auto& rec : log.records())
        out << "log\t" << dct::log_level_name(rec.level) << "\t" << rec.status << "\t" << rec.message << "\n";
    std::string s = out.str();
    size_t off = 0;
    while (off < s.size()) {
        ssize_t n = write(fd, s.data() + off, s.size() - off);
        if (n <= 0) _exit(3);
        off += n;
    }
    _exit(0);
}

}  // namespace

TEST(TraverseDirUnreadable, DeepUnreadableDirectoryStopsItsAncestorsAndKeepsEarlierCalls) {
    kt::TempDir dir;
    // The unprivileged user must reach the tree.
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    const std::string root = dir.file("root");
    const std::string a = root + "/a", b = a + "/b", locked = b + "/locked";
    ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
    fill_level(root, "a", "r");
    fill_level(a, "b", "a");
    fill_level(b, "locked", "b");
    kt::write_file(locked + "/hidden", "h");

    // What the walk must have offered: everything up to and including `locked`.
    std::vector<std::string> expected_calls;
    ASSERT_FALSE(reference_walk(root, 0, locked, expected_calls));
    ASSERT_EQ(chmod(locked.c_str(), 0), 0);

    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(pipefd[0]);
        walk_as_nobody(pipefd[1], root, locked);
    }
    close(pipefd[1]);
    std::string report = read_all(pipefd[0]);
    close(pipefd[0]);
    int ws = 0;
    ASSERT_EQ(waitpid(pid, &ws, 0), pid);
    ASSERT_TRUE(WIFEXITED(ws) && WEXITSTATUS(ws) == 0) << report;

    std::vector<std::string> calls, logs, setup;
    std::string result;
    std::istringstream in(report);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, 5, "call\t") == 0) calls.push_back(line.substr(5));
        else if (line.compare(0, 7, "result\t") == 0) result = line.substr(7);
        else if (line.compare(0, 4, "log\t") == 0) logs.push_back(line.substr(4));
        else if (line.compare(0, 6, "setup\t") == 0) setup.push_back(line.substr(6));
    }
    ASSERT_TRUE(setup.empty()) << report;

    // The walk stopped with the locked directory's status; a, b and root ended too.
    EXPECT_EQ(result, "106\t" + locked);
    EXPECT_EQ(calls, expected_calls);
    EXPECT_EQ(calls.back(), locked + "\t3");
    // Each level had entries left after the path to `locked`; none was offered.
    for (const std::string& level : {root, a, b}) {
        size_t listed = kt::list_dir(level).size();
        size_t offered = std::count_if(calls.begin(), calls.end(), [&](const std::string& c) {
            return c.compare(0, level.size() + 1, level + "/") == 0 &&
                   c.find('/', level.size() + 1) == std::string::npos;
        });
        EXPECT_LT(offered, listed) << level;
    }
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                            [&](const std::string& c) { return c.compare(0, locked.size() + 1, locked + "/") == 0; }),
              0);
    EXPECT_EQ(logs, (std::vector<std::string>{"ERROR\t106\tFailed to open directory " + locked}));
}
