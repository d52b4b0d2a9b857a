// Shared tools of the reliability tests: a shadow-protected pool in a
// temporary directory (through the shadow catalog tests' fixture), a capture
// of standard output for in-process listings, and row sets to compare what
// was acknowledged with what is found.
#ifndef KAVREL_TESTS_RELIABILITY_RELIABILITY_FIXTURE_H_
#define KAVREL_TESTS_RELIABILITY_RELIABILITY_FIXTURE_H_

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "appdb/catalog_list.h"
#include "appdb/catalog_shadow_fixture.h"
#include "common/test_util.h"
#include "dct/fileutil.h"

namespace relt {

using appdb::app_catalog_item;

// Sends standard output to a file from construction to text().
class StdoutCapture {
public:
    explicit StdoutCapture(const std::string& file) : file_(file) {
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, STDOUT_FILENO);
        close(fd);
    }
    ~StdoutCapture() { stop(); }
    // Restores standard output and returns what was written.
    std::string text() {
        stop();
        return kt::read_file(file_);
    }

private:
    void stop() {
        if (saved_ < 0) return;
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        saved_ = -1;
    }
    std::string file_;
    int saved_ = -1;
};

// Walks `dbroot` as kavrel does and returns what it printed; `status` gets
// the walk's status.
inline std::string list_pool(const std::string& dbroot, const std::string& scratch_file,
                             const std::string& pattern = "*", cr_status_t* status = nullptr) {
    StdoutCapture out(scratch_file);
    const TraverseResult r = TraverseDir(dbroot, OpList(pattern, false), true, 0);
    if (status != nullptr) *status = r.status;
    return out.text();
}

// Checks required <= found <= allowed (file names), describing the first
// differences.
inline ::testing::AssertionResult rows_between(const std::set<std::string>& required,
                                               const std::map<std::string, std::string>& found,
                                               const std::set<std::string>& allowed) {
    ::testing::AssertionResult r = ::testing::AssertionSuccess();
    bool ok = true;
    for (const std::string& name : required) {
        if (found.count(name) == 0) {
            if (ok) r = ::testing::AssertionFailure();
            ok = false;
            r << " missing acknowledged row " << name << ";";
        }
    }
    for (const auto& f : found) {
        if (allowed.count(f.first) == 0) {
            if (ok) r = ::testing::AssertionFailure();
            ok = false;
            r << " row never written " << f.first << ";";
        }
    }
    return r;
}

}  // namespace relt

#endif  // KAVREL_TESTS_RELIABILITY_RELIABILITY_FIXTURE_H_
