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
//
// Blank lines and lines starting with # are skipped. A line that is not such
// a command is reported on the error stream with its number, and the script
// goes on with the next line.
#pragma once

#include <iosfwd>
#include <mutex>
#include <string>

#include "output.h"
#include "simulator/turnstile.h"
#include "standin/standin.h"

namespace terminal {

class Script {
public:
    // `turnstile` is null when the plug-in drives a real controller device.
    Script(Output& output, standin::Database& database, simulator::Turnstile* turnstile,
           std::ostream& errors);

    // Runs every line of the input, in order.
    void run(std::istream& input);
    // Runs one line; `number` names it in error reports.
    void execute(const std::string& line, int number);
    // Runs one line as execute does and returns its error text ("" when it
    // ran) instead of reporting it. Lines run one at a time, from any thread.
    std::string run_line(const std::string& line);

private:
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
    simulator::Turnstile& turnstile(const char* command);

    Output& output_;
    standin::Database& database_;
    simulator::Turnstile* turnstile_;
    std::ostream& errors_;
    std::mutex line_mutex_;
};

}  // namespace terminal
