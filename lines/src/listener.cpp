#include "lines/listener.h"

namespace lines {

simulator::Turnstile::Listener printing_listener(
    Output& output, std::function<void(const std::string& reason)> failed)
{
    return simulator::Turnstile::Listener{
        [&output](const std::string& text) { output.emit(controller_line(text)); },
        [&output](char letter) { output.emit(turnstile_line(letter)); },
        [&output](simulator::Side side, bool turned) { output.emit(person_line(side, turned)); },
        std::move(failed)};
}

}  // namespace lines
