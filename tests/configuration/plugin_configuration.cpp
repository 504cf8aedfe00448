#include "plugin_configuration.h"

namespace simulator {

void write_plugin_configuration(standin::Config& config, const std::string& device_path)
{
    using namespace defaults;
    config.clear();
    config.set("catra", "device_path", device_path);
    config.set("catra", "fi1", "12");
    config.set("catra", "fi2", "13");
    config.set("catra", "sol1", "14");
    config.set("catra", "sol2", "15");
    config.set("catra", "select_timeout", 1000);
    config.set("catra", "fi1_gpio", kFi1Gpio);
    config.set("catra", "fi2_gpio", kFi2Gpio);
    config.set("catra", "sol1_gpio", kSol1Gpio);
    config.set("catra", "sol2_gpio", kSol2Gpio);
    config.set("catra", "watchdog_timeout", 1000);
    config.set("catra", "relay_timeout", kRelayTimeout);
    config.set("", "collector_gpio", kCollectorGpio);
    config.set("", "collector_timeout", kCollectorTimeout);
    config.set("", "catra_timeout", kCatraTimeout);
    config.set("gpio", "catra_relay_1_enable_direction", "right");
    config.set("gpio", "catra_relay_2_enable_direction", "left");
    config.set("gpio", "catra_relay_1_enabled", 0);
    config.set("gpio", "catra_relay_2_enabled", 0);
    config.set("gpio", "catra_relay_1_gpio", kRelay1Gpio);
    config.set("gpio", "catra_relay_2_gpio", kRelay2Gpio);
    config.set("identifier", "verbose_logging", 1);
    config.set("host", "online", 0);
    config.set("host", "exception_mode", 0);
    config.set("host", "antipassback_enabled", 0);
    config.set("host", "device_id", kDeviceId);
    config.set("host", "buttonholes", "40,41,42");
}

}  // namespace simulator
