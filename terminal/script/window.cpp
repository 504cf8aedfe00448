#include "script/window.h"

#include "script/matcher.h"

namespace terminal {

Window::Window(lines::Output& output)
    : output_(output), subscription_(output.subscribe([this](const Json& line) {
          {
              std::lock_guard<std::mutex> lock(mutex_);
              since_mark_.push_back(line);
          }
          printed_.notify_all();
      }))
{
}

Window::~Window()
{
    output_.unsubscribe(subscription_);
}

void Window::mark()
{
    std::lock_guard<std::mutex> lock(mutex_);
    since_mark_.clear();
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
    std::size_t looked_at = 0;  // lines before this one did not match
    const bool seen = printed_.wait_for(lock, timeout, [&] {
        for (; looked_at < since_mark_.size(); ++looked_at) {
            if (wanted(since_mark_[looked_at]))
                return true;
        }
        return false;
    });
    if (seen && found != nullptr)
        *found = since_mark_[looked_at];
    return seen;
}

std::vector<Json> Window::since_mark() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return {since_mark_.begin(), since_mark_.end()};
}

}  // namespace terminal
