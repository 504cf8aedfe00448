// Host utilities: clock, thread names, exit-request buzzer and records, device model.
#pragma once

#include <ctime>
#include <string>

namespace ac {
namespace util {

enum reason_to_open : int { UNKNOWN = 0, AUTHORIZED = 1, REX = 2, WEB = 3 };

timespec get_time();
// result = a - b; returns 1 when the difference is negative, else 0.
int timespec_subtract(timespec* result, const timespec& a, timespec b);
int timespec_to_ms(const timespec& t);

void set_thread_name(const std::string& name, unsigned long thread);

bool device_is_varnek_KTR();

void create_log_rex(unsigned long long portal_id, reason_to_open reason, long long user_id);

class rex_buzz {
public:
    static void activateBuzzer();
};

}  // namespace util
}  // namespace ac
