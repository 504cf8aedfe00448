// The line that the simulated turnstile controller answers on, as the
// terminal sees it: a serial device (a USB-serial adapter wired to the
// terminal's controller port, or one end of a pseudo-terminal pair), or a new
// pseudo-terminal whose slave side the terminal opens as its controller
// device.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "simulator/controller_pty.h"

namespace catra_simulator {

// The speeds a serial device is set to; false for a speed the system has no
// setting for.
bool supported_baud(int baud);

class Line {
public:
    // Opens the device, in raw mode at that speed, 8 data bits, no parity,
    // one stop bit, no flow control. Throws std::system_error when the
    // system refuses, std::invalid_argument when it is not a terminal device.
    static Line serial(const std::string& path, int baud);
    // Opens a new pseudo-terminal in raw mode. Throws std::system_error.
    static Line pseudo_terminal();

    ~Line();
    Line(Line&& other) noexcept;
    Line& operator=(Line&&) = delete;
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    // Read and written by this side; non-blocking.
    int fd() const { return fd_; }
    // The device the terminal opens: the device itself, or the slave side of
    // the pseudo-terminal.
    const std::string& terminal_path() const { return terminal_path_; }
    bool is_pseudo_terminal() const { return pty_ != nullptr; }

    // True while bytes written to the line wait unread on the terminal's
    // side, as far as it is known: only on a new pseudo-terminal, whose other
    // side this program sees. A terminal whose line settings hold a read back
    // until more bytes come (VMIN above 1) counts as having read them.
    bool unread_by_terminal() const;

private:
    Line() = default;

    int fd_ = -1;
    std::string terminal_path_;
    // A pseudo-terminal: the pair; fd_ is a non-blocking copy of its master.
    std::unique_ptr<simulator::ControllerPty> pty_;
};

}  // namespace catra_simulator
