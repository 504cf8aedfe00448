// The turnstile as a whole, against a model of it: RapidCheck generates
// sequences of controller letters (with the time between them), release
// requests, operation-mode and gateway changes and enable/disable requests,
// runs them on the plug-in's functions on this one thread, and compares after
// every step the controller texts and bus messages (in order), the error log,
// the access-log records, the turn counters and the states with what the
// model says. A failing sequence is shrunk to the shortest one that fails;
// RC_PARAMS="seed=N" replays one.
//
// The model is the turnstile's decision tables written as data: which mode
// command brings the turnstile back to its default, which command a release
// writes, how a turn is counted, when a give-up marks a record, and the time
// filter of the blocked and given-up events.
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <array>
#include <mutex>
#include <ostream>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "catra_internal.h"
#include "controller_line_test.h"

namespace catra_test {

struct Op {
    enum Kind { letter, release, mode, gateway, enable } kind = letter;
    char code = 'a';    // letter: the byte the controller reports
    long advance = 0;   // letter: ms since the previous step
    std::string text;   // release: the direction; mode: the operation mode
    int reason = 0;     // release
    bool flag = false;  // gateway: clockwise; enable: the wanted flag
};

void showValue(const Op& op, std::ostream& out)
{
    switch (op.kind) {
        case Op::letter: out << "letter " << op.code << " after " << op.advance << " ms"; break;
        case Op::release: out << "release " << op.text << " reason " << op.reason; break;
        case Op::mode: out << "operation_mode \"" << op.text << '"'; break;
        case Op::gateway: out << "gateway " << (op.flag ? "clockwise" : "anticlockwise"); break;
        case Op::enable: out << "enabled " << op.flag; break;
    }
}

namespace {

// Access-log records, oldest first: portal, event, user, and whether the
// record carries the time of a write (the seeded ones are older).
using Records = std::vector<std::array<int, 4>>;

const char* const kEventNames[] = {
    "ALWAYS BLOCKED", "ALWAYS FREE LEFT", "ALWAYS FREE RIGHT", "ALWAYS FREE BOTH", "FREE LEFT",
    "FREE RIGHT",     "FREE BOTH",        "TURN LEFT",         "TURN RIGHT",       "GIVE UP",
    "BLOCKED",        "EVENT_READY",      "EVENT_NOT_READY"};
const char* const kStateNames[] = {"BLOCKED", "LEFT LIBERATED", "RIGHT LIBERATED",
                                   "BOTH LIBERATED"};
const char* const kReasonNames[] = {"UNKNOWN", "AUTHORIZED", "REX", "WEB"};

// The mode command that brings the turnstile from the current state back to
// the default one; null: no command, the state is set to the default.
const char* const kBackToDefault[4][4] = {
    // current: BLOCKED  LEFT      RIGHT     BOTH
    {nullptr, "i", "i", "i"},        // default BLOCKED
    {nullptr, nullptr, "al", "al"},  // default LEFT_LIBERATED
    {nullptr, "ar", nullptr, "ar"},  // default RIGHT_LIBERATED
    {"ab", "ab", "ab", nullptr},     // default BOTH_LIBERATED
};

std::string command_text(const std::string& name)
{
    const std::pair<const char*, const char*> texts[] = {
        {"clockwise", "r5"},       {"anticlockwise", "l5"},       {"both", "b5"}, {"always", "ab"},
        {"alwaysclockwise", "ar"}, {"alwaysanticlockwise", "al"}, {"idle", "i"}};
    for (const auto& [command, text] : texts)
        if (name == command)
            return text;
    return "";
}

struct Model {
    int current = 0;
    int fallback = 0;  // the default state
    bool enabled = true;
    bool clockwise = false;  // "gateway" is "clockwise"
    std::string uuid;
    long now = 0;
    long last_event = 0;
    std::array<long long, 4> counters{};  // left, right, entrance, exit turns
    Records records{{1, 1, 100, 0}, {2, 1, 101, 0}};
    Texts access_events;  // module, name, uuid and device of each, oldest first
    int fd = -1;          // the controller's descriptor, as the command lines show it
    Texts out;            // what the step writes and sends
    Texts logs;           // the step's debug and error lines

    void log(const std::string& function, const std::string& text)
    {
        logs.push_back(function + ": " + text);
    }
    void write(const std::string& text, bool command = true)
    {
        if (command)
            log("do_execute_command", "CATRA command: " + text + " no fd: " + std::to_string(fd));
        out.push_back("write " + text + "\\0");
    }
    void set_current(int state)
    {
        if (state != current) {
            out.push_back("catra_state_changed{state=" + std::to_string(state) + "}");
            log("send_message_catra_state_changed",
                "Catra state : " + std::string(kStateNames[state]));
        }
        current = state;
    }
    void set_default(int state)
    {
        if (state != fallback) {
            out.push_back("catra_default_state_changed{default_state=" + std::to_string(state) +
                          "}");
            log("send_message_catra_default_state_changed",
                "Catra default_state : " + std::string(kStateNames[state]));
        }
        fallback = state;
    }
    void back_to_default()
    {
        if (const char* command = kBackToDefault[fallback][current])
            write(command);
        else
            set_current(fallback);
    }
    void publish(int event)
    {
        const bool passage = event >= 7 && event <= 9;
        if (passage)
            access_events.push_back("catra " + std::string(kEventNames[event]) + " " + uuid + " 1");
        out.push_back("catra_event{event=" + std::to_string(event) + ",event_name=\"" +
                      kEventNames[event] + "\",timestamp=T,uuid=\"" + uuid + "\",access_event_id=" +
                      std::to_string(passage ? access_events.size() : 0) + "}");
        if (passage)
            uuid.clear();
    }
    void give_up(std::array<int, 4>& record, const char* function)
    {
        log(function,
            "Portal_id: " + std::to_string(record[0]) + ", user_id: " + std::to_string(record[2]));
        record[1] = 13;
        record[3] = 1;
    }

    void letter(int event, long advance)
    {
        now += advance;
        log("new_catra_event", "Catra event : " + std::string(kEventNames[event]));
        if (event == 11 || event == 12) {
            publish(event);
            return;
        }
        if ((event == 10 && now - last_event <= 99) || (event == 9 && now - last_event < 500))
            return;
        last_event = now;
        publish(event);
        if (event <= 3) {
            set_default(event);
            set_current(event);
        } else if (event <= 6) {
            set_current(event - 3);
        } else if (event <= 8) {
            turn(event == 8);
        } else if (event == 9) {
            if (fallback != 3 && fallback != current)
                give_up(records.back(), "create_give_up_log_local");
            back_to_default();
        }
    }

    void turn(bool right)
    {
        const bool free = current == 3 || current == (right ? 2 : 1);
        if (current == 3 && fallback != 3) {
            records.back()[0] = right == clockwise ? 1 : 2;
            records.back()[3] = 1;
            log("update_last_log", "portal_id: " + std::to_string(records.back()[0]) +
                                       ", user_id: " + std::to_string(records.back()[2]));
        }
        if (free) {
            ++counters[right ? 1 : 0];
            ++counters[right == clockwise ? 2 : 3];
        } else {
            logs.push_back(right ? "error: ERROR: Cannot turn right while blocked!!"
                                 : "error: ERROR: Cannot turn left  while blocked!!");
        }
        back_to_default();
    }

    void release(const std::string& direction, int reason, const std::string& new_uuid)
    {
        if (!enabled)
            return;
        uuid = new_uuid;
        log("liberate_catra_callback", "UUID: " + uuid);
        const bool timed =
            direction == "clockwise" || direction == "anticlockwise" || direction == "both";
        if (timed && fallback == 3)
            return;
        // Decision table of a timed release: both ways when a permanent mode
        // is the default or when the other side is already free.
        const bool widen = timed && (fallback != 0 || (current == 1 && direction == "clockwise") ||
                                     (current == 2 && direction == "anticlockwise"));
        if (timed) {
            if (reason != 1 && reason >= 0 && reason <= 3) {
                log("log_catra_liberated",
                    "Allow " + direction + "! Reason: " + kReasonNames[reason]);
                records.push_back({1, 12, 0, 1});
            }
            if (fallback != current) {
                give_up(records[records.size() - 2], "create_give_up_log_local");
                back_to_default();
            }
        }
        write(command_text(widen ? "both" : direction));
    }

    void operation_mode(const std::string& mode)
    {
        if (mode == "entrance_open")
            write(clockwise ? "ar" : "al");
        else if (mode == "exit_open")
            write(clockwise ? "al" : "ar");
        else
            write(mode == "both_open" ? "ab" : "i");
    }

    void enable(bool wanted)
    {
        if (wanted == enabled)
            return;
        if (wanted) {
            for (const char* gpio : {"10", "11", "12"})
                out.push_back("gpio_set_value{gpio=" + std::string(gpio) + ",value=0}");
        } else {
            write("d", false);
        }
        for (const char* gpio : {"20", "21", "10", "11"})
            out.push_back("gpio_update{gpio=" + std::string(gpio) +
                          ",enabled=" + (wanted ? "0" : "1") + "} (sync)");
        if (wanted)
            write("e", false);
        log("send_message_catra_enabled_changed",
            std::string("Catra enabled : ") + (wanted ? "1" : "0"));
        out.push_back("catra_catra_enabled_changed{enabled=" + std::string(wanted ? "1" : "0") +
                      "}");
        enabled = wanted;
    }
};

rc::Gen<Op> ops()
{
    using namespace rc::gen;
    const auto kind = [](Op::Kind kind) { return set(&Op::kind, just(kind)); };
    return weightedOneOf<Op>({
        {8, build<Op>(kind(Op::letter),
                      set(&Op::code,
                          element('a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l', 'm')),
                      set(&Op::advance, element(0L, 60L, 99L, 100L, 499L, 500L, 2000L)))},
        {4, build<Op>(kind(Op::release),
                      set(&Op::text,
                          element<std::string>("clockwise", "anticlockwise", "both", "always",
                                               "alwaysclockwise", "alwaysanticlockwise", "idle")),
                      set(&Op::reason, element(0, 1, 2, 3, 7)))},
        {1, build<Op>(kind(Op::mode),
                      set(&Op::text, element<std::string>("entrance_open", "exit_open", "both_open",
                                                          "Entrance_open", "")))},
        {1, build<Op>(kind(Op::gateway), set(&Op::flag))},
        {1, build<Op>(kind(Op::enable), set(&Op::flag))},
    });
}

// The plug-in's state as the set-up leaves it: enabled and blocked, with the
// default configuration's GPIOs.
class Turnstile : public ControllerLineTest {
protected:
    void SetUp() override
    {
        ControllerLineTest::SetUp();
        config().erase("catra", "gateway");
        logs().set_echo(false);
    }
    void TearDown() override
    {
        logs().set_echo(true);
        ControllerLineTest::TearDown();
    }

    void run(const Op& op, int step)
    {
        switch (op.kind) {
            case Op::letter: {
                clock().advance_ms(op.advance);
                std::lock_guard<std::mutex> lock(state_mutex);
                new_catra_event(op.code - 'a');
                break;
            }
            case Op::release:
                handle(liberate_catra_callback, {{"catra_direction", op.text},
                                                 {"uuid", "u" + std::to_string(step)},
                                                 {"catra_reason", op.reason}});
                break;
            case Op::mode: catra_config_set_callback("catra", "operation_mode", op.text); break;
            case Op::gateway:
                config().set("catra", "gateway", op.flag ? "clockwise" : "anticlockwise");
                break;
            case Op::enable: handle(catra_set_enabled_callback, {{"enabled", op.flag}}); break;
        }
    }

    Records records()
    {
        Records rows;
        for (const auto& row :
             database().query("SELECT portal_id, event, user_id, time > 100000 FROM access_logs "
                              "ORDER BY id"))
            rows.push_back(
                {std::stoi(row[0]), std::stoi(row[1]), std::stoi(row[2]), std::stoi(row[3])});
        return rows;
    }
    Texts access_events()
    {
        Texts rows;
        for (const auto& row : database().query(
                 "SELECT module, name, uuid, device_id FROM access_events ORDER BY id"))
            rows.push_back(row[0] + " " + row[1] + " " + row[2] + " " + row[3]);
        return rows;
    }
    // The debug and error lines kept since the step began.
    Texts log_lines()
    {
        Texts lines;
        for (const standin::LogLine& line : logs().lines()) {
            if (line.kind == standin::LogLine::Kind::debug)
                lines.push_back(line.function + ": " + line.text);
            else if (line.kind == standin::LogLine::Kind::error)
                lines.push_back("error: " + line.text);
        }
        return lines;
    }
    std::array<long long, 4> counters()
    {
        return {database().counter("left_turns"), database().counter("right_turns"),
                database().counter("entrance_turns"), database().counter("exit_turns")};
    }
};

RC_GTEST_FIXTURE_PROP(Turnstile, FollowsItsDecisionTables, ())
{
    const std::vector<Op> sequence = *rc::gen::container<std::vector<Op>>(ops());
    Model model;
    model.fd = catra_fd;
    const std::regex timestamp("timestamp=[0-9]+");
    for (std::size_t step = 0; step < sequence.size(); ++step) {
        const Op& op = sequence[step];
        model.out.clear();
        model.logs.clear();
        switch (op.kind) {
            case Op::letter: model.letter(op.code - 'a', op.advance); break;
            case Op::release: model.release(op.text, op.reason, "u" + std::to_string(step)); break;
            case Op::mode: model.operation_mode(op.text); break;
            case Op::gateway: model.clockwise = op.flag; break;
            case Op::enable: model.enable(op.flag); break;
        }

        logs().clear();
        recorder().clear();
        run(op, static_cast<int>(step));
        Texts seen;
        for (const std::string& line : recorder().trace())
            seen.push_back(std::regex_replace(line, timestamp, "timestamp=T"));

        RC_ASSERT(seen == model.out);
        RC_ASSERT(log_lines() == model.logs);
        RC_ASSERT(records() == model.records);
        RC_ASSERT(access_events() == model.access_events);
        RC_ASSERT(counters() == model.counters);
        RC_ASSERT(current_state == model.current);
        RC_ASSERT(default_state == model.fallback);
        RC_ASSERT(catra_enabled == model.enabled);
        RC_ASSERT(release_uuid == model.uuid);
        // Nothing the controller was sent may pile up on the line.
        pty().drain();
    }
}

}  // namespace
}  // namespace catra_test
