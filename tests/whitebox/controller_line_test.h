// The fixture of the white-box tests: the plug-in's code linked in, with the
// fixture's controller line opened as its device and the plug-in's state as a
// successful set-up leaves it (enabled, blocked, no release pending, the
// default configuration's GPIOs: photo sensors 20 and 21, solenoids 10 and
// 11, the open collector 12).
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "catra_internal.h"
#include "terminal_test.h"

namespace catra_test {

using Texts = std::vector<std::string>;

// Enabling and disabling the turnstile with the default GPIOs: what goes out,
// in order.
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

class ControllerLineTest : public TerminalTest {
protected:
    void SetUp() override
    {
        TerminalTest::SetUp();
        catra_fd = ::open(pty().slave_path().c_str(), O_RDWR);
        ASSERT_GE(catra_fd, 0);
        catra_fd_closed = false;
        catra_enabled = true;
        current_state = default_state = CatraState::BLOCKED;
        release_uuid.clear();
        last_event_time = clock().now();
        photo_sensor_gpios = {kFi1Gpio, kFi2Gpio};
        photo_sensor_values = {false, false};
        solenoid_gpios = {kSol1Gpio, kSol2Gpio, kCollectorGpio};
        solenoid_values = {false, false, false};
        collector_gpio = kCollectorGpio;
    }
    void TearDown() override
    {
        if (!catra_fd_closed) {
            ::close(catra_fd);
        }
        TerminalTest::TearDown();
    }

    // Hands a message of these fields to a handler as the queue would, with a
    // reply object when asked; returns the answer as "reply{...}" or
    // "unreplied{}". *handled tells whether the message was marked handled.
    // The kept log lines start afresh.
    std::string handle(void (*handler)(ac::Message*), const Fields& fields, bool with_reply = false,
                       bool* handled = nullptr, const char* type = "request")
    {
        logs().clear();
        ac::MessageReply reply;
        std::unique_ptr<ac::Message> msg(new_message(type, fields));
        if (with_reply)
            msg->set_reply(&reply);
        handler(msg.get());
        if (handled != nullptr)
            *handled = msg->handled();
        return render(reply.replied() ? "reply" : "unreplied", reply.fields());
    }
};

}  // namespace catra_test
