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

#include <algorithm>
#include <array>
#include <cstring>
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

// ---------------------------------------------------------------- the tables

// What each controller letter, a to m (codes 0 to 12), does once it passes
// the time filter: it is dropped when it comes fewer than `dropped_below` ms
// after the last accepted event (0: never dropped); a passage stores an
// access event.
enum class Does { mode, frees, turn, give_up, nothing, report };
struct EventRow {
    const char* name;
    Does does;
    int value;  // mode, frees: the state set; turn: the side (0 left, 1 right)
    int dropped_below;
    bool passage;
};
const EventRow kEvents[] = {
    {"ALWAYS BLOCKED", Does::mode, 0, 0, false},    {"ALWAYS FREE LEFT", Does::mode, 1, 0, false},
    {"ALWAYS FREE RIGHT", Does::mode, 2, 0, false}, {"ALWAYS FREE BOTH", Does::mode, 3, 0, false},
    {"FREE LEFT", Does::frees, 1, 0, false},        {"FREE RIGHT", Does::frees, 2, 0, false},
    {"FREE BOTH", Does::frees, 3, 0, false},        {"TURN LEFT", Does::turn, 0, 0, true},
    {"TURN RIGHT", Does::turn, 1, 0, true},         {"GIVE UP", Does::give_up, 0, 500, true},
    {"BLOCKED", Does::nothing, 0, 100, false},      {"EVENT_READY", Does::report, 0, 0, false},
    {"EVENT_NOT_READY", Does::report, 0, 0, false},
};
const char* const kStateNames[] = {"BLOCKED", "LEFT LIBERATED", "RIGHT LIBERATED",
                                   "BOTH LIBERATED"};

// A turn by the current state, [state][side]; `completes` counts it and
// gives the two-way release's record the side taken, when the default state
// is one of those marked in kTwoWayRelease.
enum Turn { refused, counted, completes };
const Turn kTurns[4][2] = {
    // left      right
    {refused, refused},      // BLOCKED
    {counted, refused},      // LEFT LIBERATED
    {refused, counted},      // RIGHT LIBERATED
    {completes, completes},  // BOTH LIBERATED
};
const bool kTwoWayRelease[4] = {true, true, true, false};  // by default state
const char* const kRefusals[2] = {"ERROR: Cannot turn left  while blocked!!",
                                  "ERROR: Cannot turn right while blocked!!"};

// By "gateway" ("clockwise" or not) and side: the counter of the way (2
// entrance, 3 exit; 0 and 1 are the left and right counters) and the portal.
struct Way {
    int counter;
    int portal;
};
const Way kWays[2][2] = {
    // left      right
    {{2, 1}, {3, 2}},  // anything else
    {{3, 2}, {2, 1}},  // "clockwise"
};

// Whether a release is pending, [default][current]: its record is the one a
// give-up marks, and the turnstile goes back to its default first.
const bool kPending[4][4] = {
    {false, true, true, true},
    {true, false, true, true},
    {true, true, false, true},
    {false, false, false, false},
};

// The mode command that brings the turnstile from the current state back to
// the default one, [default][current]; null: no command, the state is set to
// the default.
const char* const kBackToDefault[4][4] = {
    // current: BLOCKED  LEFT      RIGHT     BOTH
    {nullptr, "i", "i", "i"},        // default BLOCKED
    {nullptr, nullptr, "al", "al"},  // default LEFT_LIBERATED
    {nullptr, "ar", nullptr, "ar"},  // default RIGHT_LIBERATED
    {"ab", "ab", "ab", nullptr},     // default BOTH_LIBERATED
};

// The command of a release direction: the first row whose default and
// current states (as digits) match; null: nothing at all.
const char* const kDirections[] = {"clockwise", "anticlockwise", "both"};
const struct {
    const char* defaults;
    const char* currents;
    const char* commands[3];  // by kDirections
} kReleases[] = {
    {"3", "0123", {nullptr, nullptr, nullptr}},          {"12", "0123", {"both", "both", "both"}},
    {"0", "1", {"both", "anticlockwise", "both"}},       {"0", "2", {"clockwise", "both", "both"}},
    {"0", "03", {"clockwise", "anticlockwise", "both"}},
};
// The reasons whose release writes an exit-request record, with their text.
const std::pair<int, const char*> kRecordedReasons[] = {{0, "UNKNOWN"}, {2, "REX"}, {3, "WEB"}};

const std::pair<const char*, const char*> kCommandTexts[] = {
    {"clockwise", "r5"},       {"anticlockwise", "l5"},       {"both", "b5"}, {"always", "ab"},
    {"alwaysclockwise", "ar"}, {"alwaysanticlockwise", "al"}, {"idle", "i"}};

// "operation_mode" to the command written, by "gateway" (not "clockwise",
// "clockwise"); any other text writes "i".
const struct {
    const char* mode;
    const char* commands[2];
} kModes[] = {
    {"entrance_open", {"al", "ar"}}, {"exit_open", {"ar", "al"}}, {"both_open", {"ab", "ab"}}};

// Enabling and disabling: what goes out, in order.
const Texts kEnabling = {
    "gpio_set_value{gpio=10,value=0}",       "gpio_set_value{gpio=11,value=0}",
    "gpio_set_value{gpio=12,value=0}",       "gpio_update{gpio=20,enabled=0} (sync)",
    "gpio_update{gpio=21,enabled=0} (sync)", "gpio_update{gpio=10,enabled=0} (sync)",
    "gpio_update{gpio=11,enabled=0} (sync)", "write e\\0",
    "catra_catra_enabled_changed{enabled=1}"};
const Texts kDisabling = {"write d\\0",
                          "gpio_update{gpio=20,enabled=1} (sync)",
                          "gpio_update{gpio=21,enabled=1} (sync)",
                          "gpio_update{gpio=10,enabled=1} (sync)",
                          "gpio_update{gpio=11,enabled=1} (sync)",
                          "catra_catra_enabled_changed{enabled=0}"};

bool has_digit(const char* digits, int value)
{
    return std::strchr(digits, '0' + value) != nullptr;
}

// ---------------------------------------------------------------- the model

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
    void write(const std::string& text)
    {
        log("do_execute_command", "CATRA command: " + text + " no fd: " + std::to_string(fd));
        out.push_back("write " + text + "\\0");
    }
    void command(const std::string& name)
    {
        for (const auto& [command, text] : kCommandTexts)
            if (name == command)
                write(text);
    }
    void set_current(int state)
    {
        if (state != current) {
            out.push_back("catra_state_changed{state=" + std::to_string(state) + "}");
            log("send_message_catra_state_changed",
                std::string("Catra state : ") + kStateNames[state]);
        }
        current = state;
    }
    void set_default(int state)
    {
        if (state != fallback) {
            out.push_back("catra_default_state_changed{default_state=" + std::to_string(state) +
                          "}");
            log("send_message_catra_default_state_changed",
                std::string("Catra default_state : ") + kStateNames[state]);
        }
        fallback = state;
    }
    void back_to_default()
    {
        if (const char* text = kBackToDefault[fallback][current])
            write(text);
        else
            set_current(fallback);
    }
    void publish(int event)
    {
        const EventRow& row = kEvents[event];
        if (row.passage)
            access_events.push_back("catra " + std::string(row.name) + " " + uuid + " 1");
        out.push_back("catra_event{event=" + std::to_string(event) + ",event_name=\"" + row.name +
                      "\",timestamp=T,uuid=\"" + uuid + "\",access_event_id=" +
                      std::to_string(row.passage ? access_events.size() : 0) + "}");
        if (row.passage)
            uuid.clear();
    }
    void give_up(std::array<int, 4>& record)
    {
        log("create_give_up_log_local",
            "Portal_id: " + std::to_string(record[0]) + ", user_id: " + std::to_string(record[2]));
        record[1] = 13;
        record[3] = 1;
    }

    void letter(int event, long advance)
    {
        const EventRow& row = kEvents[event];
        now += advance;
        log("new_catra_event", std::string("Catra event : ") + row.name);
        if (row.does == Does::report)
            return publish(event);
        if (row.dropped_below > 0 && now - last_event < row.dropped_below)
            return;
        last_event = now;
        publish(event);
        switch (row.does) {
            case Does::mode:
                set_default(row.value);
                set_current(row.value);
                break;
            case Does::frees: set_current(row.value); break;
            case Does::turn: turn(row.value); break;
            case Does::give_up:
                if (kPending[fallback][current])
                    give_up(records.back());
                back_to_default();
                break;
            default: break;
        }
    }

    void turn(int side)
    {
        const Turn turn = kTurns[current][side];
        const Way way = kWays[clockwise][side];
        if (turn == completes && kTwoWayRelease[fallback]) {
            records.back()[0] = way.portal;
            records.back()[3] = 1;
            log("update_last_log", "portal_id: " + std::to_string(way.portal) +
                                       ", user_id: " + std::to_string(records.back()[2]));
        }
        if (turn == refused) {
            logs.push_back(std::string("error: ") + kRefusals[side]);
        } else {
            ++counters[side];
            ++counters[way.counter];
        }
        back_to_default();
    }

    void release(const std::string& direction, int reason, const std::string& new_uuid)
    {
        if (!enabled)
            return;
        uuid = new_uuid;
        log("liberate_catra_callback", "UUID: " + uuid);
        const auto named = std::find(std::begin(kDirections), std::end(kDirections), direction);
        if (named == std::end(kDirections))
            return command(direction);
        const char* chosen = nullptr;
        for (const auto& row : kReleases) {
            if (has_digit(row.defaults, fallback) && has_digit(row.currents, current)) {
                chosen = row.commands[named - std::begin(kDirections)];
                break;
            }
        }
        if (chosen == nullptr)
            return;
        for (const auto& [recorded, text] : kRecordedReasons) {
            if (reason == recorded) {
                log("log_catra_liberated", "Allow " + direction + "! Reason: " + text);
                records.push_back({1, 12, 0, 1});
            }
        }
        if (kPending[fallback][current]) {
            give_up(records[records.size() - 2]);
            back_to_default();
        }
        command(chosen);
    }

    void operation_mode(const std::string& mode)
    {
        const char* text = "i";
        for (const auto& row : kModes)
            if (mode == row.mode)
                text = row.commands[clockwise];
        write(text);
    }

    void enable(bool wanted)
    {
        if (wanted == enabled)
            return;
        const Texts& sent = wanted ? kEnabling : kDisabling;
        out.insert(out.end(), sent.begin(), sent.end());
        log("send_message_catra_enabled_changed",
            std::string("Catra enabled : ") + (wanted ? "1" : "0"));
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
