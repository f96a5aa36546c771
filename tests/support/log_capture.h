// Collects the debug lines the library writes while it lives, with every module's
// debug flag switched on.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace kep_test {

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<std::string> lines() const;
    // The message part of each line: what follows the "[...] " prefix.
    std::vector<std::string> messages() const;
    bool contains(const std::string &message) const;
    void clear();

private:
    static void sink(int mid, const char *line, void *user);
    mutable std::mutex lock_;
    std::vector<std::string> lines_;
};

}  // namespace kep_test
