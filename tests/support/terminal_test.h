// The test fixture that plays the terminal around the turnstile plug-in.
//
// Each test gets: the stand-in host's services on the bus, a fresh in-memory
// database holding this device's two portals and the three release actions,
// the manual clock, a complete default configuration, a controller line (a
// pseudo-terminal whose slave is the plug-in's "device_path") and a recorder
// of every bus message. The plug-in itself is loaded with dlopen, as the
// terminal loads it, when the test calls load_plugin().
//
// The plug-in has no unload and no shutdown: it can be loaded once per
// process, so every test that loads it runs in a process of its own (CTest
// runs each discovered test alone; by hand: ctest -R NAME, or the test
// executable with --gtest_filter=Suite.Name).
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ac/ac.h"
#include "bus_recorder.h"
#include "log_recorder.h"
#include "plugin_configuration.h"
#include "simulator/controller_pty.h"
#include "standin/standin.h"
#include "stderr_capture.h"
#include "syscall_faults.h"

namespace catra_test {

// The error lines of a turn refused on the left and on the right side.
const char* const kRefusals[2] = {"ERROR: Cannot turn left  while blocked!!",
                                  "ERROR: Cannot turn right while blocked!!"};

// Bound of every wait on an observed effect; only reached when a test fails.
constexpr std::chrono::milliseconds kWait{5000};

// Polls an observable effect until it holds; false when the time-out runs out.
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds timeout = kWait)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// What the call raised: the text of its ac::ac_exception, with " (flag
// false)" added when the exception's flag is not set (the plug-in sets it at
// every throw); "" when nothing was raised.
std::string thrown_text(const std::function<void()>& call);

// SQL that makes SQLite refuse every `statement` ("INSERT", "UPDATE") on
// `table` with "disk I/O error", which the data-access layer raises to its
// caller; "DROP TRIGGER refuse" ends it.
std::string refusal(const std::string& statement, const std::string& table);

// A message field for send() and request(): {"key", 5} or {"key", "text"}.
struct Field {
    Field(std::string key, int value);
    Field(std::string key, std::string value);
    ac::MessageField field;
};
using Fields = std::vector<Field>;

// A new message of that type with these fields, in order.
ac::Message* new_message(const std::string& type, const Fields& fields);

// Configuration values of the defaults (kFi1Gpio, kDeviceId, ...), for
// expectations.
using namespace simulator::defaults;

class TerminalTest : public ::testing::Test {
public:
    // The controller texts of a successful set-up with the default
    // configuration, in order, each without its NUL.
    static std::vector<std::string> setup_commands();

protected:
    void SetUp() override;
    void TearDown() override;

    // Writes the default configuration (SetUp does; a test may call it again).
    //   module "catra": device_path = the controller line's slave, fi1 "12",
    //     fi2 "13", sol1 "14", sol2 "15", select_timeout 1000, fi1_gpio 20,
    //     fi2_gpio 21, sol1_gpio 10, sol2_gpio 11, watchdog_timeout 1000,
    //     relay_timeout 500; "gateway" and "operation_mode" are not set.
    //   no module: collector_gpio 12, collector_timeout 300, catra_timeout 5.
    //   module "gpio": relay 1 direction "right", relay 2 "left", both
    //     disabled, GPIOs 30 and 31.
    //   module "identifier": verbose_logging 1.
    //   module "host": online 0, exception_mode 0, antipassback_enabled 0,
    //     device_id 1, buttonholes "40,41,42".
    void set_default_configuration();

    // dlopen the plug-in and call its init, as the terminal does; false with
    // *error set when the library cannot be loaded or init fails. Only once
    // per process: a second call fails the test.
    bool load_plugin(std::string* error = nullptr);
    // Starts the registered run function on the host's run thread; false when
    // the plug-in registered none (or was not loaded).
    bool start_plugin();
    // load_plugin and start_plugin, and the set-up's commands and the blocked
    // default's "i" read from the controller line; false when any of it failed.
    bool run_plugin();
    // The loaded plug-in's host object (load_plugin first).
    standin::PluginHost& plugin_host();

    // Sends a message on the bus as another module of the terminal would:
    // asynchronously, fields in the order given.
    void send(const std::string& type, const Fields& fields = {});
    // Sends a synchronous request with a reply object and returns the answer
    // as "reply{key=1,...}", or "unreplied{}" when none came.
    std::string request(const std::string& type, const Fields& fields = {});

    // Reads the next texts written to the controller and checks them, in
    // order, against `commands` (each without its NUL). Adds a failure that
    // shows what arrived instead, and returns false, on the first mismatch.
    bool expect_commands(const std::vector<std::string>& commands);

    // The debug lines as "function: text", or of one function its texts alone.
    std::vector<std::string> debug_lines(const std::string& function = "") const;

    simulator::ControllerPty& pty() { return *pty_; }
    BusRecorder& recorder() { return *recorder_; }
    // Its wait_idle() waits until the bus and the queues are idle.
    standin::Bus& bus() { return standin::Bus::instance(); }
    standin::Config& config() { return standin::Config::instance(); }
    standin::Clock& clock() { return standin::Clock::instance(); }
    LogRecorder& logs() { return *logs_; }
    standin::Database& database() { return standin::Database::instance(); }

private:
    std::unique_ptr<simulator::ControllerPty> pty_;
    std::unique_ptr<BusRecorder> recorder_;
    std::unique_ptr<LogRecorder> logs_;
};

}  // namespace catra_test
