// A test run again alone in a fresh process, for settings that a process reads from
// its environment once. Header-only, so that it sees the test program's KEP_EMULATOR.
#pragma once

#include <errno.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace kep_test {

// Runs this program again with only test (a gtest filter), its environment changed by
// env (a null value unsets the variable); the exit status (0: passed), or -1.
inline int rerunAlone(const std::string &test, const std::vector<std::pair<std::string, const char *>> &env) {
    const pid_t child = fork();
    if (child == 0) {
        for (const auto &[name, value] : env) value ? setenv(name.c_str(), value, 1) : unsetenv(name.c_str());
        // This program by the name it was started with (under valgrind, /proc/self/exe is
        // valgrind's), and under the emulator a cross build runs its programs with.
        std::vector<std::string> words;
#ifdef KEP_EMULATOR
        std::istringstream emulator(KEP_EMULATOR);
        for (std::string w; emulator >> w;) words.push_back(w);
#endif
        words.insert(words.end(), {program_invocation_name, "--gtest_filter=" + test, "--gtest_brief=1"});
        std::vector<char *> argv;
        for (std::string &w : words) argv.push_back(&w[0]);
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = -1;
    if (child < 0 || waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace kep_test
