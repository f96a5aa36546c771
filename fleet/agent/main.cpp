// kepagent: the device's agent of the fleet. Connects to the operator's MQTT broker
// over TLS as the device, takes requests from kep/DEVICE/request/CONTROLLER, lets
// through what the controller's role allows and answers on the controller's response
// topic. It serves them over the direct route (reads) and through the host (changes),
// as the HTTP gateway does. A simulated device's agent owns the device's module itself
// and sends every request through the device's host.
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "agent.h"
#include "kep_direct.h"
#include "kep_host.h"
#include "simulated.h"

using namespace kepagent;

namespace {

volatile sig_atomic_t gStop = 0;

void onSignal(int) {
    gStop = 1;
}

void usage(FILE *to) {
    fprintf(
        to,
        "usage: kepagent [-c FILE] --device ID --ca-file FILE --password-file FILE --rules FILE\n"
        "                --controllers FILE [options]\n"
        "  -c, --config FILE       settings as \"name = value\" lines, the names below; flags after it win\n"
        "  --broker-host HOST      (localhost)      --broker-port PORT  (8883, TLS only)\n"
        "  --device ID             this device: its broker user name and topic level\n"
        "  --ca-file FILE          the CA that signed the broker's certificate\n"
        "  --password-file FILE    the device's broker password (first line)\n"
        "  --cert-file FILE --key-file FILE   a client certificate instead of, or besides, the password\n"
        "  --rules FILE            roles: per module or \"*\", of \"read\", \"write\", \"exec\" (kepwebd's "
        "format)\n"
        "  --controllers FILE      CONTROLLER:ROLE lines; a controller not named is refused\n"
        "  --audit-log FILE        append the audit here (default: syslog, authpriv)\n"
        "  --user USER             the user to run as (required when started as root)\n"
        "  --max-request BYTES (65536)  --rate N (10/s)  --burst N (20)  per controller\n"
        "  --cache-entries N (256) --cache-seconds S (600)  answers to changes kept for repeated\n"
        "                          deliveries\n"
        "  --answers-file FILE     keep them here too, so that a restarted agent never applies one twice\n"
        "  --keepalive S (30)  --session-seconds S (300)  --backoff-max S (30)\n");
}

bool dropPrivileges(const std::string &user) {
    if (geteuid() != 0) return true;
    if (user.empty()) {
        fprintf(stderr, "kepagent: started as root: --user names the user to run as\n");
        return false;
    }
    const passwd *pw = getpwnam(user.c_str());
    if (!pw || pw->pw_uid == 0) {
        fprintf(stderr, "kepagent: --user %s: no such user other than root\n", user.c_str());
        return false;
    }
    if (initgroups(pw->pw_name, pw->pw_gid) != 0 || setgid(pw->pw_gid) != 0 || setuid(pw->pw_uid) != 0 ||
        setuid(0) == 0) {
        fprintf(stderr, "kepagent: cannot become %s: %s\n", user.c_str(), strerror(errno));
        return false;
    }
    return true;
}

int64_t gDirectTried = -1000000;

// Reads over the direct route, one hop to the owner; changes through the host, which
// orders them with every other client's and tells its watchers (as kepwebd does).
// A simulated device: this process owns the module, and a process that owns modules
// has a tree of its own, so it cannot take the host's for the direct route; its own
// tree answers the reads instead, with the same one hop (to the kit's thread).
int forwardSimulated(const std::string &controller, const std::string &request, bool changes,
                     char **response) {
    if (changes) return kepHostRequestFor(controller.c_str(), request.c_str(), response);
    return simulatedRead(request.c_str(), response);
}

int forwardToDevice(const std::string &controller, const std::string &request, bool changes,
                    char **response) {
    if (changes) return kepHostRequestFor(controller.c_str(), request.c_str(), response);
    const int64_t now = kepfleet::monotonicMs();
    static bool open = false;
    // A host that is down costs one attempt a second, not one per request.
    if (!open && now - gDirectTried >= 1000) {
        gDirectTried = now;
        open = kepDirectOpen() == 0;
    }
    return kepDirectRequestFor(controller.c_str(), request.c_str(), response);
}

}  // namespace

int main(int argc, char **argv) {
    static const char *const kNames[] = {
        "broker-host",     "broker-port", "ca-file",     "cert-file",     "key-file",      "password-file",
        "device",          "rules",       "controllers", "audit-log",     "user",          "simulate",
        "max-request",     "rate",        "burst",       "cache-entries", "cache-seconds", "keepalive",
        "session-seconds", "backoff-max", "answers-file"};
    constexpr int kCount = sizeof kNames / sizeof kNames[0];
    option options[kCount + 3];
    for (int i = 0; i < kCount; i++) options[i] = {kNames[i], required_argument, nullptr, 1000 + i};
    options[kCount] = {"config", required_argument, nullptr, 'c'};
    options[kCount + 1] = {"help", no_argument, nullptr, 'h'};
    options[kCount + 2] = {nullptr, 0, nullptr, 0};

    Settings s;
    std::string error;
    int opt;
    while ((opt = getopt_long(argc, argv, "c:h", options, nullptr)) != -1) {
        if (opt == 'h') return usage(stdout), 0;
        bool ok = false;
        if (opt == 'c') {
            std::string text;
            ok = kepfleet::readSmallFile(optarg, &text, 65536) && parseSettingsFile(text, &s, &error);
            if (!ok && error.empty()) error = "cannot read it";
            if (!ok) error = std::string(optarg) + ": " + error;
        } else if (opt >= 1000 && opt < 1000 + kCount) {
            ok = applySetting(kNames[opt - 1000], optarg, &s, &error);
        }
        if (!ok) {
            if (!error.empty()) fprintf(stderr, "kepagent: %s\n", error.c_str());
            usage(stderr);
            return 2;
        }
    }
    if (optind != argc || !checkSettings(s, &error)) {
        fprintf(stderr, "kepagent: %s\n", error.empty() ? "unexpected arguments" : error.c_str());
        usage(stderr);
        return 2;
    }

    std::string rulesText, controllersText;
    keprules::Rules rules;
    std::map<std::string, std::string> roles;
    if (!kepfleet::readSmallFile(s.rulesFile, &rulesText, 1 << 20) ||
        !keprules::parseRules(rulesText, &rules, &error)) {
        fprintf(stderr, "kepagent: %s: %s\n", s.rulesFile.c_str(),
                error.empty() ? "cannot read it" : error.c_str());
        return 1;
    }
    if (!kepfleet::readSmallFile(s.controllersFile, &controllersText, 1 << 20) ||
        !parseControllers(controllersText, rules, &roles, &error)) {
        fprintf(stderr, "kepagent: %s: %s\n", s.controllersFile.c_str(),
                error.empty() ? "cannot read it" : error.c_str());
        return 1;
    }
    FILE *audit = nullptr;
    if (!s.auditFile.empty()) {
        const int fd =
            open(s.auditFile.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
        audit = fd >= 0 ? fdopen(fd, "a") : nullptr;
        if (!audit) {
            fprintf(stderr, "kepagent: cannot open the audit log %s: %s\n", s.auditFile.c_str(),
                    strerror(errno));
            if (fd >= 0) close(fd);
            return 1;
        }
    }

    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    mosquitto_lib_init();
    int status = 1;
    {
        Agent agent(s, std::move(rules), std::move(roles),
                    s.simulate.empty() ? forwardToDevice : forwardSimulated, audit);
        // The password is read while the files are still reachable; everything after runs unprivileged.
        if (!agent.init() || !dropPrivileges(s.runAs) || !agent.openJournal()) return 1;
        prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
        if (!s.simulate.empty() && simulatedStart(s.simulate.c_str()) != 0) {
            fprintf(stderr, "kepagent: cannot own the simulated module of %s\n", s.simulate.c_str());
            return 1;
        }
        // A simulated device says "online" only once its host answers for its module: a
        // controller that sees it online never gets the host's "no owner" instead.
        bool ready = s.simulate.empty();
        int64_t polled = 0;
        while (!gStop) {
            if (!ready) {
                simulatedPoll();
                ready = simulatedAnswers();
                if (!ready) usleep(100 * 1000);
                continue;
            }
            // A signal ends the wait early; idle, a device wakes once a second.
            agent.step(1000);
            // The kit's round (notifications, a host that restarted) once a second, as when
            // idle: after every request it cost a dozen system calls of each answer's few dozen.
            const int64_t now = kepfleet::monotonicMs();
            if (!s.simulate.empty() && now - polled >= 900) {
                simulatedPoll();
                polled = now;
            }
        }
        agent.stop(1000);
        if (!s.simulate.empty()) simulatedStop();
        status = 0;
    }
    mosquitto_lib_cleanup();
    if (audit) fclose(audit);
    return status;
}
