#include "processes.h"

#include <stdlib.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "kep_host.h"
#include "kep_pf_rpc.h"

namespace kep_test {

long msSince(Clock::time_point t) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

std::string readText(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void writeText(const std::string &path, const std::string &text) {
    std::ofstream(path) << text;
}

#ifdef KEP_EMULATOR
const std::string kEmulator = KEP_EMULATOR;
#else
const std::string kEmulator;
#endif
// Sanitized builds run the same waits several times slower; a bound that
// holds plainly with room to spare can miss by a little under them.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kSanitized = 3;
#else
constexpr int kSanitized = 1;
#endif
const int kSlow = kEmulator.empty() ? kSanitized : 10;

pid_t spawn(std::vector<std::string> argv, const std::string &log, const std::string &errLog,
            const std::string &inFile) {
    if (!kEmulator.empty()) {
        std::istringstream words(kEmulator);
        std::vector<std::string> prefix;
        for (std::string w; words >> w;) prefix.push_back(w);
        argv.insert(argv.begin(), prefix.begin(), prefix.end());
    }
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        int errFd =
            errLog.empty() ? fd : open(errLog.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (fd >= 0) dup2(fd, 1);
        if (errFd >= 0) dup2(errFd, 2);
        int inFd = inFile.empty() ? -1 : open(inFile.c_str(), O_RDONLY | O_CLOEXEC);
        if (inFd >= 0) dup2(inFd, 0);
        std::vector<char *> args;
        for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

int reap(pid_t pid, int timeoutMs) {
    auto until = Clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    for (;;) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (r < 0 || Clock::now() >= until) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
}

bool stopProcess(pid_t pid) {
    if (kill(pid, SIGSTOP) != 0) return false;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    for (int i = 0; i < 2000; i++) {
        bool all = true;
        for (const auto &t : std::filesystem::directory_iterator(tasks)) {
            const std::string stat = readText(t.path().string() + "/stat");
            const size_t paren = stat.rfind(')');
            all = all && paren != std::string::npos && stat.size() > paren + 2 && stat[paren + 2] == 'T';
        }
        if (all) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

std::string systemTestFolder(const std::string &prefix) {
    std::string tmpl = prefix + ".XXXXXX";
    if (!mkdtemp(tmpl.data())) return "";
    setenv("KEP_RUNTIME_DIR", (tmpl + "/run").c_str(), 1);
    setenv("KEP_IMI_TIMEOUT_MS", "1000", 1);
    qxImiSetTimeout(3000);
    return tmpl;
}

void writeModel(const std::string &example, const std::string &confDir, const std::string &out) {
    std::string text = readText(std::string(KEP_SOURCE_DIR) + "/examples/" + example);
    for (size_t at; (at = text.find("@CONFDIR@")) != std::string::npos;) text.replace(at, 9, confDir);
    writeText(out, text);
}

std::string hostRequest(const std::string &text) {
    char *out = nullptr;
    int rc = kepHostRequest(text.c_str(), &out);
    std::string s = rc == 0 && out ? out : "rpc " + std::to_string(rc);
    free(out);
    return s;
}

}  // namespace kep_test
