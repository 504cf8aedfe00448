// The simulated controller's listener that prints what crosses its line: each
// command text it reads, each letter it reports and each push of a person,
// as output lines.
#pragma once

#include <functional>
#include <string>

#include "lines/output.h"
#include "simulator/turnstile.h"

namespace lines {

// `failed` hears why the controller's line stopped, on the turnstile's thread.
simulator::Turnstile::Listener printing_listener(
    Output& output, std::function<void(const std::string& reason)> failed);

}  // namespace lines
