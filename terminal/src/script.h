// The terminal's commands: one JSON object per input line.
//
//   {"send": TYPE, "fields": {...}}      a message to the plug-in (numbers become
//                                        int fields, strings text fields, in order)
//   {"request": TYPE, "fields": {...}}   the same, synchronously with a reply
//                                        object; prints the reply
//   {"config": {"module": M, "key": K, "value": V}}
//                                        changes the configuration store and
//                                        announces "config_param_set" (module ""
//                                        or no "module": a module-less key)
//   {"gpio": N, "value": V}              announces "gpio_notified"
//   {"controller": "LETTERS"}            the controller reports those letters
//   {"person": "turn_left"|"turn_right"} a person pushes the turnstile
//   {"wait_ms": N}                       lets N ms of real time pass
//   {"dump": WHAT}                       prints records (see records.h)
//   {"wait_for": PATTERN, "timeout_ms": N}
//                                        waits (5000 ms unless told) until a
//                                        line containing PATTERN was printed
//                                        since the last send, request, config,
//                                        gpio, controller or person command
//   {"note": TEXT}                       prints the text
//   {"expect": PATTERN, "timeout_ms": N} as wait_for, but a time-out is a
//                                        failed expectation
//   {"expect_none": PATTERN, "for_ms": N}
//                                        fails when a line containing PATTERN
//                                        is printed since the last action or
//                                        within N ms (1000 unless told)
//
// Blank lines and lines starting with # are skipped. A line that is not such
// a command is reported on the error stream with its number, and the script
// goes on with the next line; so does a failed expectation, reported with the
// pattern and the lines nearest to it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iosfwd>
#include <mutex>
#include <string>

#include "output.h"
#include "simulator/turnstile.h"
#include "standin/standin.h"
#include "window.h"

namespace terminal {

class Recorder;

class Script {
public:
    // `turnstile` is null when the plug-in drives a real controller device.
    // `window` follows `output` from before the plug-in starts.
    Script(Output& output, Window& window, standin::Database& database,
           simulator::Turnstile* turnstile, std::ostream& errors);

    // Runs every line of the input, in order.
    void run(std::istream& input);
    // Runs one line; `number` names it in error reports.
    void execute(const std::string& line, int number);
    // What became of one line.
    struct Outcome {
        enum class Kind {
            ran,      // ran, and an expectation in it was met
            bad,      // not a command, or a command that cannot run as written
            refused,  // an action that cannot run here (no plug-in, no simulator)
            unmet,    // an expectation that was not met
            busy,     // posted, and the script ran another line all the while
        };
        Kind kind = Kind::ran;
        std::string text;  // why, for all but ran
    };
    // Runs one line as execute does and returns its outcome; an error is not
    // reported (an unmet expectation is, and counted, as in a script). Lines
    // run one at a time, from any thread.
    Outcome run_line(const std::string& line, int number = 0);

    // Runs a line posted from outside the script (the live view) as run_line
    // does, waiting at most `longest_wait` in the line (longer waits are bad)
    // and at most `script_wait` for the line that runs before it (busy).
    Outcome run_posted(const std::string& line, std::chrono::milliseconds longest_wait,
                       std::chrono::milliseconds script_wait);

    // Names the input in reports ("FILE:LINE: ..."); unnamed, "line N: ...".
    void set_source(const std::string& name);
    // Hands each command that ran to the recorder, and tells it before each
    // action (send, request, config, gpio, controller, person); null: none.
    void set_recorder(Recorder* recorder);
    // Refuses the actions from now on, with this reason (the plug-in did not
    // start); expectations, notes and dumps still run.
    void refuse_actions(const std::string& reason);

    struct Tally {
        int expectations = 0;  // expect and expect_none lines run
        int met = 0;
        int bad_lines = 0;  // lines not run: not a command, or refused
        // An expectation met by the {"init_failed": ...} line.
        bool init_failure_expected = false;
    };
    Tally tally() const;
    // Prints "N of M expectations met" (and the lines not run) on the error
    // stream when there were expectations or bad lines.
    void print_tally() const;

private:
    // Runs one line. REQUIRES: the line's turn taken.
    Outcome run_locked(const std::string& line, int number);
    void run_command(const Json& command);
    void send(const Json& command);
    void request(const Json& command);
    void config(const Json& command);
    void gpio(const Json& command);
    void controller(const Json& command);
    void person(const Json& command);
    void wait_ms(const Json& command);
    void dump(const Json& command);
    void wait_for(const Json& command);
    void note(const Json& command);
    void expect(const Json& command);
    void expect_none(const Json& command);
    simulator::Turnstile& turnstile(const char* command);
    std::string where(int number) const;
    // Every action calls this as it starts to act: the recorder notes it, and
    // waits and expectations look from here on.
    void begin_action();

    Output& output_;
    Window& window_;
    standin::Database& database_;
    simulator::Turnstile* turnstile_;
    std::ostream& errors_;
    std::string source_;
    Recorder* recorder_ = nullptr;
    std::string refusal_;  // why actions are refused; empty: they run
    std::atomic<int> expectations_{0};
    std::atomic<int> met_{0};
    std::atomic<int> bad_lines_{0};
    std::atomic<bool> init_failure_expected_{false};
    // One line runs at a time, from whichever thread: a line takes the turn
    // for as long as it runs.
    class Turn;
    std::mutex turn_mutex_;
    std::condition_variable turn_free_;
    bool turn_taken_ = false;                                 // guarded by turn_mutex_
    static constexpr long long kLongestWait = 3600LL * 1000;  // ms
    long long longest_wait_ = kLongestWait;                   // ms; with the line's turn
};

}  // namespace terminal
