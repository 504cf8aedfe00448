#include "simulator/turnstile.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <exception>
#include <system_error>

namespace simulator {

namespace {

using Clock = std::chrono::steady_clock;

// A release time: a whole number of seconds, 0 or more.
std::optional<int> release_seconds(const std::string& text)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    errno = 0;
    const long seconds = std::strtol(text.c_str(), nullptr, 10);
    if (errno == ERANGE || seconds > INT_MAX)
        return std::nullopt;
    return static_cast<int>(seconds);
}

}  // namespace

Turnstile::Turnstile(ControllerPty& line, Listener listener)
    : line_(line), listener_(std::move(listener))
{
}

Turnstile::~Turnstile()
{
    stop();
}

void Turnstile::start()
{
    if (!reader_.joinable())
        reader_ = std::thread([this] { read_loop(); });
}

void Turnstile::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.wake();
    if (reader_.joinable() && reader_.get_id() != std::this_thread::get_id())
        reader_.join();
}

void Turnstile::report(const std::string& letters)
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (char letter : letters)
        write_letter(letter);
}

bool Turnstile::push(Side side)
{
    std::lock_guard<std::mutex> lock(mutex_);
    const bool free = mode_.has(side) || (release_ && release_->sides.has(side));
    if (listener_.push)
        listener_.push(side, free);
    if (!free)
        return false;
    release_.reset();
    write_letter(turn_letter(side));
    return true;
}

FreeSides Turnstile::free_sides() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    FreeSides sides = mode_;
    if (release_) {
        sides.left = sides.left || release_->sides.left;
        sides.right = sides.right || release_->sides.right;
    }
    return sides;
}

std::optional<std::chrono::steady_clock::time_point> Turnstile::release_deadline() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!release_)
        return std::nullopt;
    return release_->deadline;
}

bool Turnstile::quiet() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return !reading_ && !line_.commands_waiting() && !line_.unread_by_other_side();
}

bool Turnstile::commands_answered() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return !reading_ && !line_.commands_waiting();
}

void Turnstile::read_loop()
{
    try {
        for (;;) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                give_up_when_due();
                if (stopping_)
                    return;
            }
            if (!wait_for_line()) {
                std::lock_guard<std::mutex> lock(mutex_);
                if (listener_.failure)
                    listener_.failure("the controller line was closed");
                return;
            }
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (stopping_)
                    return;
                reading_ = true;
            }
            // Every complete command that arrived, in order; a partial one
            // stays on the line until its NUL comes.
            while (std::optional<std::string> text =
                       line_.read_command(std::chrono::milliseconds(0))) {
                std::lock_guard<std::mutex> lock(mutex_);
                answer(*text);
            }
            std::lock_guard<std::mutex> lock(mutex_);
            reading_ = false;
        }
    } catch (const std::exception& e) {
        std::lock_guard<std::mutex> lock(mutex_);
        reading_ = false;
        if (listener_.failure)
            listener_.failure(e.what());
    }
}

bool Turnstile::wait_for_line()
{
    int timeout_ms = -1;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (release_) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(release_->deadline - Clock::now());
            timeout_ms = static_cast<int>(
                std::max<long long>(0, std::min<long long>(left.count(), INT_MAX)));
        }
    }
    pollfd watched[2] = {{line_.master_fd(), POLLIN, 0}, {wake_.fd(), POLLIN, 0}};
    const int ready = ::poll(watched, 2, timeout_ms);
    if (ready < 0)
        return errno == EINTR;
    if (watched[1].revents & POLLIN)
        wake_.drain();
    if (watched[0].revents & POLLIN)
        return true;
    return (watched[0].revents & (POLLHUP | POLLERR | POLLNVAL)) == 0;
}

void Turnstile::answer(const std::string& text)
{
    if (listener_.command)
        listener_.command(text);
    // Whatever the command, a pending release ends with it.
    release_.reset();
    if (text.empty())
        return;
    const char code = text[0];
    const std::string rest = text.substr(1);
    if (text == "i") {
        mode_ = FreeSides{};
        write_letter('a');
    } else if (text == "al") {
        mode_ = FreeSides{true, false};
        write_letter('b');
    } else if (text == "ar") {
        mode_ = FreeSides{false, true};
        write_letter('c');
    } else if (text == "ab") {
        mode_ = FreeSides{true, true};
        write_letter('d');
    } else if (code == 'l' || code == 'r' || code == 'b') {
        start_release(code, rest);
    } else if (text == "e") {
        write_letter('l');
    } else if (text == "d") {
        write_letter('m');
    }
    // Pin assignments ("f", "g", "s", "t" with a pin) and anything else: no answer.
}

void Turnstile::start_release(char code, const std::string& time_text)
{
    const std::optional<int> seconds = release_seconds(time_text);
    if (!seconds)
        return;
    Release release;
    release.sides.left = code != 'r';
    release.sides.right = code != 'l';
    release.deadline = Clock::now() + std::chrono::seconds(*seconds);
    release_ = release;
    write_letter(code == 'l' ? 'e' : code == 'r' ? 'f' : 'g');
}

void Turnstile::give_up_when_due()
{
    if (release_ && Clock::now() >= release_->deadline) {
        release_.reset();
        write_letter('j');
    }
}

void Turnstile::write_letter(char letter)
{
    if (listener_.event)
        listener_.event(letter);
    line_.write_event(letter);
}

}  // namespace simulator
