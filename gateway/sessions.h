// Logged-in sessions and the count of failed logins, in memory only.
// Not thread-safe: the server holds one lock around each call.
#ifndef KEPWEBD_SESSIONS_H
#define KEPWEBD_SESSIONS_H

#include <stdint.h>

#include <map>
#include <string>
#include <unordered_map>

namespace kepweb {

// Times are milliseconds of the monotonic clock.
struct Session {
    std::string user, role;
    int64_t created = 0, lastActive = 0;
};

class Sessions {
public:
    Sessions(int64_t idleMs, int64_t absoluteMs, size_t perUser)
        : idleMs_(idleMs), absoluteMs_(absoluteMs), perUser_(perUser) {}

    // A new session for the user with a fresh token; "" when the kernel's random
    // source failed. The user's oldest session goes when the user has as many as allowed.
    std::string open(const std::string &user, const std::string &role, int64_t now);
    // The live session of token, or nullptr. A lookup that is no background refresh
    // counts as activity.
    const Session *find(const std::string &token, int64_t now, bool background);
    // Ends the session; false when there was none.
    bool close(const std::string &token);
    // When the session ends unless used again.
    int64_t endsAt(const Session &s) const;
    size_t size() const { return sessions_.size(); }

private:
    void dropExpired(int64_t now);

    int64_t idleMs_, absoluteMs_;
    size_t perUser_;
    std::unordered_map<std::string, Session> sessions_;
    int64_t nextSweep_ = 0;
};

// Failed logins per key (a user name or a client address). After kFree failures each
// further attempt is refused until a wait has passed, which starts at one second and
// doubles with every failure after that, up to five minutes. Counts are forgotten
// after a quiet while and when the table is full, oldest first.
class Throttle {
public:
    static constexpr int kFree = 5;
    static constexpr int64_t kFirstWaitMs = 1000, kMaxWaitMs = 300000, kForgetMs = 900000;
    explicit Throttle(size_t maxKeys = 4096) : maxKeys_(maxKeys) {}

    // Milliseconds until key may try again; 0 when it may now.
    int64_t waitFor(const std::string &key, int64_t now) const;
    void failed(const std::string &key, int64_t now);
    void succeeded(const std::string &key) { entries_.erase(key); }
    size_t size() const { return entries_.size(); }

private:
    struct Entry {
        int failures = 0;
        int64_t last = 0, until = 0;
    };
    size_t maxKeys_;
    std::map<std::string, Entry> entries_;
};

// 128 bits from the kernel's random source as 32 hexadecimal digits; "" on failure.
std::string newToken();

}  // namespace kepweb

#endif
