#include "live/history.h"

namespace terminal {

History::History(std::size_t most_lines, std::size_t most_bytes)
    : most_lines_(most_lines), most_bytes_(most_bytes)
{
}

void History::add(std::string event)
{
    auto shared = std::make_shared<const std::string>(std::move(event));
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        bytes_ += shared->size();
        events_.push_back(std::move(shared));
        ++next_;
        while (events_.size() > most_lines_ || (events_.size() > 1 && bytes_ > most_bytes_)) {
            bytes_ -= events_.front()->size();
            events_.pop_front();
            ++first_;
        }
        wake = readers_waiting_ > 0;
    }
    if (wake)
        added_.notify_all();
}

std::uint64_t History::first() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return first_;
}

std::optional<std::vector<History::Event>> History::read(std::uint64_t& next,
                                                         std::chrono::milliseconds wait)
{
    std::unique_lock<std::mutex> lock(mutex_);
    ++readers_waiting_;
    added_.wait_for(lock, wait, [&] { return stopped_ || next < next_; });
    --readers_waiting_;
    if (stopped_ || next < first_)
        return std::nullopt;
    std::vector<Event> events(events_.begin() + static_cast<std::ptrdiff_t>(next - first_),
                              events_.end());
    next = next_;
    return events;
}

void History::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
    }
    added_.notify_all();
}

}  // namespace terminal
