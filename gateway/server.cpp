#include "server.h"

#include <arpa/inet.h>
#include <crypt.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

#include <json-c/json.h>
#include <microhttpd.h>

#include "kep_direct.h"
#include "kep_error_meanings.h"
#include "kep_host.h"
#include "sessions.h"

namespace kepweb {

void audit(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    vsyslog(LOG_AUTHPRIV | LOG_NOTICE, format, ap);
    va_end(ap);
}

namespace {

constexpr size_t kSmallBody = 4096;   // what endpoints other than /api/request take
constexpr int kConcurrentHashes = 2;  // a yescrypt check takes megabytes of memory
constexpr int64_t kDirectRetryMs = 1000;

int64_t monotonicMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// The wall-clock second at which the monotonic moment ms falls.
long long wallSecondsAt(int64_t ms) {
    return static_cast<long long>(time(nullptr)) + (ms - monotonicMs() + 999) / 1000;
}

using Headers = std::vector<std::pair<std::string, std::string>>;

// One HTTP request while it is received.
struct Pending {
    Route route = Route::kStatic;
    std::string allow, addr, body;
    size_t limit = kSmallBody;
    size_t discarded = 0;
    bool tooBig = false;
    bool answered = false;  // a response was queued before the body came
};

}  // namespace

class Server {
public:
    Server(const Config &c, Loaded &&l)
        : config_(c),
          loaded_(std::move(l)),
          sessions_(static_cast<int64_t>(c.idleSeconds) * 1000,
                    static_cast<int64_t>(c.absoluteSeconds) * 1000, static_cast<size_t>(c.sessionsPerUser)) {}
    ~Server() {
        if (daemon_) MHD_stop_daemon(daemon_);
        if (loaded_.webRootFd >= 0) close(loaded_.webRootFd);
    }
    bool start();

private:
    static MHD_Result onRequest(void *cls, MHD_Connection *conn, const char *url, const char *method,
                                const char *version, const char *upload, size_t *uploadSize, void **state);
    static void onCompleted(void *cls, MHD_Connection *conn, void **state, MHD_RequestTerminationCode why);
    static void onLog(void *cls, const char *format, va_list ap);

    MHD_Result first(MHD_Connection *conn, Pending *p, const char *url, const char *method);
    MHD_Result dispatch(MHD_Connection *conn, Pending *p, const char *url);
    MHD_Result login(MHD_Connection *conn, Pending *p);
    MHD_Result logout(MHD_Connection *conn, Pending *p);
    MHD_Result session(MHD_Connection *conn, Pending *p);
    MHD_Result request(MHD_Connection *conn, Pending *p);
    MHD_Result model(MHD_Connection *conn, Pending *p);
    MHD_Result errors(MHD_Connection *conn, Pending *p);
    MHD_Result apply(MHD_Connection *conn, Pending *p);
    MHD_Result changeset(MHD_Connection *conn, Pending *p);
    MHD_Result hostAnswer(MHD_Connection *conn, Pending *p, int rc, char *answer);
    MHD_Result staticFile(MHD_Connection *conn, Pending *p, const char *url);

    MHD_Result send(MHD_Connection *conn, Pending *p, unsigned status, const std::string &body,
                    const char *type, const Headers &extra = {});
    MHD_Result sendError(MHD_Connection *conn, Pending *p, unsigned status, const char *message,
                         const Headers &extra = {});
    MHD_Result sendResponse(MHD_Connection *conn, Pending *p, unsigned status, MHD_Response *r, bool api,
                            const Headers &extra);

    // The session the request's bearer token names, copied; false without a live one.
    bool authorized(MHD_Connection *conn, Session *out, std::string *token);
    bool originAllowed(MHD_Connection *conn, std::string *origin);
    bool verifyPassword(const std::string &password, const std::string &hash);
    int forward(const std::string &user, const std::string &request, bool changes, char **response);

    Config config_;
    Loaded loaded_;
    MHD_Daemon *daemon_ = nullptr;
    std::mutex lock_;  // sessions_ and throttle_
    Sessions sessions_;
    Throttle throttle_;
    std::atomic<bool> direct_{false};  // the direct route is open
    // Its last try, monotonic ms. Guarded by a lock, not atomic: the device's 32-bit
    // MIPS has no 64-bit atomics, and the route is tried only while it is not open.
    std::mutex directLock_;
    int64_t directTried_ = INT64_MIN / 2;
    std::mutex hashLock_;
    std::condition_variable hashFree_;
    int hashing_ = 0;
};

namespace {

std::string clientAddress(MHD_Connection *conn) {
    const MHD_ConnectionInfo *info = MHD_get_connection_info(conn, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    char text[INET6_ADDRSTRLEN] = "?";
    if (info && info->client_addr) {
        const sockaddr *sa = info->client_addr;
        if (sa->sa_family == AF_INET)
            inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(sa)->sin_addr, text, sizeof text);
        else if (sa->sa_family == AF_INET6)
            inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(sa)->sin6_addr, text, sizeof text);
    }
    return text;
}

const char *header(MHD_Connection *conn, const char *name) {
    return MHD_lookup_connection_value(conn, MHD_HEADER_KIND, name);
}

bool isJsonType(const char *type) {
    if (!type) return false;
    const size_t n = strlen("application/json");
    return strncasecmp(type, "application/json", n) == 0 &&
           (type[n] == '\0' || type[n] == ';' || type[n] == ' ');
}

bool needsSession(Route r) {
    return r == Route::kLogout || r == Route::kSession || r == Route::kRequest || r == Route::kModel ||
           r == Route::kErrors || r == Route::kApply || r == Route::kConfirm || r == Route::kCancel ||
           r == Route::kPending;
}

// Compares two texts in a time that depends on their lengths only.
bool sameText(const std::string &a, const std::string &b) {
    unsigned char diff = a.size() != b.size();
    for (size_t i = 0; i < a.size() && i < b.size(); i++) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

std::string jsonError(const char *message) {
    json_object *o = json_object_new_object();
    json_object_object_add(o, "error", json_object_new_string(message));
    std::string text = json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN);
    json_object_put(o);
    return text;
}

std::string joined(const std::vector<std::string> &modules) {
    std::string out;
    for (const std::string &m : modules) out += (out.empty() ? "" : ",") + loggable(m, 31);
    return out.empty() ? "-" : out;
}

// The response's "error_code", for the audit line; "?" when it has none.
std::string errorCodeOf(const char *response) {
    json_object *r = json_tokener_parse(response), *code = nullptr;
    std::string out = "?";
    if (r && json_object_object_get_ex(r, "error_code", &code))
        out = std::to_string(json_object_get_int(code));
    json_object_put(r);
    return out;
}

}  // namespace

bool Server::originAllowed(MHD_Connection *conn, std::string *origin) {
    const char *o = header(conn, "Origin");
    if (!o) return true;  // not sent by a browser on behalf of another page
    *origin = o;
    if (!config_.corsOrigin.empty() && *origin == config_.corsOrigin) return true;
    const char *host = header(conn, "Host");
    const std::string self = std::string(loaded_.cert.empty() ? "http://" : "https://") + (host ? host : "");
    return host && *origin == self;
}

MHD_Result Server::sendResponse(MHD_Connection *conn, Pending *p, unsigned status, MHD_Response *r, bool api,
                                const Headers &extra) {
    if (!r) return MHD_NO;
    MHD_add_response_header(r, "Content-Security-Policy", "default-src 'self'");
    MHD_add_response_header(r, "X-Content-Type-Options", "nosniff");
    MHD_add_response_header(r, "X-Frame-Options", "DENY");
    MHD_add_response_header(r, "Referrer-Policy", "no-referrer");
    if (api) MHD_add_response_header(r, "Cache-Control", "no-store");
    std::string origin;
    if (!config_.corsOrigin.empty() && originAllowed(conn, &origin) && origin == config_.corsOrigin) {
        MHD_add_response_header(r, "Access-Control-Allow-Origin", origin.c_str());
        MHD_add_response_header(r, "Vary", "Origin");
    }
    for (const auto &h : extra) MHD_add_response_header(r, h.first.c_str(), h.second.c_str());
    const MHD_Result rc = MHD_queue_response(conn, status, r);
    MHD_destroy_response(r);
    p->answered = true;
    return rc;
}

MHD_Result Server::send(MHD_Connection *conn, Pending *p, unsigned status, const std::string &body,
                        const char *type, const Headers &extra) {
    MHD_Response *r =
        MHD_create_response_from_buffer(body.size(), const_cast<char *>(body.data()), MHD_RESPMEM_MUST_COPY);
    if (r) MHD_add_response_header(r, "Content-Type", type);
    return sendResponse(conn, p, status, r, p->route != Route::kStatic, extra);
}

MHD_Result Server::sendError(MHD_Connection *conn, Pending *p, unsigned status, const char *message,
                             const Headers &extra) {
    return send(conn, p, status, jsonError(message), "application/json", extra);
}

bool Server::authorized(MHD_Connection *conn, Session *out, std::string *token) {
    const char *auth = header(conn, "Authorization");
    if (!auth || strncmp(auth, "Bearer ", 7) != 0) return false;
    *token = auth + 7;
    const char *bg = header(conn, "X-Kep-Background");
    const bool background = bg && strcmp(bg, "1") == 0;
    std::lock_guard<std::mutex> hold(lock_);
    const Session *s = sessions_.find(*token, monotonicMs(), background);
    if (!s) return false;
    *out = *s;
    return true;
}

bool Server::verifyPassword(const std::string &password, const std::string &hash) {
    {
        // Bounded, not slowed: the wait is for memory, and lasts one hash at most.
        std::unique_lock<std::mutex> hold(hashLock_);
        hashFree_.wait(hold, [this] { return hashing_ < kConcurrentHashes; });
        hashing_++;
    }
    std::unique_ptr<crypt_data> data(new crypt_data());
    const char *out = crypt_rn(password.c_str(), hash.c_str(), data.get(), sizeof *data);
    const bool ok = out && out[0] != '*' && sameText(out, hash);
    {
        std::lock_guard<std::mutex> hold(hashLock_);
        hashing_--;
    }
    hashFree_.notify_one();
    return ok;
}

// Reads are served in this process over the direct route: one hop to the owner instead
// of two, with the host's tree and answers. What changes data goes through the host,
// which orders it with every other client's writes and tells its watchers; reads go
// there too while anybody watches, or while the route cannot be opened (no host yet).
int Server::forward(const std::string &user, const std::string &request, bool changes, char **response) {
    if (changes) return kepHostRequestFor(user.c_str(), request.c_str(), response);
    if (!direct_.load(std::memory_order_acquire)) {
        // One thread tries, at most once a second: a host that is down costs one RPC a second.
        std::unique_lock<std::mutex> hold(directLock_, std::try_to_lock);
        const int64_t now = monotonicMs();
        if (hold.owns_lock() && now - directTried_ >= kDirectRetryMs) {
            directTried_ = now;
            if (kepDirectOpen() == 0) direct_.store(true, std::memory_order_release);
        }
    }
    return kepDirectRequestFor(user.c_str(), request.c_str(), response);
}

MHD_Result Server::first(MHD_Connection *conn, Pending *p, const char *url, const char *method) {
    p->addr = clientAddress(conn);
    p->route = routeOf(method, url, &p->allow);
    p->limit = p->route == Route::kRequest || p->route == Route::kApply ? config_.bodyLimit : kSmallBody;
    if (p->route == Route::kStatic) return MHD_YES;
    std::string origin;
    if (!originAllowed(conn, &origin)) {
        audit("refused: request from origin %s, addr=%s", loggable(origin).c_str(), p->addr.c_str());
        return sendError(conn, p, 403, "cross-origin requests are not allowed");
    }
    if (p->route == Route::kPreflight) {
        if (config_.corsOrigin.empty() || origin != config_.corsOrigin) {
            audit("refused: cross-origin preflight from %s, addr=%s", loggable(origin).c_str(),
                  p->addr.c_str());
            return sendError(conn, p, 403, "cross-origin requests are not allowed");
        }
        return send(conn, p, 204, "", "text/plain",
                    {{"Access-Control-Allow-Methods", "GET, POST"},
                     {"Access-Control-Allow-Headers", "Authorization, Content-Type, X-Kep-Background"},
                     {"Access-Control-Max-Age", "600"}});
    }
    // What can be refused from the head alone is refused before the body is read.
    Session s;
    std::string token;
    if (needsSession(p->route) && !authorized(conn, &s, &token)) {
        audit("refused: no live session, %s %s, addr=%s", loggable(method, 16).c_str(),
              loggable(url, 128).c_str(), p->addr.c_str());
        return sendError(conn, p, 401, "no live session", {{"WWW-Authenticate", "Bearer"}});
    }
    if ((p->route == Route::kLogin || p->route == Route::kRequest || p->route == Route::kApply) &&
        !isJsonType(header(conn, "Content-Type"))) {
        audit("refused: %s %s without a JSON body, addr=%s", loggable(method, 16).c_str(),
              loggable(url, 128).c_str(), p->addr.c_str());
        return sendError(conn, p, 415, "the body must be application/json");
    }
    const char *length = header(conn, "Content-Length");
    if (length && strtoull(length, nullptr, 10) > p->limit) {
        audit("refused: body of %s bytes over the limit, addr=%s", loggable(length, 20).c_str(),
              p->addr.c_str());
        return sendError(conn, p, 413, "the body is too large");
    }
    return MHD_YES;
}

MHD_Result Server::onRequest(void *cls, MHD_Connection *conn, const char *url, const char *method,
                             const char *, const char *upload, size_t *uploadSize, void **state) {
    Server *self = static_cast<Server *>(cls);
    Pending *p = static_cast<Pending *>(*state);
    if (!p) {
        p = new Pending;
        *state = p;
        return self->first(conn, p, url, method);
    }
    if (*uploadSize) {
        if (!p->answered && !p->tooBig && p->body.size() + *uploadSize <= p->limit) {
            p->body.append(upload, *uploadSize);
        } else {
            // Past the limit the rest is read and dropped, so that the client gets its
            // 413; one that keeps sending far beyond is cut off.
            p->tooBig = true;
            p->discarded += *uploadSize;
            if (p->discarded > 4 * p->limit + (1u << 20)) return MHD_NO;
        }
        *uploadSize = 0;
        return MHD_YES;
    }
    if (p->answered) return MHD_YES;
    if (p->tooBig) {
        audit("refused: body over the limit, addr=%s", p->addr.c_str());
        return self->sendError(conn, p, 413, "the body is too large");
    }
    return self->dispatch(conn, p, url);
}

void Server::onCompleted(void *, MHD_Connection *, void **state, MHD_RequestTerminationCode) {
    delete static_cast<Pending *>(*state);
    *state = nullptr;
}

void Server::onLog(void *, const char *format, va_list ap) {
    vsyslog(LOG_DAEMON | LOG_WARNING, format, ap);
}

MHD_Result Server::dispatch(MHD_Connection *conn, Pending *p, const char *url) {
    switch (p->route) {
        case Route::kLogin:
            return login(conn, p);
        case Route::kLogout:
            return logout(conn, p);
        case Route::kSession:
            return session(conn, p);
        case Route::kRequest:
            return request(conn, p);
        case Route::kModel:
            return model(conn, p);
        case Route::kErrors:
            return errors(conn, p);
        case Route::kApply:
            return apply(conn, p);
        case Route::kConfirm:
        case Route::kCancel:
        case Route::kPending:
            return changeset(conn, p);
        case Route::kStatic:
            return staticFile(conn, p, url);
        case Route::kMethodNotAllowed:
            return sendError(conn, p, 405, "method not allowed", {{"Allow", p->allow}});
        case Route::kApiNotFound:
        case Route::kPreflight:
            break;
    }
    return sendError(conn, p, 404, "no such endpoint");
}

MHD_Result Server::login(MHD_Connection *conn, Pending *p) {
    json_object *req = json_tokener_parse(p->body.c_str()), *u = nullptr, *pw = nullptr;
    if (!req || !json_object_object_get_ex(req, "username", &u) ||
        !json_object_is_type(u, json_type_string) || !json_object_object_get_ex(req, "password", &pw) ||
        !json_object_is_type(pw, json_type_string)) {
        json_object_put(req);
        return sendError(conn, p, 400, "the body is {\"username\": ..., \"password\": ...}");
    }
    const std::string name = json_object_get_string(u), password = json_object_get_string(pw);
    json_object_put(req);
    const std::string userKey = "u:" + name, addrKey = "a:" + p->addr;
    int64_t wait;
    {
        std::lock_guard<std::mutex> hold(lock_);
        const int64_t now = monotonicMs();
        wait = std::max(throttle_.waitFor(userKey, now), throttle_.waitFor(addrKey, now));
    }
    if (wait > 0) {
        audit("login refused: too many failures, user=%s addr=%s retry-after=%llds", loggable(name).c_str(),
              p->addr.c_str(), static_cast<long long>((wait + 999) / 1000));
        return sendError(conn, p, 429, "too many failed logins",
                         {{"Retry-After", std::to_string((wait + 999) / 1000)}});
    }
    const User *user = nullptr;
    for (const User &candidate : loaded_.users) {
        if (candidate.name == name) user = &candidate;
    }
    // An unknown name is checked against a hash of the same kind, so that it costs what
    // a wrong password costs.
    const bool ok = verifyPassword(password, user ? user->hash : loaded_.dummyHash) && user;
    if (!ok) {
        {
            std::lock_guard<std::mutex> hold(lock_);
            const int64_t now = monotonicMs();
            throttle_.failed(userKey, now);
            throttle_.failed(addrKey, now);
        }
        audit("login failed: user=%s addr=%s", loggable(name).c_str(), p->addr.c_str());
        return sendError(conn, p, 401, "wrong user name or password");
    }
    std::string token;
    long long expires = 0;
    {
        std::lock_guard<std::mutex> hold(lock_);
        const int64_t now = monotonicMs();
        throttle_.succeeded(userKey);
        token = sessions_.open(user->name, user->role, now);
        if (!token.empty())
            expires = wallSecondsAt(sessions_.endsAt(Session{user->name, user->role, now, now}));
    }
    if (token.empty()) return sendError(conn, p, 503, "no session could be made");
    audit("login: user=%s role=%s addr=%s", user->name.c_str(), user->role.c_str(), p->addr.c_str());
    json_object *o = json_object_new_object();
    json_object_object_add(o, "token", json_object_new_string(token.c_str()));
    json_object_object_add(o, "expires", json_object_new_int64(expires));
    json_object_object_add(o, "role", json_object_new_string(user->role.c_str()));
    std::string body = json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN);
    json_object_put(o);
    return send(conn, p, 200, body, "application/json");
}

MHD_Result Server::logout(MHD_Connection *conn, Pending *p) {
    Session s;
    std::string token;
    if (!authorized(conn, &s, &token)) return sendError(conn, p, 401, "no live session");
    {
        std::lock_guard<std::mutex> hold(lock_);
        sessions_.close(token);
    }
    audit("logout: user=%s addr=%s", s.user.c_str(), p->addr.c_str());
    return send(conn, p, 200, "{}", "application/json");
}

MHD_Result Server::session(MHD_Connection *conn, Pending *p) {
    Session s;
    std::string token;
    if (!authorized(conn, &s, &token)) return sendError(conn, p, 401, "no live session");
    long long expires, absolute;
    {
        std::lock_guard<std::mutex> hold(lock_);
        expires = wallSecondsAt(sessions_.endsAt(s));
        absolute = wallSecondsAt(s.created + static_cast<int64_t>(config_.absoluteSeconds) * 1000);
    }
    json_object *o = json_object_new_object();
    json_object_object_add(o, "username", json_object_new_string(s.user.c_str()));
    json_object_object_add(o, "role", json_object_new_string(s.role.c_str()));
    json_object_object_add(o, "expires", json_object_new_int64(expires));
    json_object_object_add(o, "absolute_expires", json_object_new_int64(absolute));
    json_object_object_add(o, "idle_timeout", json_object_new_int(config_.idleSeconds));
    std::string body = json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN);
    json_object_put(o);
    return send(conn, p, 200, body, "application/json");
}

MHD_Result Server::request(MHD_Connection *conn, Pending *p) {
    Session s;
    std::string token;
    if (!authorized(conn, &s, &token)) return sendError(conn, p, 401, "no live session");
    const Check c = checkRequest(loaded_.rules, s.role, p->body);
    if (c.status == 400) {
        audit("refused: user=%s addr=%s: %s", s.user.c_str(), p->addr.c_str(), c.reason.c_str());
        return sendError(conn, p, 400, c.reason.c_str());
    }
    if (c.status != 200) {
        audit("refused: user=%s addr=%s method=%s modules=%s: %s", s.user.c_str(), p->addr.c_str(),
              c.method.empty() ? "-" : loggable(c.method).c_str(), joined(c.modules).c_str(),
              c.reason.c_str());
        return sendError(conn, p, 403, c.reason.c_str());
    }
    char *response = nullptr;
    const bool changes = permissionOfMethod(c.method) != kRead;
    const int rc = forward(s.user, p->body, changes, &response);
    if (rc != 0 || !response) {
        free(response);
        audit("host unreachable (%d): user=%s addr=%s method=%s modules=%s", rc, s.user.c_str(),
              p->addr.c_str(), c.method.c_str(), joined(c.modules).c_str());
        return sendError(conn, p, 503, "the host cannot be reached");
    }
    if (changes)
        audit("request: user=%s addr=%s method=%s modules=%s error_code=%s", s.user.c_str(), p->addr.c_str(),
              c.method.c_str(), joined(c.modules).c_str(), errorCodeOf(response).c_str());
    MHD_Response *r = MHD_create_response_from_buffer(strlen(response), response, MHD_RESPMEM_MUST_FREE);
    if (!r) free(response);
    if (r) MHD_add_response_header(r, "Content-Type", "application/json");
    return sendResponse(conn, p, 200, r, true, {});
}

MHD_Result Server::model(MHD_Connection *conn, Pending *p) {
    Session s;
    std::string token;
    if (!authorized(conn, &s, &token)) return sendError(conn, p, 401, "no live session");
    char *tree = nullptr;
    const int rc = kepHostFetch("kepd.tree", &tree);
    const std::string view = rc == 0 && tree ? modelView(loaded_.rules, s.role, tree) : "";
    free(tree);
    if (view.empty()) return sendError(conn, p, 503, "the host cannot be reached");
    return send(conn, p, 200, view, "application/json");
}

// The host's answer to a change-set call, as it stands: 200 with it, 503 without one.
MHD_Result Server::hostAnswer(MHD_Connection *conn, Pending *p, int rc, char *answer) {
    if (rc != 0 || !answer) {
        free(answer);
        return sendError(conn, p, 503, "the host cannot be reached");
    }
    MHD_Response *r = MHD_create_response_from_buffer(strlen(answer), answer, MHD_RESPMEM_MUST_FREE);
    if (!r) free(answer);
    if (r) MHD_add_response_header(r, "Content-Type", "application/json");
    return sendResponse(conn, p, 200, r, true, {});
}

// A change set, applied by the host as one: under the rules of /api/request, every
// module it names writable. Whose it is goes with it, so that only that user confirms.
MHD_Result Server::apply(MHD_Connection *conn, Pending *p) {
    Session s;
    std::string token, changes;
    int confirm = 0;
    if (!authorized(conn, &s, &token)) return sendError(conn, p, 401, "no live session");
    const Check c = checkChangeSet(loaded_.rules, s.role, p->body, &changes, &confirm);
    if (c.status != 200) {
        audit("refused: user=%s addr=%s apply modules=%s: %s", s.user.c_str(), p->addr.c_str(),
              joined(c.modules).c_str(), c.reason.c_str());
        return sendError(conn, p, c.status, c.reason.c_str());
    }
    char *answer = nullptr;
    const int rc = kepHostApply(s.user.c_str(), changes.c_str(), confirm, &answer);
    audit("apply: user=%s addr=%s modules=%s confirm=%ds error_code=%s", s.user.c_str(), p->addr.c_str(),
          joined(c.modules).c_str(), confirm,
          rc == 0 && answer ? errorCodeOf(answer).c_str() : "unreachable");
    return hostAnswer(conn, p, rc, answer);
}

// Confirm, cancel and the pending change set: the host checks whose it is.
MHD_Result Server::changeset(MHD_Connection *conn, Pending *p) {
    Session s;
    std::string token;
    if (!authorized(conn, &s, &token)) return sendError(conn, p, 401, "no live session");
    const char *handler = p->route == Route::kConfirm  ? "kepd.confirm"
                          : p->route == Route::kCancel ? "kepd.cancel"
                                                       : "kepd.pending";
    char *answer = nullptr;
    const int rc = kepHostChangeset(handler, s.user.c_str(), &answer);
    if (p->route == Route::kPending && rc == 0 && answer) {
        // Every user sees that a change set is pending, but only the modules it may read.
        const std::string view = pendingView(loaded_.rules, s.role, answer);
        free(answer);
        return send(conn, p, 200, view, "application/json");
    }
    if (p->route != Route::kPending)
        audit("%s: user=%s addr=%s error_code=%s", handler + 5, s.user.c_str(), p->addr.c_str(),
              rc == 0 && answer ? errorCodeOf(answer).c_str() : "unreachable");
    return hostAnswer(conn, p, rc, answer);
}

// The words kepctl prints for each "error_code", so that the page tells the same.
MHD_Result Server::errors(MHD_Connection *conn, Pending *p) {
    Session s;
    std::string token;
    if (!authorized(conn, &s, &token)) return sendError(conn, p, 401, "no live session");
    json_object *o = json_object_new_object(), *codes = json_object_new_object();
#define ADD_MEANING(code, text) \
    json_object_object_add(codes, std::to_string(code).c_str(), json_object_new_string(text));
    KEP_ERROR_MEANINGS(ADD_MEANING)
#undef ADD_MEANING
    json_object_object_add(o, "codes", codes);
    json_object_object_add(o, "other", json_object_new_string(KEP_ERROR_MEANING_OTHER));
    std::string body = json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN);
    json_object_put(o);
    return send(conn, p, 200, body, "application/json");
}

MHD_Result Server::staticFile(MHD_Connection *conn, Pending *p, const char *url) {
    std::vector<std::string> parts;
    if (!staticPath(url, &parts)) {
        audit("refused: static path %s, addr=%s", loggable(url, 128).c_str(), p->addr.c_str());
        return send(conn, p, 404, "not found\n", "text/plain; charset=utf-8");
    }
    // Walked one name at a time from the web root, following no symbolic link: nothing
    // outside the root, and nothing a link inside it points at, is ever opened.
    int fd = dup(loaded_.webRootFd);
    bool link = false;
    for (size_t i = 0; fd >= 0 && i < parts.size(); i++) {
        const bool last = i + 1 == parts.size();
        const int next = openat(fd, parts[i].c_str(),
                                O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | (last ? 0 : O_DIRECTORY));
        if (next < 0 && (errno == ELOOP || errno == ENOTDIR)) link = true;
        close(fd);
        fd = next;
    }
    struct stat st;
    if (fd >= 0 && fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        // A folder is served by its index page, never listed.
        const int index = openat(fd, "index.html", O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        close(fd);
        fd = index;
        parts.push_back("index.html");
    }
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        if (fd >= 0) close(fd);
        if (link)
            audit("refused: static path %s is a symbolic link, addr=%s", loggable(url, 128).c_str(),
                  p->addr.c_str());
        return send(conn, p, 404, "not found\n", "text/plain; charset=utf-8");
    }
    MHD_Response *r = MHD_create_response_from_fd(static_cast<uint64_t>(st.st_size), fd);
    if (!r) {
        close(fd);
        return MHD_NO;
    }
    MHD_add_response_header(r, "Content-Type", contentTypeOf(parts.back()));
    return sendResponse(conn, p, 200, r, false, {});
}

bool Server::start() {
    unsigned flags =
        MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_AUTO | MHD_USE_ERROR_LOG;
    if (!loaded_.cert.empty()) flags |= MHD_USE_TLS;
    MHD_OptionItem tls[3] = {
        {MHD_OPTION_END, 0, nullptr}, {MHD_OPTION_END, 0, nullptr}, {MHD_OPTION_END, 0, nullptr}};
    if (!loaded_.cert.empty()) {
        tls[0] = {MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char *>(loaded_.cert.c_str())};
        tls[1] = {MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char *>(loaded_.key.c_str())};
    }
    daemon_ = MHD_start_daemon(
        flags, 0, nullptr, nullptr, &Server::onRequest, this, MHD_OPTION_EXTERNAL_LOGGER, &Server::onLog,
        this, MHD_OPTION_LISTEN_SOCKET, loaded_.listenFd, MHD_OPTION_CONNECTION_LIMIT, config_.maxConnections,
        MHD_OPTION_PER_IP_CONNECTION_LIMIT, config_.perAddress, MHD_OPTION_CONNECTION_TIMEOUT,
        config_.timeoutSeconds, MHD_OPTION_CONNECTION_MEMORY_LIMIT, config_.connectionMemory,
        MHD_OPTION_THREAD_STACK_SIZE, static_cast<size_t>(512 * 1024), MHD_OPTION_NOTIFY_COMPLETED,
        &Server::onCompleted, this, MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_ARRAY, tls, MHD_OPTION_END);
    if (!daemon_) return false;
    // Taken now rather than by the first read; without a host yet, by a later one.
    {
        std::lock_guard<std::mutex> hold(directLock_);
        directTried_ = monotonicMs();
        direct_.store(kepDirectOpen() == 0);
    }
    return true;
}

bool tlsAvailable() {
    return MHD_is_feature_supported(MHD_FEATURE_TLS) == MHD_YES;
}

Server *startServer(const Config &config, Loaded &&loaded) {
    Server *s = new Server(config, std::move(loaded));
    if (!s->start()) {
        fprintf(stderr, "kepwebd: the HTTP server did not start\n");
        delete s;
        return nullptr;
    }
    return s;
}

void stopServer(Server *server) {
    delete server;
}

}  // namespace kepweb
