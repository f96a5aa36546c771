// The agent's bounded memory of who asked what: answers kept for repeated deliveries,
// and the request rate of each controller. Not thread-safe: the agent's one loop uses them.
#ifndef KEPAGENT_REQUEST_LIMITS_H
#define KEPAGENT_REQUEST_LIMITS_H

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <map>
#include <string>

namespace kepagent {

// A request text's fingerprint (64-bit FNV-1a and the length): what the answers kept
// compare instead of the text, which may be up to the size limit.
std::string requestDigest(const std::string &request);

// Answers by (controller, correlation data), so that a request delivered again (QoS 1
// after a lost acknowledgement, or a controller sending again) is answered again
// without being applied again. At most `capacity` entries, each for at most maxAgeMs;
// the oldest go first. Times are monotonic milliseconds.
class AnswerCache {
public:
    AnswerCache(size_t capacity, int64_t maxAgeMs) : capacity_(capacity), maxAgeMs_(maxAgeMs) {}

    enum class Seen { kNew, kSame, kDifferent };
    // Requests are named by their requestDigest. kSame with *answer when this request was
    // answered; kDifferent when the same correlation data came with another request text
    // (nothing is answered from here).
    Seen find(const std::string &controller, const std::string &correlation, const std::string &digest,
              int64_t now, std::string *answer);
    // at: when it was answered, which may be in the past (answers read back from a file).
    void store(const std::string &controller, const std::string &correlation, const std::string &digest,
               const std::string &answer, int64_t at);
    size_t size() const { return entries_.size(); }

private:
    struct Entry {
        std::string digest, answer;
        int64_t at;
    };
    void expire(int64_t now);
    static std::string keyOf(const std::string &controller, const std::string &correlation);

    size_t capacity_;
    int64_t maxAgeMs_;
    std::map<std::string, Entry> entries_;
    std::deque<std::pair<int64_t, std::string>> order_;  // (stored at, key), oldest first
};

// A token bucket per controller: `burst` requests at once, refilled at perSecond.
// Remembers at most maxControllers, forgetting first those whose buckets are full.
class RateLimit {
public:
    RateLimit(double perSecond, double burst, size_t maxControllers = 256)
        : perSecond_(perSecond), burst_(burst), maxControllers_(maxControllers) {}
    // true (and one token taken) when the controller may send a request now.
    bool allow(const std::string &controller, int64_t now);
    size_t size() const { return buckets_.size(); }

private:
    struct Bucket {
        double tokens;
        int64_t at;
    };
    double level(const Bucket &b, int64_t now) const;
    double perSecond_, burst_;
    size_t maxControllers_;
    std::map<std::string, Bucket> buckets_;
};

}  // namespace kepagent

#endif
