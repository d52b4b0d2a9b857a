// Another process for the code under test: a body run in a forked child,
// optionally as nobody.
#ifndef KAVREL_TESTS_COMMON_CHILD_PROCESS_H_
#define KAVREL_TESTS_COMMON_CHILD_PROCESS_H_

#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kt {

// Runs `body` (returning an exit code) in a forked child and returns that
// code, or -signal when the child was killed: another process for the code
// under test.
template <typename Body>
int run_in_child(Body body) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1000;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

// The same in a child that first becomes nobody (uid and gid 65534), for a
// run as root; 120 when the child cannot change its user.
template <typename Body>
int run_as_nobody(Body body) {
    return run_in_child([&body]() {
        if (setgid(65534) != 0 || setuid(65534) != 0) return 120;
        return body();
    });
}

}  // namespace kt

#endif  // KAVREL_TESTS_COMMON_CHILD_PROCESS_H_
