// What the turnstile controller and the terminal say to each other, as the
// tools around the plug-in know it: the letters the controller reports, with
// the names the plug-in publishes them by, and the turnstile's two sides with
// the names a person's turn on each goes by. Every tool takes them from here.
#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace simulator {

// One event the controller reports: its letter, and the name the plug-in
// publishes for it ("event_name" of "catra_event").
struct EventLetter {
    char letter;
    std::string_view name;
};

// Every event the controller reports, in the order of its code: the letter of
// code N is 'a' + N.
inline constexpr std::array<EventLetter, 13> kEvents = {{
    {'a', "ALWAYS BLOCKED"},
    {'b', "ALWAYS FREE LEFT"},
    {'c', "ALWAYS FREE RIGHT"},
    {'d', "ALWAYS FREE BOTH"},
    {'e', "FREE LEFT"},
    {'f', "FREE RIGHT"},
    {'g', "FREE BOTH"},
    {'h', "TURN LEFT"},
    {'i', "TURN RIGHT"},
    {'j', "GIVE UP"},
    {'k', "BLOCKED"},
    {'l', "EVENT_READY"},
    {'m', "EVENT_NOT_READY"},
}};

// The name the plug-in publishes for a byte that reports no event.
inline constexpr std::string_view kUnknownEvent = "UNKNOWN EVENT";

// The name of the event a letter reports; kUnknownEvent for any other byte.
std::string_view event_name(char letter);

// The turnstile's sides: left is anticlockwise, right is clockwise.
enum class Side { left, right };
inline constexpr std::array<Side, 2> kSides = {Side::left, Side::right};

// A side's name: "left", "right".
std::string_view side_name(Side side);
// What a person's turn on a side is called: "turn_left", "turn_right".
std::string_view turn_name(Side side);
// The side of a turn's name; nothing for any other text.
std::optional<Side> side_of_turn(std::string_view name);
// The letter the controller reports for a turn on that side (h, i).
char turn_letter(Side side);

}  // namespace simulator
