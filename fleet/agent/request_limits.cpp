#include "request_limits.h"

#include <stdio.h>

#include <algorithm>

namespace kepagent {

std::string requestDigest(const std::string &request) {
    uint64_t h = 14695981039346656037ull;
    for (unsigned char c : request) h = (h ^ c) * 1099511628211ull;
    char out[40];
    snprintf(out, sizeof out, "%016llx.%zu", static_cast<unsigned long long>(h), request.size());
    return out;
}

std::string AnswerCache::keyOf(const std::string &controller, const std::string &correlation) {
    // Controller names hold no NUL: the key cannot be made the same by two different pairs.
    return controller + '\0' + correlation;
}

void AnswerCache::expire(int64_t now) {
    while (!order_.empty() && (now - order_.front().first >= maxAgeMs_ || entries_.size() > capacity_)) {
        auto e = entries_.find(order_.front().second);
        // A key stored again has a newer entry in the order: only its own removes it.
        if (e != entries_.end() && e->second.at == order_.front().first) entries_.erase(e);
        order_.pop_front();
    }
}

AnswerCache::Seen AnswerCache::find(const std::string &controller, const std::string &correlation,
                                    const std::string &digest, int64_t now, std::string *answer) {
    expire(now);
    auto e = entries_.find(keyOf(controller, correlation));
    if (e == entries_.end()) return Seen::kNew;
    if (e->second.digest != digest) return Seen::kDifferent;
    *answer = e->second.answer;
    return Seen::kSame;
}

void AnswerCache::store(const std::string &controller, const std::string &correlation,
                        const std::string &digest, const std::string &answer, int64_t at) {
    if (capacity_ == 0) return;
    const std::string key = keyOf(controller, correlation);
    entries_[key] = Entry{digest, answer, at};
    order_.emplace_back(at, key);
    expire(at);
    // Entries stored again leave stale places in the order: keep it bounded too.
    if (order_.size() > 2 * capacity_ + 16) {
        std::deque<std::pair<int64_t, std::string>> live;
        for (const auto &o : order_) {
            auto e = entries_.find(o.second);
            if (e != entries_.end() && e->second.at == o.first) live.push_back(o);
        }
        order_.swap(live);
    }
}

double RateLimit::level(const Bucket &b, int64_t now) const {
    return std::min(burst_, b.tokens + static_cast<double>(now - b.at) * perSecond_ / 1000.0);
}

bool RateLimit::allow(const std::string &controller, int64_t now) {
    auto it = buckets_.find(controller);
    if (it == buckets_.end()) {
        if (buckets_.size() >= maxControllers_) {
            // Forget the controllers whose buckets refilled: they lose nothing by it.
            for (auto b = buckets_.begin(); b != buckets_.end();)
                b = level(b->second, now) >= burst_ ? buckets_.erase(b) : std::next(b);
            // Still full: the fullest one goes, the one closest to a fresh start.
            if (buckets_.size() >= maxControllers_) {
                auto fullest =
                    std::max_element(buckets_.begin(), buckets_.end(), [&](const auto &a, const auto &b) {
                        return level(a.second, now) < level(b.second, now);
                    });
                buckets_.erase(fullest);
            }
        }
        it = buckets_.emplace(controller, Bucket{burst_, now}).first;
    }
    Bucket &b = it->second;
    b.tokens = level(b, now);
    b.at = now;
    if (b.tokens < 1.0) return false;
    b.tokens -= 1.0;
    return true;
}

}  // namespace kepagent
