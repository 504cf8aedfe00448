// catra-simulator: the simulated turnstile controller on a real line. It
// answers a terminal's controller commands as a turnstile controller does, on
// a serial device or on a new pseudo-terminal, prints what crosses the line
// in the terminal's own line format, and takes a person's turns and the
// controller's letters from standard input.

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>

#include "input.h"
#include "line.h"
#include "lines/listener.h"
#include "lines/messages.h"
#include "lines/output.h"
#include "options.h"
#include "relay.h"
#include "simulator/controller_pty.h"
#include "simulator/posix.h"
#include "simulator/turnstile.h"

namespace catra_simulator {

namespace {

// A symbolic link that lasts as long as the object.
class Link {
public:
    Link(std::string path, const std::string& target) : path_(std::move(path))
    {
        namespace fs = std::filesystem;
        if (path_.empty())
            return;
        // An old link (of an earlier run) is replaced; anything else is kept.
        std::error_code error;
        if (fs::is_symlink(fs::symlink_status(path_, error)))
            fs::remove(path_, error);
        fs::create_symlink(target, path_, error);
        if (error) {
            const std::string refused = path_;
            path_.clear();
            throw std::runtime_error("cannot make " + refused + " a link to " + target + ": " +
                                     error.message());
        }
    }
    ~Link()
    {
        std::error_code ignored;
        if (!path_.empty())
            std::filesystem::remove(path_, ignored);
    }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

private:
    std::string path_;
};

// Signals that end the program, taken as readable events; blocked in every
// thread, so that they arrive only here.
class Signals {
public:
    Signals()
    {
        sigemptyset(&set_);
        sigaddset(&set_, SIGINT);
        sigaddset(&set_, SIGTERM);
        sigaddset(&set_, SIGHUP);
        if (::pthread_sigmask(SIG_BLOCK, &set_, nullptr) != 0)
            throw simulator::system_failure("pthread_sigmask");
        fd_ = ::signalfd(-1, &set_, SFD_CLOEXEC);
        if (fd_ < 0)
            throw simulator::system_failure("signalfd");
    }
    ~Signals() { ::close(fd_); }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;
    int fd() const { return fd_; }

private:
    sigset_t set_{};
    int fd_ = -1;
};

// Why the line stopped, told by another thread to the main loop.
class Failure {
public:
    void set(const std::string& reason)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (reason_.empty())
                reason_ = reason;
        }
        wake_.wake();
    }
    std::string reason() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return reason_;
    }
    // Readable once a reason was set.
    int fd() const { return wake_.fd(); }

private:
    simulator::WakePipe wake_;
    mutable std::mutex mutex_;
    std::string reason_;  // guarded by mutex_
};

int run(const Options& options, const lines::Messages& messages)
{
    const Signals signals;
    Failure failure;
    lines::Output output(stdout, options.json || ::isatty(STDOUT_FILENO) == 0
                                     ? lines::Style::json
                                     : lines::Style::readable);
    Line line = options.device.empty() ? Line::pseudo_terminal()
                                       : Line::serial(options.device, options.baud);
    simulator::ControllerPty inner;
    simulator::Turnstile turnstile(
        inner, lines::printing_listener(
                   output, [&failure](const std::string& reason) { failure.set(reason); }));
    Relay relay(line, inner, std::chrono::milliseconds(options.byte_gap_ms),
                [&failure](const std::string& reason) { failure.set(reason); });
    turnstile.start();
    relay.start();
    const Link link(options.link, line.terminal_path());
    if (line.is_pseudo_terminal()) {
        messages.say("the turnstile controller is on " + line.terminal_path() +
                     ": the terminal's catra.device_path" +
                     (options.link.empty() ? "" : " (or " + options.link + ")"));
    } else {
        messages.say("the turnstile controller is on " + line.terminal_path() + " at " +
                     std::to_string(options.baud) + " baud, 8N1");
    }

    Input input(STDIN_FILENO, turnstile, messages);
    bool reading = true;
    int status = 0;
    for (;;) {
        pollfd watched[3] = {
            {signals.fd(), POLLIN, 0}, {failure.fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        if (::poll(watched, reading ? 3 : 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            throw simulator::system_failure("poll");
        }
        if (watched[0].revents != 0)
            break;
        if (watched[1].revents != 0) {
            messages.say("the controller line failed: " + failure.reason());
            status = 1;
            break;
        }
        if (reading && watched[2].revents != 0 && !input.read_more()) {
            reading = false;
            // A controller never leaves its terminal without answers.
            messages.say("end of input: still answering the terminal; Ctrl-C ends");
        }
    }
    relay.stop();
    turnstile.stop();
    std::fflush(stdout);
    return status;
}

}  // namespace

}  // namespace catra_simulator

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);  // a closed standard output must not end the program
    const lines::Messages messages("catra-simulator");
    try {
        catra_simulator::Options options;
        if (const std::optional<int> done =
                catra_simulator::parse_options(messages.program(), argc, argv, options))
            return *done;
        return catra_simulator::run(options, messages);
    } catch (const std::exception& e) {
        messages.say(e.what());
    } catch (...) {
        messages.say("an unknown exception");
    }
    return 1;
}
