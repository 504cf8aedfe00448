// The turnstile controller's end of the controller link, on a pseudo-terminal.
//
// The plug-in opens the slave side (slave_path()) as its controller device and
// writes NUL-terminated command texts to it; this object holds the master side,
// reads those commands and writes event letters back. The slave is put in raw
// mode so that bytes pass unchanged in both directions (no echo, no line
// editing, no translation of NUL or newline).
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

namespace simulator {

class ControllerPty {
public:
    // Opens a new pair; throws std::system_error when the system refuses.
    ControllerPty();
    ~ControllerPty();
    ControllerPty(const ControllerPty&) = delete;
    ControllerPty& operator=(const ControllerPty&) = delete;

    // Path of the slave side, to be used as the controller's device path.
    const std::string& slave_path() const { return slave_path_; }
    int master_fd() const { return master_; }

    // Reports one event: the letter and a NUL, two bytes in one write, the way
    // the controller reports it (the reader takes two bytes per event and looks
    // at the first). Throws std::system_error when the write fails or is short.
    void write_event(char letter);

    // The next NUL-terminated text written by the other side, without its NUL,
    // or nothing when no complete text arrived within the time-out.
    std::optional<std::string> read_command(std::chrono::milliseconds timeout);

    // True while bytes written by the other side wait on this side, not yet
    // taken by read_command(). Unlike a count of the master's input, it also
    // sees bytes just written that the system has not moved over yet.
    bool commands_waiting() const;
    // True while bytes written on this side (events) wait unread on the other
    // side, as far as its line settings tell: a reader whose settings hold a
    // read back until more bytes come (VMIN above 1) counts as having read
    // them.
    bool unread_by_other_side() const;

    // Closes the master and the kept slave descriptor: the other side's reads
    // then see the line hung up.
    void hang_up();

    // Reading is for one thread at a time; writes and the two questions may
    // come from other threads. hang_up must not race with any of them.

private:
    // Waits for more bytes until the deadline; false on time-out or when the
    // line is closed.
    bool receive_more(std::chrono::steady_clock::time_point deadline);
    // Appends whatever is readable right now; false when nothing was.
    bool receive_available();

    int master_ = -1;
    // Kept open for the object's life: with no slave descriptor open the
    // master's reads fail with EIO, which would lose bytes between the
    // plug-in's opening and closing of the device. Also what
    // unread_by_other_side() looks at.
    int slave_ = -1;
    std::string slave_path_;
    std::string pending_;  // received and not yet read
};

}  // namespace simulator
