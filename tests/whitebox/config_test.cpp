// Configuration changes: which "config_param_set" messages reach which
// reaction, the default mode of each operation mode, the exception modes, the
// portals' actions and the anti-passback settings handed to the host.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "catra_internal.h"
#include "controller_line_test.h"

namespace catra_test {
namespace {

using namespace std::string_literals;

class ConfigChange : public ControllerLineTest {
protected:
    void SetUp() override
    {
        ControllerLineTest::SetUp();
        // Portal actions as anti-passback with a clockwise entrance sets them,
        // and an operation mode for an exception mode to reread.
        config().set("host", "antipassback_enabled", 1);
        config().set("catra", "gateway", "clockwise");
        config().set("catra", "operation_mode", "exit_open");
    }

    // Hands a "config_param_set" message to its handler; a null text leaves
    // the field out. Returns the controller writes it caused.
    Texts change(const char* module, const char* param, const char* value)
    {
        Fields fields;
        for (const auto& [key, text] :
             {std::pair{"module", module}, {"param", param}, {"value", value}})
            if (text != nullptr)
                fields.emplace_back(key, text);
        const std::size_t before = SyscallFaults::device_writes().size();
        bool handled = true;
        handle(config_param_set_callback, fields, false, &handled);
        EXPECT_FALSE(handled);
        const Texts writes = SyscallFaults::device_writes();
        return Texts(writes.begin() + static_cast<long>(before), writes.end());
    }
    standin::Rows portal_actions()
    {
        return database().query(
            "SELECT portal_id, action_id FROM portal_actions ORDER BY portal_id, position");
    }
    std::optional<std::string> host_key(const std::string& key)
    {
        std::string value;
        if (!config().get("host", key, &value))
            return std::nullopt;
        return value;
    }
};

// Module "catra" or "identifier" reaches the turnstile's settings, any other
// only the exception mode: 1 and 2 write their command, any other rereads the
// stored operation mode.
TEST_F(ConfigChange, RoutingByModuleAndParameter)
{
    const standin::Rows actions_set = {{1, 3}, {2, 2}};
    const struct {
        const char* module;
        const char* param;
        const char* value;
        Texts writes;
        bool portal_actions_set;
    } table[] = {
        {"catra", "operation_mode", "both_open", {"ab\0"s}, false},
        {"identifier", "operation_mode", "both_open", {"ab\0"s}, false},
        {"gpio", "operation_mode", "both_open", {}, false},
        {"identifier", "antipassback_enabled", "1", {}, true},
        {"catra", "antipassback_enabled", "1", {}, false},
        {"catra", "gateway", "clockwise", {}, true},
        {"catra", "exception_mode", "1", {}, false},
        {"online", "exception_mode", "1", {"ab\0"s}, false},
        {"", "exception_mode", "2", {"i\0"s}, false},
        {nullptr, "exception_mode", "2", {"i\0"s}, false},
        {"online", "exception_mode", "0", {"al\0"s}, false},
        {"online", "exception_mode", "3", {"al\0"s}, false},
        {"online", "exception_mode", "", {"al\0"s}, false},
        {"online", "operation_mode", "both_open", {}, false},
        {"catra", "operation_mode", nullptr, {}, false},
        {"catra", nullptr, "both_open", {}, false},
        {"online", "exception_mode", nullptr, {}, false},
        {"catra", "unknown", "1", {}, false},
    };
    for (const auto& row : table) {
        SCOPED_TRACE("row " + std::to_string(&row - table + 1));
        database().exec("DELETE FROM portal_actions");
        EXPECT_EQ(change(row.module, row.param, row.value), row.writes);
        EXPECT_EQ(portal_actions(), row.portal_actions_set ? actions_set : standin::Rows{});
        EXPECT_EQ(host_key("antipassback_enabled"), "1");
        EXPECT_EQ(host_key("antipassback_mode"), std::nullopt);
    }
    // Without an operation mode, the one reread is blocked.
    config().erase("catra", "operation_mode");
    EXPECT_EQ(change("online", "exception_mode", "0"), Texts{"i\0"s});
    // Any other side than "clockwise" gives the portals each other's actions.
    database().exec("DELETE FROM portal_actions");
    config().set("catra", "gateway", "Clockwise");
    EXPECT_TRUE(change("catra", "gateway", "Clockwise").empty());
    EXPECT_EQ(portal_actions(), (standin::Rows{{1, 2}, {2, 3}}));
}

TEST_F(ConfigChange, AntiPassbackSettingsAreReadBackFromTheStore)
{
    const struct {
        const char* module;
        const char* param;
        const char* stored;
        const char* message_value;
        const char* enabled;  // the host's antipassback_enabled afterwards
        const char* mode;     // and its antipassback_mode
    } table[] = {
        {"catra", "anti_passback", "1", "0", "1", "unset"},
        {"catra", "anti_passback", "0", "1", "0", "unset"},
        {"identifier", "anti_passback", "5", "0", "1", "unset"},
        {"catra", "daily_reset", "0", "1", "unset", "none"},
        {"catra", "daily_reset", "1", "0", "unset", "daily_catra"},
        {"identifier", "daily_reset", "-3", "0", "unset", "daily_catra"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE("row " + std::to_string(&row - table + 1));
        config().set("catra", row.param, row.stored);
        config().set("host", "antipassback_enabled", "unset");
        config().set("host", "antipassback_mode", "unset");
        EXPECT_TRUE(change(row.module, row.param, row.message_value).empty());
        EXPECT_EQ(host_key("antipassback_enabled"), row.enabled);
        EXPECT_EQ(host_key("antipassback_mode"), row.mode);
        EXPECT_TRUE(portal_actions().empty());
    }
}

// The controller's set-up on a descriptor of its own, closed afterwards; a
// failure is raised with init's text (and a note when the device had been
// opened by then).
void set_up()
{
    const int line = catra_fd;
    std::string error;
    bool ok = false;
    try {
        ok = init_catra(&error);
    } catch (...) {
        ::close(catra_fd);
        catra_fd = line;
        throw;
    }
    const bool opened = catra_fd != line;
    if (opened)
        ::close(catra_fd);
    catra_fd = line;
    if (!ok)
        throw ac::ac_exception(error + (opened ? "" : " (nothing opened)"), true);
}

// A failed write stops the set-up where it happened, with its text, and
// undoes nothing; a disable refused with EINVAL counts as done.
TEST_F(ConfigChange, ASetUpWriteFailureStopsThereWithItsText)
{
    const Texts sequence = {"d\0"s, "f12\0"s, "g13\0"s, "s14\0"s, "t15\0"s, "e\0"s};
    const std::string pin = "Nao foi possivel configurar a catraca com o comando: ";
    const struct {
        int passing;  // writes that succeed before the failing one
        int error;
        const char* reported;
        std::string perror_line;
    } table[] = {
        {0, EIO, "Unable to disable: Input/output error",
         "Nao foi possivel desabilitar o Catra: Input/output error"},
        {1, EINVAL, "Unable to configure pin fi1: Invalid argument", pin + "f12: Invalid argument"},
        {2, ENOSPC, "Unable to configure pin fi2: No space left on device",
         pin + "g13: No space left on device"},
        {3, EBUSY, "Unable to configure pin sol1: Device or resource busy",
         pin + "s14: Device or resource busy"},
        {4, EAGAIN, "Unable to configure pin sol2: Resource temporarily unavailable",
         pin + "t15: Resource temporarily unavailable"},
        {5, EPERM, "Unable to enable: Operation not permitted", pin + "e: Operation not permitted"},
        {0, EINVAL, "", ""},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.reported);
        SyscallFaults::fail_next(SyscallFaults::Call::write, row.error, row.passing);
        catra_enabled = false;
        const std::size_t before = SyscallFaults::device_writes().size();
        StderrCapture capture;
        EXPECT_EQ(thrown_text(set_up), row.reported);
        const Texts writes = SyscallFaults::device_writes();
        const std::size_t tried = *row.reported ? row.passing + 1 : sequence.size();
        EXPECT_EQ(Texts(writes.begin() + static_cast<long>(before), writes.end()),
                  Texts(sequence.begin(), sequence.begin() + static_cast<long>(tried)));
        EXPECT_EQ(capture.text(), row.perror_line.empty() ? "" : row.perror_line + "\n");
        EXPECT_EQ(catra_enabled, !*row.reported);
    }
}

// Every configuration read, with the key missing from the store: the reads
// that must find their key raise the host's error, the others go on with
// what the store gives. Start-up reads of the device's settings come back as
// init's failure text, before anything is opened.
TEST_F(ConfigChange, EachReadOfAMissingKeyRaisesOnlyWhereTheKeyIsRequired)
{
    const auto clockwise = [] { do_execute_command("clockwise"); };
    const auto both = [] { do_execute_command("both"); };
    const auto release_record = [] { log_catra_liberated("clockwise", ac::util::REX); };
    const auto mode_reread = [] { exception_mode_config_set_callback("0"); };
    const auto anti_passback = [] { catra_config_set_callback("catra", "anti_passback", "1"); };
    const auto daily_reset = [] { catra_config_set_callback("catra", "daily_reset", "1"); };
    const auto start = [] {
        ac::Plugin plugin;
        std::string error;
        init(&plugin, &error);
    };
    const struct {
        const char* module;
        const char* key;
        std::function<void()> action;
        bool required;
    } table[] = {
        {"catra", "watchdog_timeout", start, true},
        {"catra", "device_path", nullptr, true},
        {"catra", "fi1", nullptr, true},
        {"catra", "fi2", nullptr, true},
        {"catra", "sol1", nullptr, true},
        {"catra", "sol2", nullptr, true},
        {"catra", "select_timeout", nullptr, true},
        {"catra", "fi1_gpio", set_up, true},
        {"catra", "fi2_gpio", set_up, true},
        {"catra", "sol1_gpio", set_up, true},
        {"catra", "sol2_gpio", set_up, true},
        {"gpio", "catra_relay_1_enable_direction", clockwise, false},
        {"gpio", "catra_relay_2_enable_direction", clockwise, false},
        {"gpio", "catra_relay_1_enabled", clockwise, false},
        {"gpio", "catra_relay_2_enabled", clockwise, false},
        {"gpio", "catra_relay_1_gpio", clockwise, true},
        {"gpio", "catra_relay_2_gpio", clockwise, true},
        {"gpio", "catra_relay_1_gpio", both, true},
        {"catra", "relay_timeout", both, false},
        {"", "catra_timeout", both, false},
        {"", "collector_gpio", open_collector, true},
        {"", "collector_timeout", open_collector, false},
        {"identifier", "verbose_logging", release_record, false},
        {"catra", "operation_mode", mode_reread, false},
        {"catra", "gateway", mode_reread, false},
        {"catra", "anti_passback", anti_passback, false},
        {"catra", "daily_reset", daily_reset, false},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(std::string(row.module) + " " + row.key);
        set_default_configuration();
        config().set("gpio", "catra_relay_1_enabled", 1);
        config().set("gpio", "catra_relay_2_enabled", 1);
        config().set("gpio", "catra_relay_2_enable_direction", "right");
        config().erase(row.module, row.key);
        const std::string name = *row.module ? row.module + "."s + row.key : row.key;
        // The device's own settings are read before anything is opened.
        const bool early = row.action == nullptr;
        EXPECT_EQ(thrown_text(early ? set_up : row.action),
                  row.required
                      ? "Parameter " + name + " not found" + (early ? " (nothing opened)" : "")
                      : "");
    }

    // With every key in place: the wait's time-out in seconds and
    // microseconds, and the GPIO numbers in the lists, empty at load.
    set_default_configuration();
    config().set("catra", "select_timeout", 2001);
    photo_sensor_gpios.clear();
    photo_sensor_values.clear();
    solenoid_gpios.clear();
    solenoid_values.clear();
    EXPECT_EQ(thrown_text(set_up), "");
    EXPECT_EQ(select_timeval.tv_sec, 2);
    EXPECT_EQ(select_timeval.tv_usec, 1000);
    EXPECT_EQ(photo_sensor_gpios, (std::vector<int>{kFi1Gpio, kFi2Gpio}));
    EXPECT_EQ(solenoid_gpios, (std::vector<int>{kSol1Gpio, kSol2Gpio, kCollectorGpio}));
    EXPECT_EQ(solenoid_values, (std::vector<bool>{false, false, false}));
    EXPECT_EQ(photo_sensor_values, (std::vector<bool>{false, false}));
}

}  // namespace
}  // namespace catra_test
