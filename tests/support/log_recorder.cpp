#include "log_recorder.h"

namespace catra_test {

// Once unsubscribe has returned, the host calls the observer no more.
LogRecorder::LogRecorder()
    : subscription_(standin::Logs::instance().subscribe([this](const standin::LogLine& line) {
          std::lock_guard<std::mutex> lock(mutex_);
          lines_.push_back(line);
      }))
{
}

LogRecorder::~LogRecorder()
{
    standin::Logs::instance().unsubscribe(subscription_);
}

std::vector<standin::LogLine> LogRecorder::lines() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

std::vector<std::string> LogRecorder::texts(standin::LogLine::Kind kind) const
{
    std::vector<std::string> texts;
    for (const standin::LogLine& line : lines())
        if (line.kind == kind)
            texts.push_back(line.text);
    return texts;
}

void LogRecorder::clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

}  // namespace catra_test
