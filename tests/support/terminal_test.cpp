#include "terminal_test.h"

#include "plugin_configuration.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#ifndef CATRA_PLUGIN_PATH
#error "CATRA_PLUGIN_PATH must name the plug-in library to load"
#endif

namespace catra_test {

namespace {

const char* const kOnePerProcess =
    "The plug-in can be loaded only once per process (it has no unload). Run one test per "
    "process: ctest -R NAME, or the test executable with --gtest_filter=Suite.Name.";

// What outlives the test that loaded the plug-in: its host object and the
// controller line its threads still use. Never destroyed: the process ends
// with standin::end_process while those threads still run.
struct LoadedPlugin {
    std::unique_ptr<standin::PluginHost> host;
    std::vector<std::unique_ptr<simulator::ControllerPty>> lines;
};

LoadedPlugin& loaded()
{
    static LoadedPlugin* const instance = new LoadedPlugin;
    return *instance;
}

std::atomic<bool> load_attempted{false};

}  // namespace

ac::Message* new_message(const std::string& type, const Fields& fields)
{
    auto* message = new ac::Message(type, 0, nullptr);
    for (const Field& entry : fields) {
        if (entry.field.is_int)
            message->add_int(entry.field.key, entry.field.int_value);
        else
            message->add_string(entry.field.key, entry.field.text);
    }
    return message;
}

std::string thrown_text(const std::function<void()>& call)
{
    try {
        call();
    } catch (const ac::ac_exception& e) {
        return e.what() + std::string(e.flag() ? "" : " (flag false)");
    }
    return "";
}

std::string refusal(const std::string& statement, const std::string& table)
{
    return "CREATE TRIGGER refuse BEFORE " + statement + " ON " + table +
           " BEGIN SELECT RAISE(ABORT, 'disk I/O error'); END";
}

// ------------------------------------------------------------------ Field

Field::Field(std::string key, int value)
{
    field.key = std::move(key);
    field.is_int = true;
    field.int_value = value;
}

Field::Field(std::string key, std::string value)
{
    field.key = std::move(key);
    field.text = std::move(value);
}

// ------------------------------------------------------------------ fixture

std::vector<std::string> TerminalTest::setup_commands()
{
    return {"d", "f12", "g13", "s14", "t15", "e"};
}

void TerminalTest::SetUp()
{
    standin::install_services();
    logs_ = std::make_unique<LogRecorder>();
    pty_ = std::make_unique<simulator::ControllerPty>();
    SyscallFaults::reset(pty_->slave_path());
    clock().set_manual(timespec{1000, 0});
    set_default_configuration();
    database().open(":memory:");
    database().seed(kDeviceId, 1000);
    recorder_ = std::make_unique<BusRecorder>();
}

void TerminalTest::TearDown()
{
    recorder_.reset();
    logs_.reset();
    // The plug-in's threads keep using the controller line until the process
    // ends; closing it here would make them fail under the test's feet.
    if (load_attempted.load() && pty_)
        loaded().lines.push_back(std::move(pty_));
}

void TerminalTest::set_default_configuration()
{
    simulator::write_plugin_configuration(config(), pty_->slave_path());
}

bool TerminalTest::load_plugin(std::string* error)
{
    if (load_attempted.exchange(true)) {
        ADD_FAILURE() << kOnePerProcess;
        if (error != nullptr)
            *error = kOnePerProcess;
        return false;
    }
    loaded().host = std::make_unique<standin::PluginHost>(CATRA_PLUGIN_PATH);
    std::string text;
    const bool ok = loaded().host->init(&text);
    if (error != nullptr)
        *error = text;
    return ok;
}

bool TerminalTest::start_plugin()
{
    return loaded().host != nullptr && loaded().host->start();
}

bool TerminalTest::run_plugin()
{
    std::string error;
    const bool loaded = load_plugin(&error);
    EXPECT_TRUE(loaded) << error;
    return loaded && start_plugin() && expect_commands(setup_commands()) && expect_commands({"i"});
}

standin::PluginHost& TerminalTest::plugin_host()
{
    if (loaded().host == nullptr)
        throw std::logic_error("plugin_host() before load_plugin()");
    return *loaded().host;
}

void TerminalTest::send(const std::string& type, const Fields& fields)
{
    ac::PostOffice::send_message(new_message(type, fields));
}

// A receiver that never answers leaves the test waiting: CTest's time-out
// then fails it.
std::string TerminalTest::request(const std::string& type, const Fields& fields)
{
    ac::MessageReply reply;
    ac::Message* message = new_message(type, fields);
    message->set_reply(&reply);
    ac::PostOffice::send_message_sync(message);
    return render(reply.replied() ? "reply" : "unreplied", reply.fields());
}

bool TerminalTest::expect_commands(const std::vector<std::string>& commands)
{
    std::vector<std::string> received;
    while (received.size() < commands.size() &&
           received ==
               std::vector<std::string>(commands.begin(), commands.begin() + received.size())) {
        const std::optional<std::string> command = pty_->read_command(kWait);
        if (!command)
            break;
        received.push_back(*command);
    }
    EXPECT_EQ(received, commands) << "texts written to the controller";
    return received == commands;
}

std::vector<std::string> TerminalTest::debug_lines(const std::string& function) const
{
    std::vector<std::string> texts;
    for (const standin::LogLine& line : logs_->lines()) {
        if (line.kind != standin::LogLine::Kind::debug)
            continue;
        if (function.empty())
            texts.push_back(line.function + ": " + line.text);
        else if (line.function == function)
            texts.push_back(line.text);
    }
    return texts;
}

}  // namespace catra_test
