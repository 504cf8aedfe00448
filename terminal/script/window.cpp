#include "script/window.h"

#include <algorithm>

#include "script/matcher.h"

namespace terminal {

Window::Window(lines::Output& output)
    : output_(output),
      subscription_(output.subscribe([this](const Json& line, const std::string& json) {
          {
              std::lock_guard<std::mutex> lock(mutex_);
              keep(line, json.size());
          }
          printed_.notify_all();
      }))
{
}

Window::~Window()
{
    output_.unsubscribe(subscription_);
}

void Window::keep(const Json& line, std::size_t size)
{
    if (size > kMostBytes) {
        // Longer than the whole window (a dump of many records): not kept.
        ++dropped_;
        return;
    }
    kept_.push_back(line);
    sizes_.push_back(size);
    bytes_ += size;
    while (kept_.size() > kMostLines || bytes_ > kMostBytes) {
        bytes_ -= sizes_.front();
        kept_.pop_front();
        sizes_.pop_front();
        ++dropped_;
    }
}

void Window::mark()
{
    std::lock_guard<std::mutex> lock(mutex_);
    kept_.clear();
    sizes_.clear();
    bytes_ = 0;
    dropped_ = 0;
}

bool Window::wait_for(const Json& pattern, std::chrono::milliseconds timeout, Json* found)
{
    return wait_until([&pattern](const Json& line) { return contains(line, pattern); }, timeout,
                      found);
}

bool Window::wait_until(const std::function<bool(const Json&)>& wanted,
                        std::chrono::milliseconds timeout, Json* found)
{
    std::unique_lock<std::mutex> lock(mutex_);
    std::size_t looked_at = 0;  // lines before this one (since the mark) did not match
    const bool seen = printed_.wait_for(lock, timeout, [&] {
        looked_at = std::max(looked_at, dropped_);
        for (; looked_at < dropped_ + kept_.size(); ++looked_at) {
            if (wanted(kept_[looked_at - dropped_]))
                return true;
        }
        return false;
    });
    if (seen && found != nullptr)
        *found = kept_[looked_at - dropped_];
    return seen;
}

Printed Window::since_mark() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return {dropped_, {kept_.begin(), kept_.end()}};
}

}  // namespace terminal
