#include "log_capture.h"

#include "kep_pf_debug.h"

namespace kep_test {

LogCapture::LogCapture() {
    debugSetSink(&LogCapture::sink, this);
    debugFlagSet(-1, 1);
}

LogCapture::~LogCapture() {
    debugFlagSet(-1, 0);
    debugSetSink(nullptr, nullptr);
}

void LogCapture::sink(int, const char *line, void *user) {
    auto *self = static_cast<LogCapture *>(user);
    std::lock_guard<std::mutex> g(self->lock_);
    self->lines_.emplace_back(line);
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard<std::mutex> g(lock_);
    return lines_;
}

std::vector<std::string> LogCapture::messages() const {
    std::vector<std::string> out;
    for (const std::string &l : lines()) {
        size_t end = l.find("] ");
        out.push_back(end == std::string::npos ? l : l.substr(end + 2));
    }
    return out;
}

bool LogCapture::contains(const std::string &message) const {
    for (const std::string &m : messages()) {
        if (m.find(message) != std::string::npos) return true;
    }
    return false;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> g(lock_);
    lines_.clear();
}

}  // namespace kep_test
