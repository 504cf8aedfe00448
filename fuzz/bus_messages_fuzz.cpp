// Fuzz target: arbitrary bus messages through the plug-in's ten queue
// handlers, called the way the plug-in's queue calls them: one at a time, on
// one thread, whatever they throw caught and logged, the message freed after.
// Controller letters may come in between, so that the handlers meet every
// state of the turnstile.
//
// The configuration has no exit-request buttons (see kButtonholes): a press
// would start an exit-request worker, which waits 100 ms on a thread of its
// own and then releases the turnstile, outside the input that pressed.
//
// Input: a sequence of records; a record cut short by the end of the input is
// handled as far as it got (so fields go missing).
//   [t]                  t % 12: 0..9 the ten message types, in registration
//                        order; 10 a type nobody listens to; 11 a controller
//                        letter, the next byte, read after a second has passed
//   [flags]              bit 0: the sender attaches a reply object;
//                        bits 1..3: the number of fields (0..7)
//   fields, each:
//     [k]                bit 7: an int field, else a text field;
//                        k & 0x7f: a known key, or past the known keys a key
//                        of its own: [length % 16][bytes]
//     int value:  [v]    bit 7: one of the notable values (v & 0x7f), else
//                        the next four bytes, little-endian
//     text value: [s]    bit 7: one of the known texts (s & 0x7f), else
//                        (s & 0x3f) bytes of its own
#include <climits>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include "catra_internal.h"
#include "fuzz_support.h"
#include "standin/standin.h"

namespace {

struct Handler {
    const char* type;
    void (*function)(ac::Message*);
    bool copied;  // queued as a copy (the original stays with the sender)
};

const Handler kHandlers[] = {
    {"catra_catra_enabled", catra_enabled_callback, false},
    {"catra_set_catra_enabled", catra_set_enabled_callback, false},
    {"catra_state", catra_state_callback, false},
    {"liberate_catra", liberate_catra_callback, false},
    {"catra_open_collector", open_collector_callback, false},
    {"catra_photo_sensor", get_photo_sensor_callback, false},
    {"catra_solenoid", get_solenoid_callback, false},
    {"catra_set_solenoid", set_solenoid_callback, false},
    {"gpio_notified", gpio_notified_callback, true},
    {"config_param_set", config_param_set_callback, true},
};
constexpr int kHandlerCount = sizeof kHandlers / sizeof kHandlers[0];

const char* const kKeys[] = {
    "catra_direction", "uuid",  "catra_reason", "enabled", "gpio",          "value", "id",
    "module",          "param", "timeout",      "state",   "default_state",
};
constexpr std::size_t kKeyCount = sizeof kKeys / sizeof kKeys[0];

const char* const kTexts[] = {
    "clockwise",
    "anticlockwise",
    "both",
    "always",
    "alwaysclockwise",
    "alwaysanticlockwise",
    "idle",
    "entrance_open",
    "exit_open",
    "both_open",
    "blocked",
    "catra",
    "identifier",
    "gpio",
    "",
    "gateway",
    "operation_mode",
    "anti_passback",
    "daily_reset",
    "antipassback_enabled",
    "exception_mode",
    "free",
    "0",
    "1",
    "2",
    "Clockwise",
    "uuid-1",
};
constexpr std::size_t kTextCount = sizeof kTexts / sizeof kTexts[0];

const int kNotableInts[] = {
    0, 1, 2, 3, 4, -1, 5, 9, 10, 11, 12, 13, 20, 21, 30, 31, 40, 41, 42, 100, INT_MIN, INT_MAX,
};
constexpr std::size_t kNotableCount = sizeof kNotableInts / sizeof kNotableInts[0];

class Reader {
public:
    Reader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool empty() const { return at_ == size_; }
    bool byte(std::uint8_t* out)
    {
        if (at_ == size_)
            return false;
        *out = data_[at_++];
        return true;
    }
    // Up to n bytes: fewer at the end of the input.
    std::string bytes(std::size_t n)
    {
        const std::size_t taken = n < size_ - at_ ? n : size_ - at_;
        std::string text(reinterpret_cast<const char*>(data_ + at_), taken);
        at_ += taken;
        return text;
    }

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t at_ = 0;
};

// Adds one field; false when the input ended before the field was complete.
bool add_field(Reader& in, ac::Message& msg)
{
    std::uint8_t k = 0;
    if (!in.byte(&k))
        return false;
    std::string key;
    if ((k & 0x7f) < kKeyCount) {
        key = kKeys[k & 0x7f];
    } else {
        std::uint8_t length = 0;
        if (!in.byte(&length))
            return false;
        key = in.bytes(length % 16);
    }
    std::uint8_t v = 0;
    if (!in.byte(&v))
        return false;
    if (k & 0x80) {
        int value = 0;
        if (v & 0x80) {
            value = kNotableInts[(v & 0x7f) % kNotableCount];
        } else {
            const std::string raw = in.bytes(4);
            if (raw.size() < 4)
                return false;
            std::uint32_t bits = 0;
            for (int i = 3; i >= 0; --i)
                bits = (bits << 8) | static_cast<std::uint8_t>(raw[static_cast<std::size_t>(i)]);
            value = static_cast<int>(bits);
        }
        msg.add_int(key, value);
    } else if (v & 0x80) {
        msg.add_string(key, kTexts[(v & 0x7f) % kTextCount]);
    } else {
        msg.add_string(key, in.bytes(v & 0x3f));
    }
    return true;
}

// What the plug-in's queue does with a message of a type it listens to.
void dispatch(const Handler& handler, ac::Message* msg)
{
    try {
        handler.function(msg);
    } catch (const std::exception& e) {
        ac::error::log(std::string("handler for ") + handler.type + " threw: " + e.what());
    } catch (...) {
        ac::error::log(std::string("handler for ") + handler.type + " threw");
    }
}

void deliver(int type, ac::Message* sent)
{
    if (type >= kHandlerCount)
        return;  // nobody listens: the host drops it
    const Handler& handler = kHandlers[type];
    if (handler.copied) {
        // Queued as a copy, which carries the fields but not the reply object.
        std::unique_ptr<ac::Message> copy(new ac::Message(*sent));
        dispatch(handler, copy.get());
    } else {
        // Marked handled and moved into the queue with its reply object.
        sent->set_handled();
        dispatch(handler, sent);
    }
}

void controller_letter(std::uint8_t letter)
{
    standin::Clock::instance().advance_ms(1000);
    const char event[2] = {static_cast<char>(letter), '\0'};
    catra_fuzz::feed_controller(event, sizeof event);
    try {
        read_catra_event();
    } catch (const std::exception& e) {
        ac::error::log(e.what());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    catra_fuzz::set_up_once();
    catra_fuzz::reset_for_input();

    Reader in(data, size);
    std::uint8_t t = 0;
    while (in.byte(&t)) {
        const int type = t % 12;
        if (type == 11) {
            std::uint8_t letter = 0;
            if (in.byte(&letter))
                controller_letter(letter);
            catra_fuzz::drain_controller();
            continue;
        }
        std::uint8_t flags = 0;
        in.byte(&flags);
        ac::MessageReply reply;
        auto msg = std::make_unique<ac::Message>(
            type < kHandlerCount ? kHandlers[type].type : "catra_unknown", 0, nullptr);
        if (flags & 1)
            msg->set_reply(&reply);
        const int fields = (flags >> 1) & 7;
        for (int i = 0; i < fields && add_field(in, *msg); ++i) {
        }
        deliver(type, msg.get());
        msg.reset();
        catra_fuzz::drain_controller();
    }

    catra_fuzz::check_invariants("bus_messages_fuzz");
    return 0;
}
