#include "answer_journal.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <vector>

#include <json-c/json.h>

namespace kepagent {
namespace {

int64_t wallMs() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::string hex(const std::string &bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) out += digits[c >> 4], out += digits[c & 15];
    return out;
}

bool unhex(const std::string &text, std::string *out) {
    if (text.size() % 2) return false;
    out->clear();
    for (size_t i = 0; i < text.size(); i += 2) {
        const char pair[3] = {text[i], text[i + 1], 0};
        char *end = nullptr;
        const long v = strtol(pair, &end, 16);
        if (*end || !isxdigit(static_cast<unsigned char>(pair[0]))) return false;
        *out += static_cast<char>(v);
    }
    return true;
}

bool writeAll(int fd, const std::string &text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

const char *text(json_object *o, const char *key) {
    json_object *v = nullptr;
    return json_object_object_get_ex(o, key, &v) && json_object_is_type(v, json_type_string)
               ? json_object_get_string(v)
               : nullptr;
}

// The folder of a path, for synchronising a rename in it.
std::string folderOf(const std::string &path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

AnswerJournal::~AnswerJournal() {
    if (fd_ >= 0) close(fd_);
}

bool AnswerJournal::open(const std::string &path, AnswerCache *cache, const std::string &unknownOutcome,
                         int64_t nowMono, std::string *error) {
    path_ = path;
    unknownOutcome_ = unknownOutcome;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        *error = path + ": " + (fd < 0 ? strerror(errno) : "not a regular file");
        if (fd >= 0) close(fd);
        return false;
    }
    // Larger than it should grow (many large answers kept): its newest records are read,
    // from the first whole line of its last kMaxFile bytes.
    const size_t size = static_cast<size_t>(st.st_size), skip = size > kMaxFile ? size - kMaxFile : 0;
    if (skip) {
        fprintf(stderr, "kepagent: %s: %zu bytes, only the last %zu are read\n", path.c_str(), size,
                kMaxFile);
        lseek(fd, static_cast<off_t>(skip), SEEK_SET);
    }
    std::string all(size - skip, '\0');
    size_t got = 0;
    while (got < all.size()) {
        const ssize_t n = read(fd, &all[got], all.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    close(fd);
    all.resize(got);
    if (skip) {
        const size_t firstEnd = all.find('\n');
        all.erase(0, firstEnd == std::string::npos ? std::string::npos : firstEnd + 1);
    }

    // The last record of each request wins; a line cut short by a power cut is skipped.
    const int64_t now = wallMs();
    std::map<std::string, Record> latest;
    for (size_t at = 0; at < all.size();) {
        size_t end = all.find('\n', at);
        if (end == std::string::npos) end = all.size();
        json_object *o = json_tokener_parse(all.substr(at, end - at).c_str());
        at = end + 1;
        json_object *when = nullptr;
        const char *controller = text(o, "controller"), *correlation = text(o, "correlation"),
                   *digest = text(o, "request"), *answer = text(o, "answer");
        Record r{0,
                 controller ? controller : "",
                 "",
                 digest ? digest : "",
                 answer ? answer : "",
                 answer != nullptr};
        const bool whole = controller && correlation && digest && json_object_object_get_ex(o, "at", &when) &&
                           unhex(correlation, &r.correlation) && !r.controller.empty() &&
                           !r.correlation.empty();
        if (whole) r.at = json_object_get_int64(when);
        json_object_put(o);
        // A clock set back makes a record look newer than it is: it is kept as of now.
        if (!whole || now - r.at >= maxAgeMs_) continue;
        r.at = std::min(r.at, now);
        latest[r.controller + '\0' + r.correlation] = std::move(r);
    }
    std::vector<Record> kept;
    for (auto &l : latest) kept.push_back(std::move(l.second));
    std::stable_sort(kept.begin(), kept.end(), [](const Record &a, const Record &b) { return a.at < b.at; });
    for (Record &r : kept) {
        cache->store(r.controller, r.correlation, r.digest, r.answered ? r.answer : unknownOutcome_,
                     nowMono - (now - r.at));
        keep(std::move(r));
    }
    // Rewritten at once: records past their age go, and a line cut short is not left
    // for the next record to be appended to.
    if (!rewrite()) {
        *error = path + ": cannot be rewritten: " + strerror(errno);
        return false;
    }
    return true;
}

void AnswerJournal::keep(Record r) {
    // A request answered after its begun record replaces that record.
    if (!records_.empty() && records_.back().controller == r.controller &&
        records_.back().correlation == r.correlation)
        records_.pop_back();
    records_.push_back(std::move(r));
    while (records_.size() > capacity_) records_.pop_front();
}

bool AnswerJournal::append(const Record &r, bool sync) {
    json_object *o = json_object_new_object();
    json_object_object_add(o, "at", json_object_new_int64(r.at));
    json_object_object_add(o, "controller", json_object_new_string(r.controller.c_str()));
    json_object_object_add(o, "correlation", json_object_new_string(hex(r.correlation).c_str()));
    json_object_object_add(o, "request", json_object_new_string(r.digest.c_str()));
    if (r.answered)
        json_object_object_add(
            o, "answer", json_object_new_string_len(r.answer.data(), static_cast<int>(r.answer.size())));
    const std::string line = std::string(json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN)) + "\n";
    json_object_put(o);
    if (fd_ < 0 || !writeAll(fd_, line) || (sync && fdatasync(fd_) != 0)) return false;
    lines_++;
    return true;
}

bool AnswerJournal::rewrite() {
    const std::string next = path_ + ".new";
    // Made anew, never opened through a name someone else left there (a link to another file).
    unlink(next.c_str());
    const int fd =
        ::open(next.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    const int old = fd_;
    fd_ = fd;
    lines_ = 0;
    bool ok = true;
    for (const Record &r : records_) ok = ok && append(r, false);
    if (ok && fsync(fd) == 0 && rename(next.c_str(), path_.c_str()) == 0) {
        // The rename itself reaches the disk with its folder.
        const int dir = ::open(folderOf(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dir >= 0) fsync(dir), close(dir);
        if (old >= 0) close(old);
        return true;
    }
    const int saved = errno;
    close(fd);
    unlink(next.c_str());
    fd_ = old;
    lines_ = records_.size();  // about: only decides when the next rewrite is tried
    errno = saved;
    return false;
}

bool AnswerJournal::begin(const std::string &controller, const std::string &correlation,
                          const std::string &digest) {
    Record r{wallMs(), controller, correlation, digest, "", false};
    if (!append(r, true)) return false;
    keep(std::move(r));
    return true;
}

void AnswerJournal::answered(const std::string &controller, const std::string &correlation,
                             const std::string &digest, const std::string &answer) {
    Record r{wallMs(), controller, correlation, digest, "", false};
    if (answer.size() <= kMaxAnswer) r.answer = answer, r.answered = true;
    if (!append(r, false))
        fprintf(stderr, "kepagent: %s: answer not recorded: %s\n", path_.c_str(), strerror(errno));
    keep(std::move(r));
    if (lines_ > 2 * capacity_ + 16 && !rewrite())
        fprintf(stderr, "kepagent: %s: cannot be rewritten: %s\n", path_.c_str(), strerror(errno));
}

}  // namespace kepagent
