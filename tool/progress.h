// A progress line on standard error for work on many databases or a long
// off-site command: shown only when standard error is a terminal and the work
// has taken over a second, so that logs, pipes and quick runs never see it,
// and never after --quiet. Cleared when done.
#ifndef TOOL_PROGRESS_H_
#define TOOL_PROGRESS_H_

#include <stddef.h>

#include <chrono>
#include <string>

namespace kshadow {

class Progress {
public:
    // `verb` starts every line ("checking", "backing up", ...).
    Progress(const std::string& verb, size_t total);
    // Clears the line when one was shown.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // About to work on item `index` (0-based), named `what`.
    void step(size_t index, const std::string& what);
    // Shows `text` as the line ("" clears it).
    void show(const std::string& text);
    // No progress line at all from now on (--quiet).
    static void silence();

private:
    std::string verb_;
    size_t total_;
    bool terminal_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point start_;
};

}  // namespace kshadow

#endif  // TOOL_PROGRESS_H_
