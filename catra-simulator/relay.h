// Moves bytes between the line the terminal is on and the simulated
// turnstile's own pseudo-terminal: the terminal's command texts to the
// turnstile, the turnstile's event letters to the terminal.
//
// Without a byte gap each event's letter and NUL go on together, in one
// write, as the turnstile wrote them. With a gap of N ms every byte goes
// alone, N ms after the one before it; on a new pseudo-terminal also not
// before the terminal has read the one before it (at most kReadWait), so
// that the terminal reads each letter and each NUL apart every time, as it
// may on a slow serial line.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "line.h"
#include "simulator/controller_pty.h"
#include "simulator/posix.h"

namespace catra_simulator {

class Relay {
public:
    static constexpr std::chrono::seconds kReadWait{5};

    // `failed` is called, on the relay's thread, when the line fails; the
    // relay then stops. Both lines must outlive the relay.
    Relay(Line& outside, const simulator::ControllerPty& turnstile,
          std::chrono::milliseconds byte_gap,
          std::function<void(const std::string& reason)> failed);
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    void start();
    // Stops and joins the relay's thread. Idempotent.
    void stop();

private:
    void run();
    // Writes all the bytes; false when stop() was called first. Throws
    // std::system_error when the line fails.
    bool write_all(int fd, const char* bytes, std::size_t size);
    // Waits until the fd is ready for `events`, or for `timeout` (negative:
    // no limit); false when stop() was called.
    bool wait(int fd, short events, std::chrono::milliseconds timeout);
    // Sends the turnstile's bytes to the terminal, with the gap.
    bool send_to_terminal(const std::string& bytes);

    Line& outside_;
    const std::chrono::milliseconds byte_gap_;
    std::function<void(const std::string&)> failed_;
    int turnstile_side_ = -1;  // the slave side of the turnstile's pseudo-terminal
    simulator::WakePipe stopping_;
    std::thread thread_;
};

}  // namespace catra_simulator
