// The feeds of the host's watchdog, counted by module. The test executable
// defines ac::watchdog::keep_alive itself (see watchdog_feeds.cpp), so the
// plug-in's feeds land here, whether it is linked in or loaded with dlopen.
#pragma once

#include <string>

namespace catra_test {

long long watchdog_feeds(const std::string& module);

}  // namespace catra_test
