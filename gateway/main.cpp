// kepwebd: the HTTP gateway to the host. Logs users in, keeps their sessions, checks
// each request against the user's rules and hands what passes on: reads to the owners
// over the direct route, everything else to the host.
#include <crypt.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <grp.h>
#include <limits.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "server.h"

using namespace kepweb;

namespace {

void usage(FILE *to) {
    fprintf(to,
            "usage: kepwebd -l ADDR:PORT -u USERS-FILE -r RULES-FILE -w WEB-ROOT [options]\n"
            "       kepwebd --hash [sha512]   reads a password on standard input, prints its hash\n"
            "  -l ADDR:PORT   where to listen ([ADDR]:PORT for IPv6; port 0: any free one)\n"
            "  -u FILE        users, one name:crypt-hash:role a line\n"
            "  -r FILE        rules (JSON): per role, per module or \"*\", of \"read\", \"write\", \"exec\"\n"
            "  -w DIR         web root: the static files served for every path outside /api/\n"
            "  -c CERT -k KEY serve HTTPS with this certificate and key (PEM)\n"
            "  -U USER        the user to run as after binding (required when started as root)\n"
            "  -f             stay in the foreground; the audit log goes to standard error too\n"
            "  -o ORIGIN      the one other origin whose pages may call the API (CORS)\n"
            "  -i SECONDS     idle time-out of a session (300)\n"
            "  -a SECONDS     absolute limit of a session (43200)\n"
            "  -s N           sessions per user (8; a new login ends the oldest)\n"
            "  -b BYTES       body limit of /api/request (65536)\n"
            "  -C N           connections at once (64)     -P N  per client address (16)\n"
            "  -t SECONDS     time-out of a connection that sends nothing (10)\n");
}

bool readFile(const char *path, std::string *text, size_t limit) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buf[8192];
    ssize_t n;
    text->clear();
    while ((n = read(fd, buf, sizeof buf)) > 0 && text->size() <= limit)
        text->append(buf, static_cast<size_t>(n));
    close(fd);
    return n == 0 && text->size() <= limit;
}

bool number(const char *text, long min, long max, long *out) {
    char *end = nullptr;
    errno = 0;
    const long n = strtol(text, &end, 10);
    if (errno || end == text || *end || n < min || n > max) return false;
    *out = n;
    return true;
}

int hashPassword(const char *kind) {
    const char *prefix = kind && !strcmp(kind, "sha512") ? "$6$" : "$y$";
    if (kind && strcmp(kind, "sha512") && strcmp(kind, "yescrypt")) {
        fprintf(stderr, "kepwebd: --hash takes yescrypt (the default) or sha512\n");
        return 2;
    }
    termios saved;
    const bool tty = isatty(0) && tcgetattr(0, &saved) == 0;
    if (tty) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(0, TCSAFLUSH, &quiet);
        fprintf(stderr, "password: ");
    }
    char line[1024];
    const bool got = fgets(line, sizeof line, stdin) != nullptr;
    if (tty) {
        tcsetattr(0, TCSAFLUSH, &saved);
        fprintf(stderr, "\n");
    }
    if (!got) {
        fprintf(stderr, "kepwebd: no password on standard input\n");
        return 1;
    }
    line[strcspn(line, "\r\n")] = '\0';
    if (!line[0]) {
        fprintf(stderr, "kepwebd: the password is empty\n");
        return 1;
    }
    char salt[CRYPT_GENSALT_OUTPUT_SIZE];
    crypt_data data{};
    const char *hash = crypt_gensalt_rn(prefix, 0, nullptr, 0, salt, sizeof salt)
                           ? crypt_rn(line, salt, &data, sizeof data)
                           : nullptr;
    explicit_bzero(line, sizeof line);
    if (!hash || hash[0] == '*') {
        fprintf(stderr, "kepwebd: crypt(3) made no hash\n");
        return 1;
    }
    printf("%s\n", hash);
    return 0;
}

// A listening TCP socket on ADDR:PORT; -1 after saying why.
int bindListen(const std::string &where) {
    std::string host, port;
    if (!where.empty() && where[0] == '[') {
        const size_t close = where.find("]:");
        if (close != std::string::npos) {
            host = where.substr(1, close - 1);
            port = where.substr(close + 2);
        }
    } else {
        const size_t colon = where.rfind(':');
        if (colon != std::string::npos) {
            host = where.substr(0, colon);
            port = where.substr(colon + 1);
        }
    }
    addrinfo hints{}, *found = nullptr;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    if (host.empty() || port.empty() || getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) {
        fprintf(stderr, "kepwebd: -l %s: not ADDR:PORT with a numeric address\n", where.c_str());
        return -1;
    }
    const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (fd >= 0 && found->ai_family == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
    if (fd < 0 || bind(fd, found->ai_addr, found->ai_addrlen) != 0 || listen(fd, 64) != 0) {
        fprintf(stderr, "kepwebd: cannot listen on %s: %s\n", where.c_str(), strerror(errno));
        if (fd >= 0) close(fd);
        freeaddrinfo(found);
        return -1;
    }
    freeaddrinfo(found);
    sockaddr_storage bound{};
    socklen_t len = sizeof bound;
    char name[NI_MAXHOST] = "?", service[NI_MAXSERV] = "?";
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&bound), &len) == 0)
        getnameinfo(reinterpret_cast<sockaddr *>(&bound), len, name, sizeof name, service, sizeof service,
                    NI_NUMERICHOST | NI_NUMERICSERV);
    fprintf(stderr, "kepwebd: listening on %s%s%s:%s\n", strchr(name, ':') ? "[" : "", name,
            strchr(name, ':') ? "]" : "", service);
    return fd;
}

// Gives up root for good: the user's groups, then the user.
bool dropPrivileges(const std::string &user) {
    if (geteuid() != 0) {
        if (user.empty()) return true;
        passwd *pw = getpwnam(user.c_str());
        if (pw && pw->pw_uid == geteuid()) return true;
        fprintf(stderr, "kepwebd: -U %s: only root can change to another user\n", user.c_str());
        return false;
    }
    if (user.empty()) {
        fprintf(stderr, "kepwebd: started as root: name the user to run as with -U\n");
        return false;
    }
    passwd *pw = getpwnam(user.c_str());
    if (!pw || pw->pw_uid == 0) {
        fprintf(stderr, "kepwebd: -U %s: %s\n", user.c_str(), pw ? "that is root" : "no such user");
        return false;
    }
    if (initgroups(pw->pw_name, pw->pw_gid) != 0 || setgid(pw->pw_gid) != 0 || setuid(pw->pw_uid) != 0 ||
        setuid(0) == 0) {
        fprintf(stderr, "kepwebd: cannot become %s: %s\n", user.c_str(), strerror(errno));
        return false;
    }
    return true;
}

bool load(const Config &c, Loaded *l) {
    std::string text, error;
    if (!readFile(c.rulesFile.c_str(), &text, 1 << 20)) {
        fprintf(stderr, "kepwebd: rules file %s: %s\n", c.rulesFile.c_str(),
                errno ? strerror(errno) : "too large");
        return false;
    }
    if (!parseRules(text, &l->rules, &error)) {
        fprintf(stderr, "kepwebd: rules file %s: %s\n", c.rulesFile.c_str(), error.c_str());
        return false;
    }
    if (!readFile(c.usersFile.c_str(), &text, 1 << 20)) {
        fprintf(stderr, "kepwebd: users file %s: %s\n", c.usersFile.c_str(),
                errno ? strerror(errno) : "too large");
        return false;
    }
    if (!parseUsers(text, l->rules, &l->users, &error)) {
        fprintf(stderr, "kepwebd: users file %s: %s\n", c.usersFile.c_str(), error.c_str());
        return false;
    }
    for (const User &u : l->users) {
        const int kind = crypt_checksalt(u.hash.c_str());
        if (kind == CRYPT_SALT_INVALID || kind == CRYPT_SALT_METHOD_DISABLED ||
            kind == CRYPT_SALT_METHOD_LEGACY) {
            fprintf(stderr, "kepwebd: users file %s: line %d: user %s: %s hash (kepwebd --hash makes one)\n",
                    c.usersFile.c_str(), u.line, u.name.c_str(),
                    kind == CRYPT_SALT_METHOD_LEGACY ? "a weak" : "not a usable");
            return false;
        }
    }
    // The hash an unknown name is checked against: of the first user's kind and cost.
    char random[24], salt[CRYPT_GENSALT_OUTPUT_SIZE];
    if (getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) return false;
    for (char &ch : random) ch = static_cast<char>('a' + (static_cast<unsigned char>(ch) % 26));
    random[sizeof random - 1] = '\0';
    crypt_data data{};
    const char *setting = l->users.empty() ? crypt_gensalt_rn("$y$", 0, nullptr, 0, salt, sizeof salt)
                                           : l->users[0].hash.c_str();
    const char *dummy = setting ? crypt_rn(random, setting, &data, sizeof data) : nullptr;
    if (!dummy || dummy[0] == '*') {
        fprintf(stderr, "kepwebd: crypt(3) made no hash\n");
        return false;
    }
    l->dummyHash = dummy;
    l->webRootFd = open(c.webRoot.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (l->webRootFd < 0) {
        fprintf(stderr, "kepwebd: web root %s: %s\n", c.webRoot.c_str(), strerror(errno));
        return false;
    }
    if (!c.certFile.empty() && (!readFile(c.certFile.c_str(), &l->cert, 1 << 20) ||
                                !readFile(c.keyFile.c_str(), &l->key, 1 << 20))) {
        fprintf(stderr, "kepwebd: certificate %s or key %s cannot be read\n", c.certFile.c_str(),
                c.keyFile.c_str());
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc >= 2 && !strcmp(argv[1], "--hash"))
        return argc <= 3 ? hashPassword(argc == 3 ? argv[2] : nullptr) : 2;
    if (argc >= 2 && !strcmp(argv[1], "--help")) {
        usage(stdout);
        return 0;
    }
    Config c;
    long n;
    int opt;
    while ((opt = getopt(argc, argv, "l:u:r:w:c:k:U:fo:i:a:s:b:C:P:t:h")) != -1) {
        bool ok = true;
        switch (opt) {
            case 'l':
                c.listen = optarg;
                break;
            case 'u':
                c.usersFile = optarg;
                break;
            case 'r':
                c.rulesFile = optarg;
                break;
            case 'w':
                c.webRoot = optarg;
                break;
            case 'c':
                c.certFile = optarg;
                break;
            case 'k':
                c.keyFile = optarg;
                break;
            case 'U':
                c.runAs = optarg;
                break;
            case 'f':
                c.foreground = true;
                break;
            case 'o':
                c.corsOrigin = optarg;
                break;
            case 'i':
                ok = number(optarg, 1, 86400, &n) && (c.idleSeconds = static_cast<int>(n));
                break;
            case 'a':
                ok = number(optarg, 1, 7 * 86400, &n) && (c.absoluteSeconds = static_cast<int>(n));
                break;
            case 's':
                ok = number(optarg, 1, 1000, &n) && (c.sessionsPerUser = static_cast<int>(n));
                break;
            case 'b':
                ok = number(optarg, 1024, 16 << 20, &n) && (c.bodyLimit = static_cast<size_t>(n));
                break;
            case 'C':
                ok = number(optarg, 1, 4096, &n) && (c.maxConnections = static_cast<unsigned>(n));
                break;
            case 'P':
                ok = number(optarg, 1, 4096, &n) && (c.perAddress = static_cast<unsigned>(n));
                break;
            case 't':
                ok = number(optarg, 1, 3600, &n) && (c.timeoutSeconds = static_cast<unsigned>(n));
                break;
            case 'h':
                usage(stdout);
                return 0;
            default:
                usage(stderr);
                return 2;
        }
        if (!ok) {
            fprintf(stderr, "kepwebd: -%c %s: out of range\n", opt, optarg);
            return 2;
        }
    }
    if (optind != argc || c.listen.empty() || c.usersFile.empty() || c.rulesFile.empty() ||
        c.webRoot.empty() || c.certFile.empty() != c.keyFile.empty()) {
        usage(stderr);
        return 2;
    }
    if (!c.certFile.empty() && !tlsAvailable()) {
        fprintf(stderr, "kepwebd: -c: this build of libmicrohttpd has no TLS\n");
        return 1;
    }
    signal(SIGPIPE, SIG_IGN);
    openlog("kepwebd", LOG_PID | (c.foreground ? LOG_PERROR : 0), LOG_AUTHPRIV);
    Loaded l;
    if (!load(c, &l)) return 1;
    l.listenFd = bindListen(c.listen);
    if (l.listenFd < 0 || !dropPrivileges(c.runAs)) return 1;
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (!c.foreground && daemon(0, 0) != 0) {
        fprintf(stderr, "kepwebd: cannot go to the background: %s\n", strerror(errno));
        return 1;
    }
    // The threads the server starts inherit the blocked signals; this one waits for them.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    const size_t users = l.users.size();
    Server *server = startServer(c, std::move(l));
    if (!server) return 1;
    syslog(LOG_DAEMON | LOG_INFO, "serving with %zu users as uid %u%s", users,
           static_cast<unsigned>(getuid()), c.certFile.empty() ? "" : " over HTTPS");
    int sig = 0;
    sigwait(&stop, &sig);
    stopServer(server);
    return 0;
}
