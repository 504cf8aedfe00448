// The stand-in host's configuration: what ac::config reads.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace standin {

// Modules and keys to texts; the module-less keys live under module "".
// The host's own switches are keys of module "host":
//   "online" (0/1), "online_client" ("answer" default, "silent", "no_mode"),
//   "online_client_mode" (int answered as "mode"), "exception_mode" (int),
//   "antipassback_enabled" (0/1), "antipassback_mode" (text),
//   "buttonholes" (comma-separated GPIO numbers of buttonholes 1, 2, ...),
//   "device_model" ("varnek_KTR" makes device_is_varnek_KTR true),
//   "device_id" (this device's id, default 1),
//   "failing" (comma-separated host utilities that raise ac::ac_exception
//   when called: "buzzer" for ac::util::rex_buzz::activateBuzzer,
//   "set_thread_name" for ac::util::set_thread_name).
// Every member may be called from any thread.
class Config {
public:
    // The process's configuration, never destroyed.
    static Config& instance();
    void set(const std::string& module, const std::string& key, const std::string& value);
    // Stores the number as decimal text.
    void set(const std::string& module, const std::string& key, long long value);
    void erase(const std::string& module, const std::string& key);
    // False when the key is missing. value may be null to ask only that.
    bool get(const std::string& module, const std::string& key, std::string* value) const;
    void clear();

private:
    Config() = default;
    mutable std::mutex mutex_;
    std::map<std::pair<std::string, std::string>, std::string> values_;
};

}  // namespace standin
