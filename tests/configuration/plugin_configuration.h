// The configuration of a turnstile plug-in whose controller is the simulated
// one: pins, GPIO numbers and times shared by the tests, the fuzz targets and
// the benchmarks.
#pragma once

#include <string>

#include "standin/config.h"

namespace simulator {

namespace defaults {
constexpr long long kDeviceId = 1;
constexpr int kFi1Gpio = 20;
constexpr int kFi2Gpio = 21;
constexpr int kSol1Gpio = 10;
constexpr int kSol2Gpio = 11;
constexpr int kCollectorGpio = 12;
constexpr int kCollectorTimeout = 300;
constexpr int kCatraTimeout = 5;
constexpr int kRelayTimeout = 500;
constexpr int kRelay1Gpio = 30;
constexpr int kRelay2Gpio = 31;
}  // namespace defaults

// Replaces the whole configuration:
//   module "catra": device_path, fi1 "12", fi2 "13", sol1 "14", sol2 "15",
//     select_timeout 1000, the four GPIOs, watchdog_timeout 1000,
//     relay_timeout; "gateway" and "operation_mode" are not set.
//   no module: collector_gpio, collector_timeout, catra_timeout.
//   module "gpio": relay 1 direction "right", relay 2 "left", both disabled.
//   module "identifier": verbose_logging 1.
//   module "host": online 0, exception_mode 0, antipassback_enabled 0,
//     device_id 1, buttonholes "40,41,42".
void write_plugin_configuration(standin::Config& config, const std::string& device_path);

}  // namespace simulator
