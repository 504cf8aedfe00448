// The host's configuration store.
#pragma once

#include <string>

namespace ac {
namespace config {
// Fills value with the parameter's text. With flag true a missing parameter
// raises ac_exception; with false value is left untouched and false returned.
bool get_param(const std::string& module, const std::string& key, std::string& value, bool flag);
}  // namespace config

namespace config_util {
// Integer parameters. With flag true a missing or non-numeric parameter raises
// ac_exception; with false such a read gives 0.
int get_int(const std::string& module, const std::string& key, bool flag);
int get_int(const std::string& key, bool flag);

bool online();
int exception_mode();
int str_to_exception_mode(const std::string& text);
bool antipassback_enabled();
void antipassback_enabled(bool enabled);
void antipassback_mode(const std::string& mode);
int buttonhole_count();
int buttonhole(int n);
}  // namespace config_util
}  // namespace ac
