// Keeps every line of the stand-in host's logs from its construction on.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "standin/logs.h"

namespace catra_test {

class LogRecorder {
public:
    LogRecorder();
    ~LogRecorder();
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    std::vector<standin::LogLine> lines() const;
    // The texts of the lines of one kind, in order.
    std::vector<std::string> texts(standin::LogLine::Kind kind) const;
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<standin::LogLine> lines_;  // guarded by mutex_
    int subscription_;
};

}  // namespace catra_test
