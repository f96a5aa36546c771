// The fleet's floor: what the broker alone costs. COUNT simulated devices in one
// process, each one MQTT 5 connection with TLS and a password of its own (users
// f0001.., made by tools/fleet.sh with FLEET_FLOOR), through the same broker, ACL and
// topics as kepagent; each answers any request with ANSWER_BYTES fixed bytes on the
// request's response topic with its correlation data, QoS 1. One thread, epoll over
// every socket, libmosquitto driven by hand: nothing of the library or the agent but
// the TLS context its clients share (kepfleet::useTls).
//
//   kep_fleet_floor DIR COUNT ANSWER_BYTES WINDOW [--connect-only] [--per-process N]
//
// More devices than one process has descriptors for are shared out over several
// processes, the window with them; --per-process caps the devices of one process (1: a
// process per device, as simulated agents are). Connects the devices at most WINDOW at a
// time and prints
//   connected N failed F ms T
// (T: from the first attempt, or the first process started, to the last device
// subscribed), then serves until SIGTERM,
// or exits after that line with --connect-only. A device that is refused, loses its
// connection or has not connected within 60 s counts as failed.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <openssl/ssl.h>

#include "fleet_mqtt.h"

namespace {

volatile sig_atomic_t gStop = 0;

void onSignal(int) {
    gStop = 1;
}

int64_t nowMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

enum class State { Idle, Connecting, Ready, Failed };

struct Device;

struct Floor {
    int epoll = -1;
    std::string answer;
    int connecting = 0, ready = 0, failed = 0;
};

struct Device {
    Floor *floor = nullptr;
    mosquitto *mosq = nullptr;
    std::string name;
    State state = State::Idle;
    int fd = -1;
    uint32_t events = 0;
    int64_t started = 0;
};

void fail(Device *d) {
    if (d->state == State::Connecting) d->floor->connecting--;
    if (d->state == State::Ready) d->floor->ready--;
    if (d->state != State::Failed) d->floor->failed++;
    d->state = State::Failed;
    if (d->fd >= 0) epoll_ctl(d->floor->epoll, EPOLL_CTL_DEL, d->fd, nullptr);
    d->fd = -1;
}

void onConnect(mosquitto *m, void *self, int rc, int, const mosquitto_property *) {
    Device *d = static_cast<Device *>(self);
    if (rc != 0) return fail(d);
    const std::string topic = "kep/" + d->name + "/request/+";
    mosquitto_subscribe_v5(m, nullptr, topic.c_str(), 1, 0, nullptr);
}

void onSubscribe(mosquitto *, void *self, int, int, const int *granted, const mosquitto_property *) {
    Device *d = static_cast<Device *>(self);
    if (d->state != State::Connecting) return;
    if (granted[0] > 1) return fail(d);
    d->state = State::Ready;
    d->floor->connecting--;
    d->floor->ready++;
}

void onMessage(mosquitto *m, void *self, const mosquitto_message *, const mosquitto_property *props) {
    Device *d = static_cast<Device *>(self);
    char *reply = nullptr;
    void *corr = nullptr;
    uint16_t len = 0;
    mosquitto_property_read_string(props, MQTT_PROP_RESPONSE_TOPIC, &reply, false);
    mosquitto_property_read_binary(props, MQTT_PROP_CORRELATION_DATA, &corr, &len, false);
    if (reply) {
        mosquitto_property *out = nullptr;
        if (corr) mosquitto_property_add_binary(&out, MQTT_PROP_CORRELATION_DATA, corr, len);
        mosquitto_publish_v5(m, nullptr, reply, static_cast<int>(d->floor->answer.size()),
                             d->floor->answer.data(), 1, false, out);
        mosquitto_property_free_all(&out);
    }
    free(reply);
    free(corr);
}

// Watches the device's socket for reading, and for writing while libmosquitto has bytes to send.
void watch(Device *d) {
    if (d->state == State::Failed) return;
    const int fd = mosquitto_socket(d->mosq);
    if (fd < 0) return fail(d);
    const uint32_t events = EPOLLIN | (mosquitto_want_write(d->mosq) ? EPOLLOUT : 0u);
    if (fd == d->fd && events == d->events) return;
    epoll_event ev{};
    ev.events = events;
    ev.data.ptr = d;
    if (fd != d->fd) {
        if (d->fd >= 0) epoll_ctl(d->floor->epoll, EPOLL_CTL_DEL, d->fd, nullptr);
        d->fd = fd;
        epoll_ctl(d->floor->epoll, EPOLL_CTL_ADD, fd, &ev);
    } else {
        epoll_ctl(d->floor->epoll, EPOLL_CTL_MOD, fd, &ev);
    }
    d->events = events;
}

bool startConnect(Device *d, int port) {
    d->state = State::Connecting;
    d->floor->connecting++;
    d->started = nowMs();
    if (mosquitto_connect_async(d->mosq, "localhost", port, 60) != MOSQ_ERR_SUCCESS) {
        fail(d);
        return false;
    }
    watch(d);
    return true;
}

void serveEvent(Device *d, uint32_t events) {
    int rc = MOSQ_ERR_SUCCESS;
    if (events & (EPOLLIN | EPOLLERR | EPOLLHUP)) {
        // Bytes TLS has taken from the socket but not handed over yet wake no epoll_wait.
        SSL *ssl = static_cast<SSL *>(mosquitto_ssl_get(d->mosq));
        do rc = mosquitto_loop_read(d->mosq, 1);
        while (rc == MOSQ_ERR_SUCCESS && ssl && SSL_pending(ssl) > 0);
    }
    if (rc == MOSQ_ERR_SUCCESS && mosquitto_want_write(d->mosq)) rc = mosquitto_loop_write(d->mosq, 1);
    if (rc != MOSQ_ERR_SUCCESS) return fail(d);
    watch(d);
}

// Serves the devices of accounts (NAME:PASSWORD lines), at most window connecting at a
// time; writes the "connected" line to out.
int serve(const std::vector<std::string> &accounts, const std::string &dir, int port, int answerBytes,
          int window, bool connectOnly, FILE *out) {
    mosquitto_lib_init();
    Floor floor;
    floor.answer.assign(static_cast<size_t>(answerBytes), 'x');
    floor.epoll = epoll_create1(EPOLL_CLOEXEC);
    // The agents' TLS context, shared by every device here as by an agent's attempts.
    kepfleet::BrokerSettings tls;
    tls.caFile = dir + "/ca.pem";
    std::vector<std::unique_ptr<Device>> devices;
    for (const std::string &line : accounts) {
        const size_t colon = line.find(':');
        auto d = std::make_unique<Device>();
        d->floor = &floor;
        d->name = line.substr(0, colon);
        d->mosq = mosquitto_new(d->name.c_str(), true, d.get());
        if (!d->mosq) return 1;
        mosquitto_int_option(d->mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_int_option(d->mosq, MOSQ_OPT_TCP_NODELAY, 1);
        if (!kepfleet::useTls(d->mosq, tls)) return 1;
        mosquitto_username_pw_set(d->mosq, d->name.c_str(), line.substr(colon + 1).c_str());
        mosquitto_connect_v5_callback_set(d->mosq, onConnect);
        mosquitto_subscribe_v5_callback_set(d->mosq, onSubscribe);
        mosquitto_message_v5_callback_set(d->mosq, onMessage);
        devices.push_back(std::move(d));
    }

    const int64_t start = nowMs();
    size_t next = 0;
    int64_t lastMisc = start;
    bool reported = false;
    std::vector<epoll_event> events(1024);
    while (!gStop) {
        while (next < devices.size() && floor.connecting < window) startConnect(devices[next++].get(), port);
        const int64_t now = nowMs();
        if (!reported && next == devices.size() && floor.connecting == 0) {
            fprintf(out, "connected %d failed %d ms %lld\n", floor.ready, floor.failed,
                    static_cast<long long>(now - start));
            fflush(out);
            reported = true;
            if (connectOnly) break;
        }
        const int n = epoll_wait(floor.epoll, events.data(), static_cast<int>(events.size()), 100);
        for (int i = 0; i < n; i++) serveEvent(static_cast<Device *>(events[i].data.ptr), events[i].events);
        if (now - lastMisc >= 1000) {
            // Keep-alive pings; and a connection not up within a minute has failed.
            lastMisc = now;
            for (auto &d : devices) {
                if (d->state == State::Connecting && now - d->started > 60000) {
                    fail(d.get());
                } else if (d->state != State::Idle && d->state != State::Failed) {
                    mosquitto_loop_misc(d->mosq);
                    watch(d.get());
                }
            }
        }
    }
    for (auto &d : devices) {
        if (d->state == State::Ready) {
            mosquitto_disconnect(d->mosq);
            mosquitto_loop_write(d->mosq, 1);
        }
        mosquitto_destroy(d->mosq);
    }
    close(floor.epoll);
    mosquitto_lib_cleanup();
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 5) {
        fprintf(stderr,
                "usage: kep_fleet_floor DIR COUNT ANSWER_BYTES WINDOW [--connect-only] [--per-process N]\n");
        return 2;
    }
    const std::string dir = argv[1];
    const int count = atoi(argv[2]), answerBytes = atoi(argv[3]), window = atoi(argv[4]);
    bool connectOnly = false;
    long cap = 0;
    for (int i = 5; i < argc; i++) {
        if (strcmp(argv[i], "--connect-only") == 0)
            connectOnly = true;
        else if (strcmp(argv[i], "--per-process") == 0 && i + 1 < argc)
            cap = atol(argv[++i]);
        else
            cap = -1;
    }
    int port = 0;
    std::ifstream(dir + "/port") >> port;
    if (count < 1 || answerBytes < 1 || window < 1 || port <= 0 || cap < 0) {
        fprintf(stderr, "kep_fleet_floor: bad arguments or no fleet in %s\n", dir.c_str());
        return 2;
    }
    std::ifstream passwords(dir + "/floor.passwords");
    std::vector<std::string> accounts;
    for (std::string line; static_cast<int>(accounts.size()) < count && std::getline(passwords, line);)
        if (line.find(':') != std::string::npos) accounts.push_back(line);
    if (static_cast<int>(accounts.size()) < count) {
        fprintf(stderr, "kep_fleet_floor: %s/floor.passwords has %zu devices, not %d\n", dir.c_str(),
                accounts.size(), count);
        return 2;
    }
    signal(SIGTERM, onSignal);
    signal(SIGINT, onSignal);
    signal(SIGPIPE, SIG_IGN);

    // libmosquitto holds three descriptors a client (its socket and a pair that wakes its
    // loop): as many processes as the descriptor limit asks for, the window shared out.
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    size_t perProcess = files.rlim_cur > 200 ? (files.rlim_cur - 64) / 3 : 40;
    if (cap > 0) perProcess = std::min(perProcess, static_cast<size_t>(cap));
    const size_t processes = (accounts.size() + perProcess - 1) / perProcess;
    if (processes == 1) return serve(accounts, dir, port, answerBytes, window, connectOnly, stdout);

    struct Worker {
        pid_t pid;
        FILE *report;
    };
    std::vector<Worker> workers;
    // The time reported is the whole of it, from before the first process starts: each
    // process times only its own devices.
    const int64_t started = nowMs();
    const size_t share = (accounts.size() + processes - 1) / processes;
    for (size_t first = 0; first < accounts.size(); first += share) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return 1;
        const pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            close(fds[0]);
            const std::vector<std::string> slice(
                accounts.begin() + static_cast<ptrdiff_t>(first),
                accounts.begin() + static_cast<ptrdiff_t>(std::min(first + share, accounts.size())));
            FILE *out = fdopen(fds[1], "w");
            _exit(serve(slice, dir, port, answerBytes, std::max(1, window / static_cast<int>(processes)),
                        connectOnly, out));
        }
        close(fds[1]);
        workers.push_back({pid, fdopen(fds[0], "r")});
    }
    int connected = 0, failed = 0;
    for (Worker &w : workers) {
        int c = 0, f = 0;
        long long m = 0;
        char line[128] = "";
        if (!fgets(line, sizeof line, w.report) ||
            sscanf(line, "connected %d failed %d ms %lld", &c, &f, &m) != 3)
            gStop = 1;
        connected += c, failed += f;
    }
    printf("connected %d failed %d ms %lld\n", connected, failed, static_cast<long long>(nowMs() - started));
    fflush(stdout);
    // Waits for SIGTERM without missing one that comes before the wait.
    sigset_t stop, before;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigprocmask(SIG_BLOCK, &stop, &before);
    while (!gStop && !connectOnly) sigsuspend(&before);
    for (Worker &w : workers) {
        kill(w.pid, SIGTERM);
        waitpid(w.pid, nullptr, 0);
        fclose(w.report);
    }
    return 0;
}
