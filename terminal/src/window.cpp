#include "window.h"

#include <algorithm>

namespace terminal {

Window::Window(Output& output)
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

// A pattern is a JSON value of a script line: the recursion is as deep as it is.
// NOLINTNEXTLINE(misc-no-recursion)
bool contains(const Json& line, const Json& pattern)
{
    if (pattern.is_object()) {
        if (!line.is_object())
            return false;
        for (const auto& member : pattern.items()) {
            const auto found = line.find(member.key());
            if (found == line.end() || !contains(*found, member.value()))
                return false;
        }
        return true;
    }
    if (pattern.is_array()) {
        if (!line.is_array())
            return false;
        for (const Json& wanted : pattern) {
            bool seen = false;
            for (const Json& element : line) {
                if (contains(element, wanted)) {
                    seen = true;
                    break;
                }
            }
            if (!seen)
                return false;
        }
        return true;
    }
    return line == pattern;
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as the pattern, as contains()
int nearness(const Json& line, const Json& pattern)
{
    if (pattern.is_object()) {
        int score = 0;
        for (const auto& member : pattern.items()) {
            const auto found = line.is_object() ? line.find(member.key()) : line.end();
            if (line.is_object() && found != line.end())
                score += nearness(*found, member.value());
        }
        return score;
    }
    if (pattern.is_array()) {
        int score = 0;
        for (const Json& wanted : pattern) {
            int best = 0;
            if (line.is_array()) {
                for (const Json& element : line)
                    best = std::max(best, nearness(element, wanted));
            }
            score += best;
        }
        return score;
    }
    return line == pattern ? 1 : 0;
}

}  // namespace terminal
