// A simulated turnstile controller on the controller side of a ControllerPty.
//
// It reads the command texts that the plug-in writes and answers them the way
// the turnstile's controller does, one event letter each:
//
//   "i" -> a   (blocked)                "e" -> l   (ready)
//   "al" -> b, "ar" -> c, "ab" -> d     "d" -> m   (not ready)
//   "l<T>", "r<T>", "b<T>" -> e, f, g   pin commands ("f…", "g…", "s…", "t…"): nothing
//
// A timed release frees its side(s) for T seconds; when nobody turns within
// that time the controller reports j (given up). A person's turn is reported
// (h left, i right) only when that side is free, by the permanent mode or by
// the pending release; a reported turn ends the pending release and its
// timer, and so does any later command. Every letter is written as the letter
// and a NUL in one write (ControllerPty::write_event).
//
// The commands are read on a thread of the turnstile's own, between start()
// and stop(); report() and push() may be called from any thread. Everything
// the turnstile reads or writes is told to the listener, in order, with the
// turnstile's lock held: a listener must not call back into the turnstile.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "simulator/controller_pty.h"
#include "simulator/posix.h"
#include "simulator/protocol.h"

namespace simulator {

// Which sides let a person through.
struct FreeSides {
    bool left = false;
    bool right = false;
    bool has(Side side) const { return side == Side::left ? left : right; }
};

class Turnstile {
public:
    struct Listener {
        // A command text read from the plug-in, without its NUL.
        std::function<void(const std::string& text)> command;
        // A letter about to be reported to the plug-in.
        std::function<void(char letter)> event;
        // A person pushed the turnstile on that side; `turned` tells whether
        // the side was free (and the turn is about to be reported).
        std::function<void(Side side, bool turned)> push;
        // The reader thread stopped on a failure of the line.
        std::function<void(const std::string& reason)> failure;
    };

    // The line must outlive the turnstile.
    explicit Turnstile(ControllerPty& line, Listener listener = {});
    ~Turnstile();
    Turnstile(const Turnstile&) = delete;
    Turnstile& operator=(const Turnstile&) = delete;

    // Starts reading commands on the turnstile's thread; once only.
    void start();
    // Stops and joins the reader thread; the line stays open. Idempotent.
    void stop();

    // The controller reports these letters, one event each, in order, as they
    // are (any byte but NUL), without changing the turnstile's state.
    void report(const std::string& letters);
    // A person pushes the turnstile on one side: true when the side was free
    // and the turn was reported.
    bool push(Side side);

    FreeSides free_sides() const;
    // When the pending timed release gives up; nothing when none is pending.
    std::optional<std::chrono::steady_clock::time_point> release_deadline() const;
    // True when nothing waits on the line: every command written by the
    // plug-in has been read and answered, and every reported letter has been
    // read by the plug-in.
    bool quiet() const;
    // True when every command the plug-in wrote so far has been read and told
    // to the listener, whether or not the plug-in read the answers.
    bool commands_answered() const;

private:
    struct Release {
        FreeSides sides;
        std::chrono::steady_clock::time_point deadline;
    };

    void read_loop();
    // Waits until the line is readable, the release deadline passes or stop()
    // is called; false when the line failed.
    bool wait_for_line();
    void answer(const std::string& text);                         // REQUIRES: mutex_ held
    void give_up_when_due();                                      // REQUIRES: mutex_ held
    void write_letter(char letter);                               // REQUIRES: mutex_ held
    void start_release(char code, const std::string& time_text);  // REQUIRES: mutex_ held

    ControllerPty& line_;
    Listener listener_;
    WakePipe wake_;  // interrupts the reader's wait
    std::thread reader_;

    mutable std::mutex mutex_;
    bool stopping_ = false;           // guarded by mutex_
    bool reading_ = false;            // a command is being read or answered; guarded by mutex_
    FreeSides mode_;                  // the permanent mode; guarded by mutex_
    std::optional<Release> release_;  // the pending timed release; guarded by mutex_
};

}  // namespace simulator
