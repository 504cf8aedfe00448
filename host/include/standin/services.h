// The stand-in host's own services on the bus.
#pragma once

namespace standin {

// Installs the online client ("online_client_get_operation_mode") and the GPIO
// service ("gpio_update", "gpio_set_value", "gpio_activate", "gpio_deactivate",
// each marked handled; one without its int fields is logged) on the bus.
// Installing again replaces them with fresh ones of the same kind.
void install_services();

}  // namespace standin
