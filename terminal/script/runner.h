// The script runner: runs the terminal's commands (lines/command.h) against
// the plug-in and the simulated turnstile, from a script, standard input or
// the live view, one line at a time, and keeps the tally of expectations.
//
// A line that is not a command, or an action that cannot run here, is
// reported with where it stands, and the next line runs; so does a failed
// expectation, reported with the pattern and the lines nearest to it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

#include "lines/command.h"
#include "lines/messages.h"
#include "lines/output.h"
#include "script/window.h"
#include "simulator/turnstile.h"
#include "standin/database.h"

namespace terminal {

// Told of each line that runs, for a recording.
class LineObserver {
public:
    LineObserver() = default;
    virtual ~LineObserver() = default;
    LineObserver(const LineObserver&) = delete;
    LineObserver& operator=(const LineObserver&) = delete;
    LineObserver(LineObserver&&) = delete;
    LineObserver& operator=(LineObserver&&) = delete;
    // An action is about to act.
    virtual void before_action() = 0;
    // A command ran; `given` is its line's object.
    virtual void ran(const Json& given) = 0;
};

class Script {
public:
    // What the lines act on and report to. `turnstile` is null when the
    // plug-in drives a real controller device; `window` follows `output`
    // from before the plug-in starts. `source` names the input in reports
    // ("FILE:LINE: ..."); unnamed, "line N: ...".
    struct Parts {
        lines::Output& output;
        Window& window;
        standin::Database& database;
        simulator::Turnstile* turnstile;
        const lines::Messages& messages;
        std::string source;
    };
    explicit Script(Parts parts);

    // Hands each command that ran to the observer, and tells it before each
    // action; null: none.
    void set_observer(LineObserver* observer);
    // Refuses the actions from now on, with this reason (the plug-in did not
    // start); expectations, notes and dumps still run.
    void refuse_actions(const std::string& reason);

    // Runs every line of the input, in order.
    void run(std::istream& input);

    // What became of a posted line.
    struct Outcome {
        enum class Kind {
            ran,      // ran, and an expectation in it was met
            bad,      // not a command, or a command that cannot run as written
            refused,  // an action that cannot run here (no plug-in, no simulator)
            unmet,    // an expectation that was not met
            busy,     // the script ran another line all the while
        };
        Kind kind = Kind::ran;
        std::string text;  // why, for all but ran
    };
    // Runs a line posted from outside the script (the live view), between
    // the script's lines: it waits at most `longest_wait` in the line (longer
    // waits are bad) and at most `script_wait` for the line that runs before
    // it (busy). What becomes of it is answered, never reported or counted:
    // a person's lines do not change the session's result.
    Outcome run_posted(const std::string& line, std::chrono::milliseconds longest_wait,
                       std::chrono::milliseconds script_wait);

    struct Tally {
        int expectations = 0;  // expect and expect_none lines run
        int met = 0;
        int bad_lines = 0;  // lines not run: not a command, or refused
        // An expectation met by the init_failed line.
        bool init_failure_expected = false;
        // What was reported, in order, each with where its line stands.
        std::vector<std::string> reasons;
    };
    Tally tally() const;
    // The line that runs now, with where it stands ("FILE:3: {...}"); empty
    // when none does.
    std::string running() const;

private:
    class Turn;
    class Running;

    // Runs one line; `number` 0 for a posted line. REQUIRES: the line's turn.
    Outcome run_line(const std::string& line, int number);
    void run_command(const lines::Command& command);
    void act(const lines::Command& command);
    void follow(const lines::Command& command);
    simulator::Turnstile& turnstile(lines::Verb verb) const;
    // Every action calls this as it starts to act: the observer hears of it,
    // and waits and expectations look from here on.
    void begin_action();
    std::string where(int number) const;
    // Counts in the tally, unless the line is posted.
    void count(int Tally::*counter);
    void report(const std::string& text);

    Parts parts_;
    LineObserver* observer_ = nullptr;
    std::string refusal_;     // why actions are refused; empty: they run
    lines::Grammar grammar_;  // with the line's turn
    bool counting_ = true;    // with the line's turn: false for a posted line

    mutable std::mutex tally_mutex_;
    Tally tally_;          // guarded by tally_mutex_
    std::string running_;  // guarded by tally_mutex_

    // One line runs at a time, from whichever thread: a line takes the turn
    // for as long as it runs.
    std::mutex turn_mutex_;
    std::condition_variable turn_free_;
    bool turn_taken_ = false;  // guarded by turn_mutex_
};

}  // namespace terminal
