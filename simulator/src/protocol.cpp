#include "simulator/protocol.h"

namespace simulator {

std::string_view event_name(char letter)
{
    for (const EventLetter& event : kEvents) {
        if (event.letter == letter)
            return event.name;
    }
    return kUnknownEvent;
}

std::string_view side_name(Side side)
{
    return side == Side::left ? "left" : "right";
}

std::string_view turn_name(Side side)
{
    return side == Side::left ? "turn_left" : "turn_right";
}

std::optional<Side> side_of_turn(std::string_view name)
{
    for (Side side : kSides) {
        if (turn_name(side) == name)
            return side;
    }
    return std::nullopt;
}

char turn_letter(Side side)
{
    return side == Side::left ? 'h' : 'i';
}

}  // namespace simulator
