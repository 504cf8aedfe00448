// GPIO signals and status messages: sensor and solenoid levels, solenoid and
// open-collector outputs, the dispatch of GPIO notifications, the queries of
// the flag and the states, and a change of the flag that the controller
// refuses.
#include <gtest/gtest.h>

#include <cerrno>
#include <mutex>
#include <string>
#include <vector>

#include "catra_internal.h"
#include "controller_line_test.h"

namespace catra_test {
namespace {

using namespace std::string_literals;

// Each test sets whether the turnstile is enabled.
using Gpio = ControllerLineTest;

TEST_F(Gpio, QueriesAnswerInOrderOrLogWhyNot)
{
    solenoid_values = {false, false, true};
    catra_enabled = true;
    current_state = CatraState::RIGHT_LIBERATED;
    default_state = CatraState::LEFT_LIBERATED;
    const struct {
        void (*handler)(ac::Message*);
        const char* tag;
    } photo{get_photo_sensor_callback, "get_photo_sensor_callback"},
        solenoid{get_solenoid_callback, "get_solenoid_callback"},
        state{catra_state_callback, "catra_state_callback"},
        enabled{catra_enabled_callback, "catra_enabled_callback"};
    const std::string no_reply = "Meio de resposta não definido";
    const struct {
        decltype(photo) query;
        bool with_reply;
        Fields fields;
        std::string outcome;  // the answer, or else the one debug line
    } table[] = {
        // clang-format off
        {photo, false, {{"id", 1}}, no_reply},
        {photo, true, {}, "Parametro id não encontrado"},
        {photo, true, {{"id", 2}}, "id inválido: 2"},
        {photo, true, {{"id", -1}}, "id inválido: -1"},
        {solenoid, true, {{"id", 2}}, "reply{value=1}"},
        {solenoid, true, {{"id", 1}}, "reply{value=0}"},
        {state, true, {}, "reply{state=2,default_state=1}"},
        {state, false, {}, no_reply},
        {enabled, true, {}, "reply{enabled=1}"},
        {enabled, false, {}, no_reply},
        // clang-format on
    };
    for (const auto& row : table) {
        SCOPED_TRACE("row " + std::to_string(&row - table + 1));
        recorder().clear();
        bool handled = false;
        const bool answered = row.outcome.rfind("reply{", 0) == 0;
        EXPECT_EQ(handle(row.query.handler, row.fields, row.with_reply, &handled),
                  answered ? row.outcome : "unreplied{}");
        EXPECT_EQ(handled, answered);
        EXPECT_EQ(debug_lines(), answered ? Texts{} : Texts{row.query.tag + (": " + row.outcome)});
        EXPECT_TRUE(recorder().trace().empty());
    }
}

// A solenoid command sets the others to zero first, and only while the
// turnstile is disabled; the open collector pulses the configured output,
// only while enabled. Neither follows its own command's level: the GPIO
// service's reports do.
TEST_F(Gpio, OutputCommandsDriveTheirGpiosOnlyInTheirState)
{
    config().set("", "collector_gpio", 33);
    config().set("", "collector_timeout", 250);
    const char* const missing = "set_solenoid_callback: Parametro id ou value não encontrados";
    const auto collector = open_collector_callback;
    const struct {
        bool enabled;
        std::vector<bool> levels;
        Fields fields;
        Texts trace;
        Texts lines{};
        void (*handler)(ac::Message*) = set_solenoid_callback;
    } table[] = {
        // clang-format off
        {false, {false, true, false}, {{"id", 0}, {"value", 1}},
         {"gpio_deactivate{gpio=11}", "gpio_set_value{gpio=11,value=0}",
          "gpio_deactivate{gpio=10}", "gpio_activate{gpio=10,timeout=2000}"}},
        {false, {true, false, true}, {{"id", 0}, {"value", 7}},
         {"gpio_deactivate{gpio=10}", "gpio_set_value{gpio=10,value=0}",
          "gpio_deactivate{gpio=12}", "gpio_set_value{gpio=12,value=0}",
          "gpio_deactivate{gpio=10}", "gpio_activate{gpio=10,timeout=2000}"}},
        {false, {false, false, false}, {{"id", 2}, {"value", 0}},
         {"gpio_deactivate{gpio=12}", "gpio_set_value{gpio=12,value=0}"}},
        {false, {false, true, false}, {{"id", 0}}, {}, {missing}},
        {false, {false, true, false}, {{"value", 1}}, {}, {missing}},
        {false, {false, true, false}, {{"id", -1}, {"value", 1}}, {}, {"set_solenoid_callback: id inválido: -1"}},
        {true, {false, true, false}, {{"id", 0}, {"value", 1}}, {}, {}},
        {false, {false, true, false}, {}, {}, {}, collector},
        {true, {false, true, false}, {}, {"gpio_deactivate{gpio=33}", "gpio_activate{gpio=33,timeout=250}"},
         {"open_collector: open collector"}, collector},
        // clang-format on
    };
    for (const auto& row : table) {
        SCOPED_TRACE("row " + std::to_string(&row - table + 1));
        catra_enabled = row.enabled;
        solenoid_values = row.levels;
        recorder().clear();
        bool handled = false;
        EXPECT_EQ(handle(row.handler, row.fields, false, &handled), "unreplied{}");
        EXPECT_EQ(recorder().trace(), row.trace);
        EXPECT_EQ(debug_lines(), row.lines);
        EXPECT_EQ(handled, !row.trace.empty());
        EXPECT_EQ(solenoid_values, row.levels);
    }
}

// A notification goes to the photo sensor of its GPIO (only while disabled),
// else to its solenoid, else to its exit-request button; one without "gpio"
// or "value" is raised.
TEST_F(Gpio, DispatchPrefersPhotoSensorThenSolenoidThenButtonholeAndStoresLevels)
{
    // 20 is photo sensor 0 and buttonhole 1; 21 photo sensor 1 and solenoid 1;
    // 10 solenoid 0 and buttonhole 2; 43 is buttonhole 4. (A buttonhole's press
    // while enabled is shown with the running plug-in's exit-request worker.)
    solenoid_gpios = {kSol1Gpio, kFi2Gpio, kCollectorGpio};
    config().set("host", "buttonholes", "20,10,42,43");
    const std::string invalid = "Invalid parameters for message gpio_notified";
    const struct {
        bool enabled;
        Fields fields;
        Texts trace;
        std::string raised{};
    } table[] = {
        {false, {{"gpio", 20}, {"value", 5}}, {"photo_sensor_changed{id=0,value=1}"}},
        {false, {{"gpio", 21}, {"value", 1}}, {"photo_sensor_changed{id=1,value=1}"}},
        {true, {{"gpio", 21}, {"value", 1}}, {"solenoid_changed{id=1,value=1}"}},
        {true, {{"gpio", 10}, {"value", 0}}, {"solenoid_changed{id=0,value=0}"}},
        {true, {{"gpio", 12}, {"value", 3}}, {"solenoid_changed{id=2,value=1}"}},
        {true, {{"gpio", 43}, {"value", 0}}, {}},
        {false, {{"gpio", 99}, {"value", 0}}, {}},
        {false, {{"gpio", 20}}, {}, invalid},
        {false, {{"value", 0}}, {}, invalid},
        {false, {}, {}, invalid},
    };
    for (const auto& row : table) {
        SCOPED_TRACE("row " + std::to_string(&row - table + 1));
        catra_enabled = row.enabled;
        recorder().clear();
        bool handled = false;
        EXPECT_EQ(thrown_text([&] {
                      handle(gpio_notified_callback, row.fields, false, &handled, "gpio_notified");
                  }),
                  row.raised);
        {
            // No exit-request worker was started.
            std::lock_guard<std::mutex> lock(rex_mutex);
            EXPECT_EQ(rex_pending, 0);
        }
        EXPECT_EQ(recorder().trace(), row.trace);
        EXPECT_FALSE(handled);
    }
    // Levels are stored as bits; a report is announced even when unchanged.
    EXPECT_EQ(photo_sensor_values, (std::vector<bool>{true, true}));
    EXPECT_EQ(solenoid_values, (std::vector<bool>{false, true, true}));
}

// A controller that refuses "e" or "d" leaves the flag as it was and
// announces nothing; the GPIOs handed over before "e" stay so. A request
// without "enabled" is raised. (The whole hand-over of a change is in the
// turnstile's model.)
TEST_F(Gpio, AChangeTheControllerRefusesKeepsTheFlag)
{
    // All that enabling sends up to the refused "e"; the refused "d" first.
    const Texts handed_over(kEnabling.begin(), kEnabling.end() - 1);
    const std::string eio = "Input/output error";
    const struct {
        bool before;
        Fields fields;
        int write_error;
        std::string outcome;  // the raised text, or the perror line
        Texts trace;
    } table[] = {
        // clang-format off
        {false, {{"enabled", 1}}, EIO, "Nao foi possivel configurar a catraca com o comando: e: " + eio,
         handed_over},
        {true, {{"enabled", 0}}, EIO, "Nao foi possivel desabilitar o Catra: " + eio, {kDisabling.front()}},
        {true, {}, 0, "catra enabled not found!", {}},
        // clang-format on
    };
    for (const auto& row : table) {
        SCOPED_TRACE("from " + std::to_string(row.before) + ": " + row.outcome);
        catra_enabled = row.before;
        if (row.write_error != 0)
            SyscallFaults::fail_next(SyscallFaults::Call::write, row.write_error);
        StderrCapture standard_error;
        recorder().clear();
        bool handled = false;
        const std::string raised =
            thrown_text([&] { handle(catra_set_enabled_callback, row.fields, false, &handled); });
        EXPECT_EQ(catra_enabled, row.before);
        EXPECT_EQ(handled, raised.empty());
        EXPECT_EQ(recorder().trace(), row.trace);
        EXPECT_EQ(row.write_error == 0 ? raised : standard_error.text(),
                  row.write_error == 0 ? row.outcome : row.outcome + "\n");
    }
}

}  // namespace
}  // namespace catra_test
