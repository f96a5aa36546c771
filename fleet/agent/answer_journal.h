// The answers to changing requests (set, add, delete, do) kept in a file, so that a
// request the broker delivers again after the agent restarted (a crash, a power cut)
// is answered again and not applied a second time.
//
// Before a changing request is applied, a record that it was begun reaches the disk;
// its answer is recorded after it. A begun record without an answer means the agent
// stopped in between: the request may have been applied, so it is never applied again
// and is answered with kErrUnknownOutcome instead. One JSON object a line; the file is
// rewritten (atomically) at start and whenever it holds twice the records kept.
#ifndef KEPAGENT_ANSWER_JOURNAL_H
#define KEPAGENT_ANSWER_JOURNAL_H

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <string>

#include "request_limits.h"

namespace kepagent {

class AnswerJournal {
public:
    // Records kept: the newest `capacity`, each for at most maxAgeMs.
    AnswerJournal(size_t capacity, int64_t maxAgeMs) : capacity_(capacity), maxAgeMs_(maxAgeMs) {}
    ~AnswerJournal();
    AnswerJournal(const AnswerJournal &) = delete;
    AnswerJournal &operator=(const AnswerJournal &) = delete;

    // Opens the file (made 0600 when missing) and puts the answers it still keeps into
    // cache (monotonic time nowMono), those begun without an answer as unknownOutcome.
    // false with *error when the file cannot be read or written.
    bool open(const std::string &path, AnswerCache *cache, const std::string &unknownOutcome, int64_t nowMono,
              std::string *error);
    // On disk before the request (named by its requestDigest) is applied: false when it
    // could not be written and synchronised, and the request must not be applied.
    bool begin(const std::string &controller, const std::string &correlation, const std::string &digest);
    // Its answer; not synchronised: a record lost in a power cut leaves the begun one.
    void answered(const std::string &controller, const std::string &correlation, const std::string &digest,
                  const std::string &answer);
    // Records now in the file (for tests).
    size_t lines() const { return lines_; }

    // The most of the file read at start (its end), and the largest answer kept (a larger
    // one is kept as unknownOutcome: applied, but its answer not repeated).
    static constexpr size_t kMaxFile = 32u << 20;
    static constexpr size_t kMaxAnswer = 16u << 10;

private:
    struct Record {
        int64_t at;  // wall-clock milliseconds
        std::string controller, correlation, digest, answer;
        bool answered;
    };
    bool append(const Record &r, bool sync);
    bool rewrite();
    void keep(Record r);

    size_t capacity_;
    int64_t maxAgeMs_;
    std::string path_, unknownOutcome_;
    int fd_ = -1;
    size_t lines_ = 0;
    std::deque<Record> records_;  // oldest first, at most capacity_
};

}  // namespace kepagent

#endif
