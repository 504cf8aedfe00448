// catra-terminal run as a user runs it: on the example scripts and on bad
// input, with the plug-in of this build and the simulated turnstile; what it
// prints is checked line by line, in the order each source guarantees.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

#include "program_run.h"

namespace catra_test {
namespace {

using Texts = std::vector<std::string>;

// Wall-clock values differ from run to run: they are shown as 0.
Json masked(Json line)
{
    if (line.is_object() && line.contains("fields") && line.value("bus", "") == "catra_event") {
        for (Json& field : line["fields"])
            if (field.at(0) == "timestamp")
                field[1] = 0;
    }
    if (line.is_object() && line.contains("rows")) {
        for (Json& row : line["rows"]) {
            for (const char* key : {"timestamp", "time"})
                if (row.contains(key))
                    row[key] = 0;
        }
    }
    return line;
}

// The lines that have one of the keys, in the order printed, as compact JSON.
Texts lines_with(const ProgramRun& run, std::initializer_list<const char*> keys)
{
    Texts selected;
    for (const Json& line : run.lines()) {
        bool wanted = !line.is_object();  // a line that is not JSON shows up everywhere
        for (const char* key : keys)
            wanted = wanted || line.contains(key);
        if (wanted)
            selected.push_back(masked(line).dump());
    }
    return selected;
}

// What the plug-in sent on the bus.
Texts bus(const ProgramRun& run)
{
    return lines_with(run, {"bus"});
}

// What crossed the controller line and what the person did, in the
// simulated controller's order.
Texts controller(const ProgramRun& run)
{
    return lines_with(run, {"controller", "turnstile", "person"});
}

// Position of the first line containing the pattern; -1 when none does.
int position(const ProgramRun& run, const Json& pattern)
{
    const std::vector<Json> lines = run.lines();
    for (std::size_t i = 0; i < lines.size(); ++i) {
        bool all = lines[i].is_object();
        for (const auto& member : pattern.items())
            all =
                all && lines[i].contains(member.key()) && lines[i][member.key()] == member.value();
        if (all)
            return static_cast<int>(i);
    }
    return -1;
}

std::string event(int code, const std::string& name, const std::string& uuid = "", int id = 0)
{
    return Json{
        {"bus", "catra_event"},
        {"fields", Json::array({Json::array({"event", code}), Json::array({"event_name", name}),
                                Json::array({"timestamp", 0}), Json::array({"uuid", uuid}),
                                Json::array({"access_event_id", id})})}}
        .dump();
}

std::string message(const std::string& type, const Json& fields)
{
    return Json{{"bus", type}, {"fields", fields}}.dump();
}

std::string state_changed(int state)
{
    return message("catra_state_changed", Json::array({Json::array({"state", state})}));
}

std::string command(const std::string& text)
{
    return Json{{"controller", text}}.dump();
}

std::string letter(const std::string& text)
{
    return Json{{"turnstile", text}}.dump();
}

std::string person(const std::string& action, bool turned)
{
    return Json{{"person", action}, {"turned", turned}}.dump();
}

// The start-up: the controller set up, enabled and blocked.
Texts startup_controller()
{
    return {command("d"),   letter("m"),  command("f12"), command("g13"), command("s14"),
            command("t15"), command("e"), letter("l"),    command("i"),   letter("a")};
}

Texts startup_bus()
{
    return {event(12, "EVENT_NOT_READY"), event(11, "EVENT_READY"), event(0, "ALWAYS BLOCKED")};
}

Texts joined(Texts first, const Texts& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::string counters(int left, int right, int entrance, int exit)
{
    return Json{{"dump", "counters"},
                {"rows", Json::array({Json{{"name", "left_turns"}, {"value", left}},
                                      Json{{"name", "right_turns"}, {"value", right}},
                                      Json{{"name", "entrance_turns"}, {"value", entrance}},
                                      Json{{"name", "exit_turns"}, {"value", exit}}})}}
        .dump();
}

std::string reply(const std::string& type, const Json& fields)
{
    return Json{{"reply", type}, {"replied", true}, {"fields", fields}}.dump();
}

// A file in a fresh temporary directory, removed with the object.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& name)
    {
        char pattern[] = "/tmp/catra-terminal-test-XXXXXX";
        const char* made = ::mkdtemp(pattern);
        directory_ = made != nullptr ? made : "/tmp";
        path_ = directory_ + "/" + name;
    }
    ~TemporaryFile()
    {
        std::remove(path_.c_str());
        ::rmdir(directory_.c_str());
    }
    const std::string& path() const { return path_; }
    void write(const std::string& text) const { std::ofstream(path_) << text; }

private:
    std::string directory_;
    std::string path_;
};

TEST(TerminalProgram, RoadOfOneRelease)
{
    const ProgramRun run = run_example("road-of-one-release.jsonl");
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");

    EXPECT_EQ(controller(run),
              joined(startup_controller(), {command("r5"), letter("f"), person("turn_right", true),
                                            letter("i"), command("i"), letter("a")}));
    EXPECT_EQ(
        bus(run),
        joined(startup_bus(), {message("gpio_deactivate", Json::array({Json::array({"gpio", 30})})),
                               message("gpio_activate", Json::array({Json::array({"timeout", 500}),
                                                                     Json::array({"gpio", 30})})),
                               event(5, "FREE RIGHT", "road-1"), state_changed(2),
                               event(8, "TURN RIGHT", "road-1", 1), event(0, "ALWAYS BLOCKED"),
                               state_changed(0)}));
    EXPECT_EQ(
        lines_with(run, {"sent", "reply", "dump"}),
        (Texts{
            R"({"dump":"portals","rows":[{"id":1,"device_id":1,"name":"portal 1","actions":[4]},)"
            R"({"id":2,"device_id":1,"name":"portal 2","actions":[4]}]})",
            R"({"sent":"liberate_catra","fields":[["catra_direction","clockwise"],)"
            R"(["uuid","road-1"],["catra_reason",1]]})",
            R"({"sent":"catra_state","fields":[]})",
            reply("catra_state",
                  Json::array({Json::array({"state", 0}), Json::array({"default_state", 0})})),
            R"({"dump":"access_events","rows":[{"id":1,"module":"catra","name":"TURN RIGHT",)"
            R"("uuid":"road-1","device_id":1,"timestamp":0}]})",
            counters(0, 1, 1, 0),
        }));

    // Across sources: the request, the relay pulse, the command, the freed
    // side, the turn, in the order they cause one another.
    const std::vector<int> road = {
        position(run, {{"sent", "liberate_catra"}}),     position(run, {{"bus", "gpio_activate"}}),
        position(run, {{"controller", "r5"}}),           position(run, {{"turnstile", "f"}}),
        position(run, {{"bus", "catra_state_changed"}}), position(run, {{"person", "turn_right"}}),
        position(run, {{"reply", "catra_state"}})};
    for (std::size_t i = 1; i < road.size(); ++i)
        EXPECT_LT(road[i - 1], road[i]) << "step " << i;
    EXPECT_GE(road.front(), 0);
}

TEST(TerminalProgram, ReleaseGivenUpAfterTheReleaseTime)
{
    const ProgramRun run = run_example("give-up.jsonl");
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");

    EXPECT_EQ(controller(run),
              joined(startup_controller(),
                     {command("l1"), letter("e"), letter("j"), command("i"), letter("a")}));
    EXPECT_EQ(
        bus(run),
        joined(startup_bus(), {message("gpio_deactivate", Json::array({Json::array({"gpio", 31})})),
                               message("gpio_activate", Json::array({Json::array({"timeout", 500}),
                                                                     Json::array({"gpio", 31})})),
                               event(4, "FREE LEFT", "give-up-1"), state_changed(1),
                               event(9, "GIVE UP", "give-up-1", 1), event(0, "ALWAYS BLOCKED"),
                               state_changed(0)}));
    EXPECT_EQ(
        lines_with(run, {"sent", "dump"}),
        (Texts{
            R"({"sent":"config_param_set","fields":[["module",""],["param","catra_timeout"],)"
            R"(["value","1"]]})",
            R"({"sent":"liberate_catra","fields":[["catra_direction","anticlockwise"],)"
            R"(["uuid","give-up-1"],["catra_reason",1]]})",
            R"({"dump":"access_events","rows":[{"id":1,"module":"catra","name":"GIVE UP",)"
            R"("uuid":"give-up-1","device_id":1,"timestamp":0}]})",
            R"({"dump":"access_logs","rows":[)"
            R"({"id":1,"user_id":100,"portal_id":1,"time":0,"event":1,"reason":0,"uuid":""},)"
            R"({"id":2,"user_id":101,"portal_id":2,"time":0,"event":13,"reason":0,"uuid":""}]})",
            counters(0, 0, 0, 0),
        }));
}

TEST(TerminalProgram, ExitRequestButton)
{
    const ProgramRun run = run_example("exit-request.jsonl");
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");

    EXPECT_EQ(controller(run),
              joined(startup_controller(), {command("l5"), letter("e"), person("turn_left", true),
                                            letter("h"), command("i"), letter("a")}));
    EXPECT_EQ(bus(run),
              joined(startup_bus(),
                     {message("gpio_deactivate", Json::array({Json::array({"gpio", 31})})),
                      message("gpio_activate", Json::array({Json::array({"timeout", 500}),
                                                            Json::array({"gpio", 31})})),
                      event(4, "FREE LEFT"), state_changed(1), event(7, "TURN LEFT", "", 1),
                      event(0, "ALWAYS BLOCKED"), state_changed(0)}));
    EXPECT_EQ(
        lines_with(run, {"sent", "dump"}),
        (Texts{
            R"({"sent":"gpio_notified","fields":[["gpio",40],["value",0]]})",
            R"({"dump":"exit_requests","rows":[)"
            R"({"id":3,"user_id":0,"portal_id":1,"time":0,"event":12,"reason":2,"uuid":""}]})",
            counters(1, 0, 0, 1),
        }));
}

TEST(TerminalProgram, DisablingAndEnabling)
{
    const ProgramRun run = run_example("enable-disable.jsonl");
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");

    // The release request made while disabled writes nothing.
    EXPECT_EQ(controller(run),
              joined(startup_controller(), {command("d"), letter("m"), command("e"), letter("l")}));
    const auto update = [](int gpio, int enabled) {
        return message("gpio_update", Json::array({Json::array({"gpio", gpio}),
                                                   Json::array({"enabled", enabled})}));
    };
    const auto set_value = [](int gpio) {
        return message("gpio_set_value",
                       Json::array({Json::array({"gpio", gpio}), Json::array({"value", 0})}));
    };
    const auto enabled_changed = [](int enabled) {
        return message("catra_catra_enabled_changed",
                       Json::array({Json::array({"enabled", enabled})}));
    };
    // The EVENT_NOT_READY and EVENT_READY of the controller's answers follow
    // their own commands; the handler's messages keep their order.
    const Texts sent = bus(run);
    EXPECT_EQ(lines_with(run, {"reply"}),
              (Texts{reply("catra_catra_enabled", Json::array({Json::array({"enabled", 1})})),
                     reply("catra_catra_enabled", Json::array({Json::array({"enabled", 0})})),
                     reply("catra_state", Json::array({Json::array({"state", 0}),
                                                       Json::array({"default_state", 0})})),
                     reply("catra_catra_enabled", Json::array({Json::array({"enabled", 1})}))}));
    Texts handlers;
    Texts events;
    for (const std::string& line : sent)
        (line.find("\"catra_event\"") != std::string::npos ? events : handlers).push_back(line);
    EXPECT_EQ(handlers,
              (Texts{update(20, 1), update(21, 1), update(10, 1), update(11, 1), enabled_changed(0),
                     set_value(10), set_value(11), set_value(12), update(20, 0), update(21, 0),
                     update(10, 0), update(11, 0), enabled_changed(1)}));
    EXPECT_EQ(events,
              joined(startup_bus(), {event(12, "EVENT_NOT_READY"), event(11, "EVENT_READY")}));
}

TEST(TerminalProgram, OperationModeChangedAtRunTime)
{
    const ProgramRun run = run_example("operation-mode.jsonl");
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");

    // With the clockwise side free permanently, a left push turns nothing.
    EXPECT_EQ(controller(run),
              joined(startup_controller(),
                     {command("ar"), letter("c"), person("turn_right", true), letter("i"),
                      person("turn_left", false), command("i"), letter("a")}));
    EXPECT_EQ(bus(run),
              joined(startup_bus(),
                     {event(2, "ALWAYS FREE RIGHT"),
                      message("catra_default_state_changed",
                              Json::array({Json::array({"default_state", 2})})),
                      state_changed(2), event(8, "TURN RIGHT", "", 1), event(0, "ALWAYS BLOCKED"),
                      message("catra_default_state_changed",
                              Json::array({Json::array({"default_state", 0})})),
                      state_changed(0)}));
    EXPECT_EQ(lines_with(run, {"reply", "dump"}),
              (Texts{reply("catra_state", Json::array({Json::array({"state", 0}),
                                                       Json::array({"default_state", 0})})),
                     counters(0, 1, 1, 0)}));
}

TEST(TerminalProgram, BadInputLinesAreReportedAndTheRestRuns)
{
    const std::string input =
        "{\"wait_for\": {\"bus\": \"catra_event\", \"fields\": [[\"event\", 0]]}}\n"
        "not json\n"
        "[1, 2]\n"
        "{}\n"
        "{\"frobnicate\": 1}\n"
        "\n"
        "# a comment\n"
        "{\"send\": 5}\n"
        "{\"send\": \"liberate_catra\", \"fields\": {\"catra_reason\": 1.5}}\n"
        "{\"send\": \"catra_state\", \"extra\": 1}\n"
        "{\"send\": \"catra_state\", \"request\": \"catra_state\"}\n"
        "{\"gpio\": \"40\", \"value\": 0}\n"
        "{\"gpio\": 40}\n"
        "{\"person\": \"jump\"}\n"
        "{\"dump\": \"everything\"}\n"
        "{\"config\": {\"module\": \"catra\", \"key\": \"gateway\"}}\n"
        "{\"wait_ms\": -1}\n"
        "{\"controller\": \"\"}\n"
        "{\"wait_for\": {\"bus\": \"never_sent\"}, \"timeout_ms\": 50}\n"
        "{\"request\": \"catra_state\"}\n";
    // Standard output is a pipe: JSON lines without --json.
    const ProgramRun run =
        run_program({"--config", example("terminal.ini"), "--plugin", plugin_path()}, input);
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(
        run.error_lines(),
        (Texts{
            "catra-terminal: line 2: not valid JSON (at character 2)",
            "catra-terminal: line 3: a command is one JSON object, not array",
            "catra-terminal: line 4: an empty object: no command",
            "catra-terminal: line 5: unknown command \"frobnicate\"",
            "catra-terminal: line 8: \"send\" must be a text",
            "catra-terminal: line 9: field \"catra_reason\" must be a whole number or a text",
            "catra-terminal: line 10: unexpected key \"extra\" in a \"send\" command",
            "catra-terminal: line 11: two commands in one line: \"send\" and \"request\"",
            "catra-terminal: line 12: \"gpio\" must be a whole number",
            "catra-terminal: line 13: \"gpio\" needs a \"value\"",
            "catra-terminal: line 14: \"person\" must be \"turn_left\" or \"turn_right\", not "
            "\"jump\"",
            "catra-terminal: line 15: no records called \"everything\" (access_events, "
            "access_logs, counters, exit_requests, portals)",
            "catra-terminal: line 16: \"config\" needs a \"value\"",
            "catra-terminal: line 17: \"wait_ms\" must be from 0 to 3600000",
            "catra-terminal: line 18: \"controller\" needs one or more letters",
            "catra-terminal: line 19: wait_for {\"bus\":\"never_sent\"}: no such line within 50 ms",
        }));
    // Nothing of the bad lines was sent; the last line was answered.
    EXPECT_EQ(lines_with(run, {"sent", "reply"}),
              (Texts{R"({"sent":"catra_state","fields":[]})",
                     reply("catra_state", Json::array({Json::array({"state", 0}),
                                                       Json::array({"default_state", 0})}))}));
    EXPECT_EQ(controller(run), startup_controller());
}

TEST(TerminalProgram, ConfigurationChangeIsStoredAndAnnounced)
{
    const std::string input =
        R"({"wait_for": {"bus": "catra_event", "fields": [["event_name", "ALWAYS BLOCKED"]]}})"
        "\n"
        R"({"config": {"key": "catra_timeout", "value": 2}})"
        "\n"
        R"({"config": {"module": "gpio", "key": "catra_relay_1_enabled", "value": "0"}})"
        "\n"
        R"({"send": "liberate_catra", "fields": {"catra_direction": "clockwise"}})"
        "\n"
        R"({"wait_for": {"turnstile": "f"}})"
        "\n";
    const ProgramRun run = run_program(
        {"--json", "--config", example("terminal.ini"), "--plugin", plugin_path()}, input);
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(lines_with(run, {"sent"}),
              (Texts{R"({"sent":"config_param_set","fields":[["module",""],)"
                     R"(["param","catra_timeout"],["value","2"]]})",
                     R"({"sent":"config_param_set","fields":[["module","gpio"],)"
                     R"(["param","catra_relay_1_enabled"],["value","0"]]})",
                     R"({"sent":"liberate_catra","fields":[["catra_direction","clockwise"]]})"}));
    // The new release time is in the command; relay 1 is no longer pulsed.
    // The end of input lets the pending release run out: it is given up.
    Texts given_up = controller(run);
    given_up.resize(std::min<std::size_t>(given_up.size(), startup_controller().size() + 3));
    EXPECT_EQ(given_up, joined(startup_controller(), {command("r2"), letter("f"), letter("j")}));
    EXPECT_EQ(position(run, {{"bus", "gpio_activate"}}), -1);
}

TEST(TerminalProgram, DatabaseFileKeepsTheRecords)
{
    const TemporaryFile database("records.db");
    const ProgramRun run =
        run_program({"--json", "--config", example("terminal.ini"), "--plugin", plugin_path(),
                     "--db", database.path(), "--script", example("road-of-one-release.jsonl")});
    ASSERT_EQ(run.exit_code, 0) << run.err;

    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open_v2(database.path().c_str(), &db, SQLITE_OPEN_READONLY, nullptr),
              SQLITE_OK);
    const auto rows = [db](const char* sql) {
        Texts found;
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK)
            return Texts{sqlite3_errmsg(db)};
        while (sqlite3_step(statement) == SQLITE_ROW) {
            std::string row;
            for (int column = 0; column < sqlite3_column_count(statement); ++column) {
                const unsigned char* text = sqlite3_column_text(statement, column);
                row += (column > 0 ? "|" : "") + std::string(text ? (const char*)text : "");
            }
            found.push_back(row);
        }
        sqlite3_finalize(statement);
        return found;
    };
    EXPECT_EQ(rows("SELECT module, name, uuid, device_id FROM access_events"),
              (Texts{"catra|TURN RIGHT|road-1|1"}));
    EXPECT_EQ(rows("SELECT name, value FROM counters ORDER BY name"),
              (Texts{"entrance_turns|1", "right_turns|1"}));
    EXPECT_EQ(rows("SELECT portal_id, position, action_id FROM portal_actions ORDER BY portal_id"),
              (Texts{"1|0|4", "2|0|4"}));
    EXPECT_EQ(rows("SELECT id, name FROM actions ORDER BY id"),
              (Texts{"2|release anticlockwise", "3|release clockwise", "4|release both"}));
    EXPECT_EQ(rows("SELECT user_id, portal_id, event FROM access_logs ORDER BY id"),
              (Texts{"100|1|1", "101|2|1"}));
    sqlite3_close(db);
}

TEST(TerminalProgram, FailedInitIsReportedWithExitCodeOne)
{
    // Without the controller's pin texts the plug-in's set-up fails.
    const TemporaryFile config("no-pins.ini");
    config.write(
        "catra_timeout = 5\ncollector_gpio = 12\n[catra]\nwatchdog_timeout = 1000\n"
        "select_timeout = 1000\n");
    const ProgramRun run =
        run_program({"--json", "--config", config.path(), "--plugin", plugin_path()},
                    R"({"request": "catra_state"})"
                    "\n");
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_EQ(run.error_lines(),
              (Texts{"catra-terminal: the plug-in did not start: Parameter catra.fi1 not found"}));
    EXPECT_EQ(lines_with(run, {"sent", "reply"}), Texts{});
}

TEST(TerminalProgram, MalformedConfigurationFileIsRefused)
{
    const TemporaryFile config("broken.ini");
    config.write("[catra]\nwatchdog_timeout = 1000\nthis line has no equals sign\n");
    const ProgramRun run =
        run_program({"--json", "--config", config.path(), "--plugin", plugin_path()});
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_EQ(run.error_lines(), (Texts{"catra-terminal: " + config.path() +
                                        ":3: not a section, a key = value or a comment"}));
}

TEST(TerminalProgram, ReadableLinesOnATerminal)
{
    const ProgramRun run =
        run_program_on_terminal({"--config", example("terminal.ini"), "--plugin", plugin_path(),
                                 "--script", example("road-of-one-release.jsonl")});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    for (const char* expected :
         {"\n== An access was granted: the access module asks for a clockwise release.\n",
          "\nterminal > liberate_catra catra_direction=\"clockwise\" uuid=\"road-1\" "
          "catra_reason=1\n",
          "\ncontroller < r5\n", "\ncontroller > f  FREE RIGHT\n",
          "\nplug-in  > catra_state_changed state=2\n",
          "\nperson     turn_right: the turnstile turns\n",
          "\nreply      catra_state state=0 default_state=0\n",
          "\ndump       counters: 4 rows\n"}) {
        EXPECT_NE(run.out.find(expected), std::string::npos) << expected << "\nin:\n" << run.out;
    }
    EXPECT_EQ(run.out.find('{'), std::string::npos) << run.out;
}

}  // namespace
}  // namespace catra_test
