// catra-simulator: the simulated turnstile controller on a real line. It
// answers a terminal's controller commands as a turnstile controller does, on
// a serial device or on a new pseudo-terminal, prints what crosses the line
// in the terminal's own line format, and takes a person's turns and the
// controller's letters from standard input.

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>

#include "input.h"
#include "line.h"
#include "output.h"
#include "relay.h"
#include "simulator/controller_pty.h"
#include "simulator/turnstile.h"

#ifndef CATRA_VERSION
#define CATRA_VERSION "unknown"
#endif

namespace simulator::program {

namespace {

using terminal::Json;

struct Options {
    std::string device;  // serial device; empty: a new pseudo-terminal
    int baud = 9600;
    std::string link;  // symbolic link to the new pseudo-terminal; empty: none
    int byte_gap_ms = 0;
    bool json = false;
};

std::optional<int> parse_options(int argc, char** argv, Options& options)
{
    CLI::App app{
        "The simulated turnstile controller on a real line: answers the turnstile plug-in's "
        "controller commands on a serial device, or on a new pseudo-terminal, as a turnstile "
        "controller does; prints what crosses the line; takes a person's turns and the "
        "controller's letters on standard input, one JSON object per line: "
        "{\"person\": \"turn_left\"} or \"turn_right\", {\"controller\": \"LETTERS\"}. "
        "Ctrl-C or SIGTERM ends it; the end of standard input does not."};
    app.set_version_flag("--version", std::string("catra-simulator ") + CATRA_VERSION);
    CLI::Option* device = app.add_option("--device", options.device,
                                         "serial device wired to the terminal's controller port "
                                         "(default: a new pseudo-terminal, "
                                         "whose path is printed on standard error)")
                              ->type_name("PATH");
    app.add_option("--baud", options.baud, "speed of the serial device, 8N1")
        ->type_name("RATE")
        ->needs(device)
        ->check([](const std::string& text) {
            return supported_baud(std::atoi(text.c_str())) ? std::string()
                                                           : "no such serial speed: " + text;
        })
        ->capture_default_str();
    app.add_option("--link", options.link,
                   "make this path a symbolic link to the new pseudo-terminal, while running")
        ->type_name("PATH")
        ->excludes(device);
    app.add_option(
           "--byte-gap-ms", options.byte_gap_ms,
           "write each byte of an event (its letter, then its NUL) on its own, this many ms "
           "after the one before (on a new pseudo-terminal also not before the terminal "
           "has read that one)")
        ->type_name("N")
        ->check(CLI::Range(0, 10000))
        ->capture_default_str();
    app.add_flag("--json", options.json,
                 "print one JSON object per line (the default when standard output is not a "
                 "terminal)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    return std::nullopt;
}

void report(const std::string& text)
{
    std::cerr << "catra-simulator: " << text << std::endl;
}

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
            throw std::system_error(errno, std::generic_category(), "pthread_sigmask");
        fd_ = ::signalfd(-1, &set_, SFD_CLOEXEC);
        if (fd_ < 0)
            throw std::system_error(errno, std::generic_category(), "signalfd");
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
    Failure()
    {
        if (::pipe2(ends_, O_CLOEXEC | O_NONBLOCK) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    ~Failure()
    {
        ::close(ends_[0]);
        ::close(ends_[1]);
    }
    Failure(const Failure&) = delete;
    Failure& operator=(const Failure&) = delete;

    void set(const std::string& reason)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (reason_.empty())
            reason_ = reason;
        const char wake = 'x';
        while (::write(ends_[1], &wake, 1) < 0 && errno == EINTR) {
        }
    }
    std::string reason() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return reason_;
    }
    int fd() const { return ends_[0]; }

private:
    int ends_[2] = {-1, -1};
    mutable std::mutex mutex_;
    std::string reason_;  // guarded by mutex_
};

// Runs the actions read from standard input, line by line.
class Reader {
public:
    explicit Reader(Turnstile& turnstile) : turnstile_(turnstile) {}

    // Reads what is there; false at the end of the input.
    bool read_more()
    {
        char buffer[4096];
        const ssize_t got = ::read(STDIN_FILENO, buffer, sizeof buffer);
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

private:
    void run_line(const std::string& line)
    {
        ++number_;
        try {
            const std::optional<Action> action = parse_action(line);
            if (!action)
                return;
            if (action->kind == Action::Kind::person)
                turnstile_.push(action->side);
            else
                turnstile_.report(action->letters);
        } catch (const InputError& e) {
            report("line " + std::to_string(number_) + ": " + e.what());
        }
    }

    Turnstile& turnstile_;
    std::string pending_;
    int number_ = 0;
};

Turnstile::Listener printing(terminal::Output& output, Failure& failure)
{
    return Turnstile::Listener{
        [&output](const std::string& text) {
            output.emit(Json{{"controller", text}});
        },
        [&output](char letter) {
            output.emit(Json{{"turnstile", std::string(1, letter)}});
        },
        [&output](Side side, bool turned) {
            output.emit(Json{{"person", side == Side::left ? "turn_left" : "turn_right"},
                             {"turned", turned}});
        },
        [&failure](const std::string& reason) { failure.set(reason); }};
}

int run(const Options& options)
{
    const Signals signals;
    Failure failure;
    terminal::Output output(stdout, options.json || ::isatty(STDOUT_FILENO) == 0
                                        ? terminal::Style::json
                                        : terminal::Style::readable);
    Line line = options.device.empty() ? Line::pseudo_terminal()
                                       : Line::serial(options.device, options.baud);
    ControllerPty inner;
    Turnstile turnstile(inner, printing(output, failure));
    Relay relay(line, inner, std::chrono::milliseconds(options.byte_gap_ms),
                [&failure](const std::string& reason) { failure.set(reason); });
    turnstile.start();
    relay.start();
    const Link link(options.link, line.terminal_path());
    if (line.is_pseudo_terminal()) {
        report("the turnstile controller is on " + line.terminal_path() +
               ": the terminal's catra.device_path" +
               (options.link.empty() ? "" : " (or " + options.link + ")"));
    } else {
        report("the turnstile controller is on " + line.terminal_path() + " at " +
               std::to_string(options.baud) + " baud, 8N1");
    }

    Reader reader(turnstile);
    bool reading = true;
    int status = 0;
    for (;;) {
        pollfd watched[3] = {
            {signals.fd(), POLLIN, 0}, {failure.fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        if (::poll(watched, reading ? 3 : 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            throw std::system_error(errno, std::generic_category(), "poll");
        }
        if (watched[0].revents != 0)
            break;
        if (watched[1].revents != 0) {
            report("the controller line failed: " + failure.reason());
            status = 1;
            break;
        }
        if (reading && watched[2].revents != 0 && !reader.read_more()) {
            reading = false;
            // A controller never leaves its terminal without answers.
            report("end of input: still answering the terminal; Ctrl-C ends");
        }
    }
    relay.stop();
    turnstile.stop();
    std::fflush(stdout);
    return status;
}

}  // namespace

}  // namespace simulator::program

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);  // a closed standard output must not end the program
    try {
        simulator::program::Options options;
        if (const std::optional<int> done = simulator::program::parse_options(argc, argv, options))
            return *done;
        return simulator::program::run(options);
    } catch (const std::exception& e) {
        simulator::program::report(e.what());
    } catch (...) {
        simulator::program::report("an unknown exception");
    }
    return 1;
}
