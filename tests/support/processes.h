// Programs started by system tests: spawned with their output in a log, waited for
// with a bound, stopped thread by thread; through the emulator of a cross build.
#ifndef KEP_TEST_PROCESSES_H
#define KEP_TEST_PROCESSES_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace kep_test {

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point t);
std::string readText(const std::string &path);
void writeText(const std::string &path, const std::string &text);

// The emulator a cross-built program runs under (empty on the build machine), and how
// much longer everything takes there.
extern const std::string kEmulator;
extern const int kSlow;

// Starts argv with its output in log (its standard error in errLog when one is
// given, its standard input from inFile when one is); the child dies with this process.
pid_t spawn(std::vector<std::string> argv, const std::string &log, const std::string &errLog = "",
            const std::string &inFile = "");
// Waits for pid to end; its exit status, or -1 when it did not end in time (then it
// is killed).
int reap(pid_t pid, int timeoutMs = 10000);
// Stops pid and waits until every thread of it has stopped: a signal only asks.
bool stopProcess(pid_t pid);

// A fresh folder for one system test (prefix: "/tmp/kh"); empty on failure. This process
// and the programs it starts use its "run" folder as their runtime folder; the programs
// give up on a peer after 1 s, this process after 3 s.
std::string systemTestFolder(const std::string &prefix);
// Writes the example's model description template (a path below examples/) to out, with
// its configuration files in confDir.
void writeModel(const std::string &example, const std::string &confDir, const std::string &out);
// The host's response text, or "rpc <code>" when the host could not be asked.
std::string hostRequest(const std::string &text);

}  // namespace kep_test

#endif
