#include "lines/output.h"

namespace lines {

Output::Output(std::FILE* stream, Style style)
    : stream_(stream), style_(style), last_(std::chrono::steady_clock::now())
{
}

void Output::emit(const Json& line)
{
    const std::string json = compact(line);
    std::lock_guard<std::mutex> lock(mutex_);
    print(line, json);
    last_ = std::chrono::steady_clock::now();
    for (const auto& subscriber : subscribers_)
        subscriber.second(line, json);
}

int Output::subscribe(Subscriber subscriber)
{
    std::lock_guard<std::mutex> lock(mutex_);
    subscribers_.emplace(next_subscriber_, std::move(subscriber));
    return next_subscriber_++;
}

void Output::unsubscribe(int id)
{
    std::lock_guard<std::mutex> lock(mutex_);
    subscribers_.erase(id);
}

std::chrono::steady_clock::duration Output::quiet_time() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return std::chrono::steady_clock::now() - last_;
}

void Output::print(const Json& line, const std::string& json)
{
    if (style_ == Style::json)
        std::fputs(json.c_str(), stream_);
    else
        std::fputs(readable(line).c_str(), stream_);
    std::fputc('\n', stream_);
    std::fflush(stream_);
}

}  // namespace lines
