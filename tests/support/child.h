// Work done in a forked child, for what must not touch this process: another writer of
// a file, a dropped user, a resource limit, a process without the parent's connections.
#ifndef KEP_TEST_CHILD_H
#define KEP_TEST_CHILD_H

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kep_test {

// fn's result as the child's exit status (0 for success, by convention); 128 + the
// signal that ended the child; -1 when there was no child. _exit skips destructors and
// atexit handlers, so the child never flushes or removes what the parent owns.
template <typename Fn>
int inChild(Fn fn) {
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) _exit(fn());
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The same in a child whose files may not grow past limit bytes: a write beyond it
// fails with EFBIG instead of raising SIGXFSZ. 100 when the limit could not be set.
template <typename Fn>
int inChildWithFileLimit(rlim_t limit, Fn fn) {
    return inChild([&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit rl{limit, limit};
        return setrlimit(RLIMIT_FSIZE, &rl) != 0 ? 100 : fn();
    });
}

}  // namespace kep_test

#endif
