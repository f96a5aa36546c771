#include "sessions.h"

#include <errno.h>
#include <sys/random.h>

#include <vector>

namespace kepweb {

std::string newToken() {
    unsigned char bytes[16];
    size_t got = 0;
    while (got < sizeof bytes) {
        const ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return "";
        got += static_cast<size_t>(n);
    }
    static const char kHex[] = "0123456789abcdef";
    std::string token;
    for (unsigned char b : bytes) {
        token += kHex[b >> 4];
        token += kHex[b & 15];
    }
    return token;
}

int64_t Sessions::endsAt(const Session &s) const {
    const int64_t idle = s.lastActive + idleMs_, absolute = s.created + absoluteMs_;
    return idle < absolute ? idle : absolute;
}

void Sessions::dropExpired(int64_t now) {
    // Expired sessions are dropped as they are looked up, and all of them once a
    // second, so that a session nobody asks for again does not stay.
    if (now < nextSweep_) return;
    nextSweep_ = now + 1000;
    for (auto it = sessions_.begin(); it != sessions_.end();) {
        it = endsAt(it->second) <= now ? sessions_.erase(it) : std::next(it);
    }
}

std::string Sessions::open(const std::string &user, const std::string &role, int64_t now) {
    dropExpired(now);
    std::vector<decltype(sessions_)::iterator> mine;
    for (auto it = sessions_.begin(); it != sessions_.end(); ++it) {
        if (it->second.user == user) mine.push_back(it);
    }
    while (!mine.empty() && mine.size() >= perUser_) {
        auto oldest = mine.begin();
        for (auto it = mine.begin(); it != mine.end(); ++it) {
            if ((*it)->second.created < (*oldest)->second.created) oldest = it;
        }
        sessions_.erase(*oldest);
        mine.erase(oldest);
    }
    std::string token = newToken();
    if (token.empty() || sessions_.count(token)) return "";
    sessions_[token] = Session{user, role, now, now};
    return token;
}

const Session *Sessions::find(const std::string &token, int64_t now, bool background) {
    dropExpired(now);
    auto it = sessions_.find(token);
    if (it == sessions_.end()) return nullptr;
    if (endsAt(it->second) <= now) {
        sessions_.erase(it);
        return nullptr;
    }
    if (!background) it->second.lastActive = now;
    return &it->second;
}

bool Sessions::close(const std::string &token) {
    return sessions_.erase(token) != 0;
}

int64_t Throttle::waitFor(const std::string &key, int64_t now) const {
    auto it = entries_.find(key);
    if (it == entries_.end() || it->second.until <= now) return 0;
    return it->second.until - now;
}

void Throttle::failed(const std::string &key, int64_t now) {
    auto it = entries_.find(key);
    if (it == entries_.end()) {
        if (entries_.size() >= maxKeys_) {
            // Full: forget the quiet ones, else the one that failed longest ago.
            auto oldest = entries_.end();
            for (auto e = entries_.begin(); e != entries_.end();) {
                if (now - e->second.last > kForgetMs && e->second.until <= now) {
                    e = entries_.erase(e);
                    continue;
                }
                if (oldest == entries_.end() || e->second.last < oldest->second.last) oldest = e;
                ++e;
            }
            if (entries_.size() >= maxKeys_ && oldest != entries_.end()) entries_.erase(oldest);
        }
        it = entries_.emplace(key, Entry{}).first;
    } else if (now - it->second.last > kForgetMs && it->second.until <= now) {
        it->second = Entry{};
    }
    Entry &e = it->second;
    e.failures++;
    e.last = now;
    if (e.failures >= kFree) {
        int64_t wait = kFirstWaitMs;
        for (int i = kFree; i < e.failures && wait < kMaxWaitMs; i++) wait *= 2;
        e.until = now + (wait < kMaxWaitMs ? wait : kMaxWaitMs);
    }
}

}  // namespace kepweb
