#include "input.h"

#include <unistd.h>

#include <cerrno>
#include <optional>

#include "lines/command.h"

namespace catra_simulator {

Input::Input(int fd, simulator::Turnstile& turnstile, const lines::Messages& messages)
    : fd_(fd), turnstile_(turnstile), messages_(messages)
{
}

bool Input::read_more()
{
    char buffer[4096];
    const ssize_t got = ::read(fd_, buffer, sizeof buffer);
    if (got < 0 && (errno == EINTR || errno == EAGAIN))
        return true;
    if (got <= 0) {
        if (!pending_.empty())
            run_line(pending_);
        pending_.clear();
        return false;
    }
    pending_.append(buffer, static_cast<std::size_t>(got));
    for (auto end = pending_.find('\n'); end != std::string::npos; end = pending_.find('\n')) {
        run_line(pending_.substr(0, end));
        pending_.erase(0, end + 1);
    }
    return true;
}

void Input::run_line(const std::string& line)
{
    static const lines::Grammar grammar({lines::Verb::person, lines::Verb::controller},
                                        "the simulator");
    ++number_;
    try {
        const std::optional<lines::Command> command = lines::parse_command(line, grammar);
        if (!command)
            return;
        if (command->verb == lines::Verb::person)
            turnstile_.push(std::get<lines::Turn>(command->arguments).side);
        else
            turnstile_.report(std::get<lines::Letters>(command->arguments).letters);
    } catch (const lines::CommandError& e) {
        messages_.say("line " + std::to_string(number_) + ": " + e.what());
    }
}

}  // namespace catra_simulator
