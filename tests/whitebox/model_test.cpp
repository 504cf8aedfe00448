// The turnstile as a whole, against a model of it: RapidCheck generates
// sequences of controller letters (with the time between them), release
// requests, operation-mode and gateway changes and enable/disable requests,
// runs them on the plug-in's functions on this one thread, and compares after
// every step the controller texts and bus messages (in order), the error
// lines, the access-log records and access events, the turn counters and the
// states with what the model says. A failing sequence is shrunk to the shortest one that fails;
// RC_PARAMS="seed=N" replays one.
//
// The model is the turnstile's decision tables written as data (what each
// letter does, turns by state, ways by gateway, the command back to the
// default, the command of a release, the modes; enabling and disabling are the
// fixture's), read by a few generic lines.
//
// Beside it, a check that owes nothing to the tables: the same requests, with
// people pushing instead of letters, against the simulated controller on the
// controller line, which answers each command with its letter and lets a
// person through only where a side is free.
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <mutex>
#include <ostream>
#include <regex>
#include <string>
#include <variant>
#include <vector>

#include "catra_internal.h"
#include "controller_line_test.h"
#include "simulator/turnstile.h"

namespace catra_test {

struct Op {
    enum Kind { letter, release, mode, gateway, enable, verbose, push } kind = letter;
    char code = 'a';    // letter: the byte the controller reports
    long advance = 0;   // letter: ms since the previous step
    std::string text;   // release: the direction; mode: the operation mode; gateway
    int number = 0;     // release: the reason; enable: "enabled"; verbose: the setting;
                        // push: the side (0 left, 1 right)
    bool bare = false;  // release: without "uuid" and "catra_reason"
};

void showValue(const Op& op, std::ostream& out)
{
    const char* const kinds[] = {
        "letter", "release", "operation_mode", "gateway", "enabled", "verbose_logging", "push"};
    out << kinds[op.kind] << ' ';
    if (op.kind == Op::letter)
        out << op.code << " after " << op.advance << " ms";
    else
        out << '"' << op.text << "\" " << op.number << (op.bare ? " bare" : "");
}

namespace {

// ---------------------------------------------------------------- the tables

// What each controller letter, a to m (codes 0 to 12), does once it passes
// the time filter, where it is dropped when it comes fewer than
// `dropped_below` ms after the last accepted event (0: never). A report
// passes no filter and leaves its clock alone; a turn or a give-up stores an
// access event.
enum class Does { mode, frees, turn, give_up, nothing, report };
const struct {
    const char* name;
    Does does;
    int value;  // mode, frees: the state set; turn: the side (0 left, 1 right)
    int dropped_below;
} kEvents[] = {
    {"ALWAYS BLOCKED", Does::mode, 0, 0},    {"ALWAYS FREE LEFT", Does::mode, 1, 0},
    {"ALWAYS FREE RIGHT", Does::mode, 2, 0}, {"ALWAYS FREE BOTH", Does::mode, 3, 0},
    {"FREE LEFT", Does::frees, 1, 0},        {"FREE RIGHT", Does::frees, 2, 0},
    {"FREE BOTH", Does::frees, 3, 0},        {"TURN LEFT", Does::turn, 0, 0},
    {"TURN RIGHT", Does::turn, 1, 0},        {"GIVE UP", Does::give_up, 0, 500},
    {"BLOCKED", Does::nothing, 0, 100},      {"EVENT_READY", Does::report, 0, 0},
    {"EVENT_NOT_READY", Does::report, 0, 0},
};

// A turn by the current state, [state][side]: refused (with kRefusals[side]),
// counted, or counted after the two-way release's record learns the side taken
// (unless the default state is BOTH LIBERATED).
enum Turn { refused, counted, completes };
const Turn kTurns[4][2] = {
    {refused, refused}, {counted, refused}, {refused, counted}, {completes, completes}};

// By "gateway" (anything else, "clockwise") and side: the counter of the way
// (2 entrance, 3 exit; 0 and 1 are the left and right counters) and the portal.
const struct {
    int counter;
    int portal;
} kWays[2][2] = {{{2, 1}, {3, 2}}, {{3, 2}, {2, 1}}};

// Whether a release is pending, [default][current]: a give-up marks its
// record, and a new release gives it up and goes back to the default first.
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
    {nullptr, "i", "i", "i"},
    {nullptr, nullptr, "al", "al"},
    {nullptr, "ar", nullptr, "ar"},
    {"ab", "ab", "ab", nullptr},
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
// The reasons whose release writes an exit-request record (when verbose
// logging is on); and the portal of each direction's record, through its
// action (3, 2 and 4: portals 1, 2 and 3 in the fixture).
const bool kRecordedReasons[] = {true, false, true, true};
const int kRecordPortals[] = {1, 2, 3};  // by kDirections

const std::pair<const char*, const char*> kCommandTexts[] = {
    {"clockwise", "r5"},       {"anticlockwise", "l5"},       {"both", "b5"}, {"always", "ab"},
    {"alwaysclockwise", "ar"}, {"alwaysanticlockwise", "al"}, {"idle", "i"}};

// "operation_mode" to the command written, by "gateway" (anything else,
// "clockwise"); any other mode writes "i".
const struct {
    const char* mode;
    const char* commands[2];
} kModes[] = {
    {"entrance_open", {"al", "ar"}}, {"exit_open", {"ar", "al"}}, {"both_open", {"ab", "ab"}}};

// ---------------------------------------------------------------- the model

// What the turnstile holds and what one step made it do. Records: the
// access-log records, oldest first, as portal, event, user and whether the
// record carries a time of the run (the seeded ones are older).
struct Model {
    int current = 0;
    int fallback = 0;  // the default state
    bool enabled = true;
    bool clockwise = false;  // "gateway" is "clockwise"
    bool verbose = true;     // "verbose_logging"
    std::string uuid;
    long now = 0;
    long last_event = 0;
    std::array<long long, 4> counters{};  // left, right, entrance, exit turns
    std::vector<std::array<int, 4>> records{{1, 1, 100, 0}, {2, 1, 101, 0}};
    Texts access_events;  // module, name, uuid, device and a time of the run, oldest first
    Texts out;            // what the step writes and sends
    Texts errors;         // the step's error lines

    void write(const std::string& text) { out.push_back("write " + text + "\\0"); }
    void command(const std::string& name)
    {
        for (const auto& [command, text] : kCommandTexts)
            if (name == command)
                write(text);
    }
    void set(int& state, int value, const std::string& name)
    {
        if (value != state)
            out.push_back("catra_" + name + "_changed{" + name + "=" + std::to_string(value) + "}");
        state = value;
    }
    void back_to_default()
    {
        if (const char* text = kBackToDefault[fallback][current])
            write(text);
        else
            set(current, fallback, "state");
    }
    void give_up(std::array<int, 4>& record)
    {
        record[1] = 13;
        record[3] = 1;
    }

    void letter(int event, long advance)
    {
        const auto& row = kEvents[event];
        now += advance;
        if (row.does != Does::report) {
            if (row.dropped_below > 0 && now - last_event < row.dropped_below)
                return;
            last_event = now;
        }
        const bool passage = row.does == Does::turn || row.does == Does::give_up;
        if (passage)
            access_events.push_back("catra " + std::string(row.name) + " " + uuid + " 1 1");
        out.push_back("catra_event{event=" + std::to_string(event) + ",event_name=\"" + row.name +
                      "\",timestamp=T,uuid=\"" + uuid + "\",access_event_id=" +
                      std::to_string(passage ? access_events.size() : 0) + "}");
        if (passage)
            uuid.clear();
        if (row.does == Does::mode)
            set(fallback, row.value, "default_state");
        if (row.does == Does::mode || row.does == Does::frees)
            set(current, row.value, "state");
        if (row.does == Does::turn)
            turn(row.value);
        if (row.does == Does::give_up) {
            if (kPending[fallback][current])
                give_up(records.back());
            back_to_default();
        }
    }

    void turn(int side)
    {
        const Turn turn = kTurns[current][side];
        const auto way = kWays[clockwise][side];
        if (turn == completes && fallback != 3) {
            records.back()[0] = way.portal;
            records.back()[3] = 1;
        }
        if (turn == refused) {
            errors.push_back(kRefusals[side]);
        } else {
            ++counters[side];
            ++counters[way.counter];
        }
        back_to_default();
    }

    void release(const Op& op, const std::string& new_uuid)
    {
        if (!enabled)
            return;
        const std::string& direction = op.text;
        const int reason = op.bare ? 0 : op.number;
        if (!op.bare)
            uuid = new_uuid;
        const auto named = std::find(std::begin(kDirections), std::end(kDirections), direction);
        const auto known = std::find_if(std::begin(kCommandTexts), std::end(kCommandTexts),
                                        [&](auto& row) { return direction == row.first; });
        if (known == std::end(kCommandTexts))
            return;
        if (named == std::end(kDirections))
            return command(direction);
        const auto row = std::find_if(std::begin(kReleases), std::end(kReleases), [&](auto& row) {
            return std::strchr(row.defaults, '0' + fallback) &&
                   std::strchr(row.currents, '0' + current);
        });
        const char* chosen = row->commands[named - std::begin(kDirections)];
        if (chosen == nullptr)
            return;
        if (verbose && reason >= 0 && reason <= 3 && kRecordedReasons[reason])
            records.push_back({kRecordPortals[named - std::begin(kDirections)], 12, 0, 1});
        if (kPending[fallback][current]) {
            give_up(records[records.size() - 2]);
            back_to_default();
        }
        command(chosen);
    }

    void operation_mode(const std::string& mode)
    {
        const auto row = std::find_if(std::begin(kModes), std::end(kModes),
                                      [&](auto& row) { return mode == row.mode; });
        write(row == std::end(kModes) ? "i" : row->commands[clockwise]);
    }

    void enable(bool wanted)
    {
        if (wanted == enabled)
            return;
        const Texts& sent = wanted ? kEnabling : kDisabling;
        out.insert(out.end(), sent.begin(), sent.end());
        enabled = wanted;
    }

    void step(const Op& op, const std::string& new_uuid)
    {
        out.clear();
        errors.clear();
        switch (op.kind) {
            case Op::letter: letter(op.code - 'a', op.advance); break;
            case Op::release: release(op, new_uuid); break;
            case Op::mode: operation_mode(op.text); break;
            case Op::gateway: clockwise = op.text == "clockwise"; break;
            case Op::enable: enable(op.number != 0); break;
            case Op::verbose: verbose = op.number != 0; break;
            case Op::push: break;
        }
    }
};

// The steps: controller letters, or with `pushes` people pushing on a side
// instead, among the requests.
rc::Gen<Op> ops(bool pushes)
{
    using namespace rc::gen;
    const auto kind = [](Op::Kind kind) { return set(&Op::kind, just(kind)); };
    const auto texts = [](auto... texts) { return set(&Op::text, element<std::string>(texts...)); };
    return weightedOneOf<Op>({
        {8, pushes ? build<Op>(kind(Op::push), set(&Op::number, element(0, 1)))
                   : build<Op>(kind(Op::letter), set(&Op::code, inRange('a', 'n')),
                               set(&Op::advance, element(0L, 60L, 99L, 100L, 499L, 500L, 2000L)))},
        {4, build<Op>(kind(Op::release),
                      texts("clockwise", "anticlockwise", "both", "always", "alwaysclockwise",
                            "alwaysanticlockwise", "idle", "Clockwise", ""),
                      set(&Op::number, element(0, 1, 2, 3, 7, -1)),
                      set(&Op::bare, element(false, false, false, true)))},
        {1, build<Op>(kind(Op::mode),
                      texts("entrance_open", "exit_open", "both_open", "Entrance_open", ""))},
        {1, build<Op>(kind(Op::gateway), texts("clockwise", "anticlockwise", "Clockwise"))},
        {pushes ? 0u : 1u, build<Op>(kind(Op::enable), set(&Op::number, element(0, 1, 7, -1)))},
        {1, build<Op>(kind(Op::verbose), set(&Op::number, element(0, 1)))},
    });
}

// The plug-in's state as the set-up leaves it: enabled and blocked, with the
// default configuration's GPIOs; the release actions 2, 3 and 4 lead to
// portals 2, 1 and 3, so that a record's portal tells its action.
class Turnstile : public ControllerLineTest {
protected:
    void SetUp() override
    {
        ControllerLineTest::SetUp();
        standin::Logs::instance().set_echo(false);
        database().add_portal(3, kDeviceId, "portal 3");
        database().exec(
            "DELETE FROM action_portals;"
            "INSERT INTO action_portals(action_id, portal_id) VALUES (2, 2), (3, 1), (4, 3);");
    }

    void run(const Op& op, const std::string& uuid)
    {
        switch (op.kind) {
            case Op::letter: {
                clock().advance_ms(op.advance);
                std::lock_guard<std::mutex> lock(state_mutex);
                new_catra_event(op.code - 'a');
                break;
            }
            case Op::release:
                handle(liberate_catra_callback, op.bare ? Fields{{"catra_direction", op.text}}
                                                        : Fields{{"catra_direction", op.text},
                                                                 {"uuid", uuid},
                                                                 {"catra_reason", op.number}});
                break;
            case Op::mode: catra_config_set_callback("catra", "operation_mode", op.text); break;
            case Op::gateway: config().set("catra", "gateway", op.text); break;
            case Op::enable: handle(catra_set_enabled_callback, {{"enabled", op.number}}); break;
            case Op::verbose: config().set("identifier", "verbose_logging", op.number); break;
            case Op::push: break;
        }
    }

    // The first column of each row of a query.
    Texts column(const std::string& sql)
    {
        Texts values;
        for (const auto& row : database().query(sql))
            values.push_back(std::get<std::string>(row.at(0).value()));
        return values;
    }
};

RC_GTEST_FIXTURE_PROP(Turnstile, FollowsItsDecisionTables, ())
{
    const std::vector<Op> sequence = *rc::gen::container<std::vector<Op>>(ops(false));
    Model model;
    const std::regex timestamp("timestamp=([0-9]+)");
    const std::string start = std::to_string(time(nullptr));
    for (std::size_t step = 0; step < sequence.size(); ++step) {
        const std::string uuid = "u" + std::to_string(step);
        model.step(sequence[step], uuid);
        logs().clear();
        recorder().clear();
        const long long before = time(nullptr);
        run(sequence[step], uuid);
        const long long after = time(nullptr);

        // Every time written is the clock's: an event's "timestamp" is within
        // its step, the time of a record or an access event within the run.
        Texts seen;
        for (const std::string& line : recorder().trace()) {
            std::smatch found;
            if (std::regex_search(line, found, timestamp))
                RC_ASSERT(std::stoll(found[1]) >= before && std::stoll(found[1]) <= after);
            seen.push_back(std::regex_replace(line, timestamp, "timestamp=T"));
        }
        Texts records;
        for (const auto& [portal, event, user, written] : model.records)
            records.push_back(std::to_string(portal) + " " + std::to_string(event) + " " +
                              std::to_string(user) + " " + std::to_string(written));
        RC_ASSERT(seen == model.out);
        RC_ASSERT(logs().texts(standin::LogLine::Kind::error) == model.errors);
        RC_ASSERT(column("SELECT portal_id || ' ' || event || ' ' || user_id || ' ' || "
                         "(time >= " +
                         start + ") FROM access_logs ORDER BY id") == records);
        RC_ASSERT(
            column("SELECT module || ' ' || name || ' ' || uuid || ' ' || device_id || ' ' || "
                   "(timestamp BETWEEN " +
                   start + " AND " + std::to_string(after) + ") FROM access_events ORDER BY id") ==
            model.access_events);
        RC_ASSERT((std::array<long long, 4>{
                      database().counter("left_turns"), database().counter("right_turns"),
                      database().counter("entrance_turns"), database().counter("exit_turns")}) ==
                  model.counters);
        RC_ASSERT(current_state == model.current);
        RC_ASSERT(default_state == model.fallback);
        RC_ASSERT(catra_enabled == model.enabled);
        RC_ASSERT(release_uuid == model.uuid);
        // Nothing the controller was sent may pile up on the line.
        while (pty().read_command(std::chrono::milliseconds(0))) {
        }
    }
}

// After every step the plug-in's state is the sides the controller holds
// free, and each side's turn counter has counted the turns the controller let
// through there. A release outlasts any run, so none is given up.
RC_GTEST_FIXTURE_PROP(Turnstile, KeepsToTheSidesTheControllerFrees, ())
{
    // Shorter runs than above: each step waits for the controller's thread.
    const std::vector<Op> sequence =
        *rc::gen::scale(0.3, rc::gen::container<std::vector<Op>>(ops(true)));
    config().set("", "catra_timeout", 3600);
    simulator::Turnstile controller(pty());
    controller.start();
    std::array<long long, 2> through{};  // left, right
    for (const Op& op : sequence) {
        if (op.kind == Op::push)
            through[op.number] += controller.push(simulator::kSides[op.number]) ? 1 : 0;
        else
            run(op, "u");
        // Until neither side has more to do: the controller answers every
        // command written so far, the plug-in reads every letter reported.
        for (;;) {
            RC_ASSERT(eventually([&] { return controller.commands_answered(); }));
            if (!pty().unread_by_other_side())
                break;
            RC_ASSERT(read_catra_event());
        }
        const simulator::FreeSides free = controller.free_sides();
        const int sides[2][2] = {{CatraState::BLOCKED, CatraState::RIGHT_LIBERATED},
                                 {CatraState::LEFT_LIBERATED, CatraState::BOTH_LIBERATED}};
        RC_ASSERT(current_state == sides[free.left][free.right]);
        RC_ASSERT(database().counter("left_turns") == through[0]);
        RC_ASSERT(database().counter("right_turns") == through[1]);
    }
}

}  // namespace
}  // namespace catra_test
