// Fuzz target: arbitrary bus messages through the plug-in's ten queue
// handlers, called the way the plug-in's queue calls them: one at a time, on
// one thread, whatever they throw caught and logged, the message freed after.
// Controller letters may come in between, so that the handlers meet every
// state of the turnstile.
//
// The configuration has no exit-request buttons (see fuzz_support.cpp): a press
// would start an exit-request worker, which waits 100 ms on a thread of its
// own and then releases the turnstile, outside the input that pressed.
//
// The input is read with libFuzzer's FuzzedDataProvider, one step at a time:
// a message of one of the ten types (or of a type nobody listens to), with or
// without a reply object, with up to seven int or text fields whose keys and
// values are mostly the ones the handlers know; or a controller letter, read
// after a second has passed.
#include <fuzzer/FuzzedDataProvider.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include "catra_internal.h"
#include "fuzz_support.h"
#include "standin/clock.h"

namespace {

const char* const kKeys[] = {
    "catra_direction", "uuid",  "catra_reason", "enabled", "gpio",         "value", "id",
    "module",          "param", "timeout",      "state",   "default_state"};

// clang-format off
const char* const kTexts[] = {
    "clockwise", "anticlockwise", "both", "always", "alwaysclockwise", "alwaysanticlockwise",
    "idle", "entrance_open", "exit_open", "both_open", "blocked", "catra", "identifier", "gpio",
    "", "gateway", "operation_mode", "anti_passback", "daily_reset", "antipassback_enabled",
    "exception_mode", "free", "0", "1", "2", "Clockwise", "uuid-1"};
// clang-format on

const int kNotableInts[] = {0,  1,  2,  3,  4,  -1, 5,  9,  10,  11,      12,
                            13, 20, 21, 30, 31, 40, 41, 42, 100, INT_MIN, INT_MAX};

// What the plug-in's queue does with a message of a type it listens to:
// a moved message is marked handled first, a copy carries the fields but not
// the reply object; whatever the handler throws is logged.
void deliver(const ListenedType& row, ac::Message* sent)
{
    std::unique_ptr<ac::Message> copy(row.copied ? new ac::Message(*sent) : nullptr);
    if (!copy)
        sent->set_handled();
    try {
        row.handler(copy ? copy.get() : sent);
    } catch (const std::exception& e) {
        ac::error::log(std::string("handler for ") + row.type + " threw: " + e.what());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    catra_fuzz::set_up_once();
    catra_fuzz::reset_for_input();

    FuzzedDataProvider in(data, size);
    while (in.remaining_bytes() > 0) {
        const int type = in.ConsumeIntegralInRange(0, listened_count + 1);
        if (type == listened_count + 1) {
            standin::Clock::instance().advance_ms(1000);
            const char letter[2] = {static_cast<char>(in.ConsumeIntegral<std::uint8_t>()), '\0'};
            catra_fuzz::controller_event(letter, sizeof letter);
            continue;
        }
        ac::MessageReply reply;
        auto msg = std::make_unique<ac::Message>(
            type < listened_count ? listened_types[type].type : "catra_unknown", 0, nullptr);
        if (in.ConsumeBool())
            msg->set_reply(&reply);
        for (int fields = in.ConsumeIntegralInRange(0, 7); fields > 0; --fields) {
            const std::string key =
                in.ConsumeBool() ? in.PickValueInArray(kKeys) : in.ConsumeRandomLengthString(16);
            if (in.ConsumeBool()) {
                msg->add_int(key, in.ConsumeBool() ? in.PickValueInArray(kNotableInts)
                                                   : in.ConsumeIntegral<int>());
            } else {
                msg->add_string(key, in.ConsumeBool() ? in.PickValueInArray(kTexts)
                                                      : in.ConsumeRandomLengthString(64));
            }
        }
        // A type nobody listens to is dropped by the host.
        if (type < listened_count)
            deliver(listened_types[type], msg.get());
        msg.reset();
        catra_fuzz::drain_controller();
    }

    catra_fuzz::check_invariants("bus_messages_fuzz");
    return 0;
}
