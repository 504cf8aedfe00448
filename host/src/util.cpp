// The exception type, the clock, thread names, the buzzer and the device model.
#include "ac/util.h"

#include <pthread.h>

#include <climits>

#include "ac/ac_exception.h"
#include "ac/config.h"
#include "host_internal.h"
#include "standin/clock.h"

namespace ac {

ac_exception::ac_exception(const std::string& text, bool flag) : text_(text), flag_(flag) {}

const char* ac_exception::what() const noexcept
{
    return text_.c_str();
}

bool ac_exception::flag() const noexcept
{
    return flag_;
}

}  // namespace ac

namespace {

constexpr long kNanosPerSecond = 1000000000L;

timespec normalised(long long seconds, long long nanos)
{
    seconds += nanos / kNanosPerSecond;
    nanos %= kNanosPerSecond;
    if (nanos < 0) {
        nanos += kNanosPerSecond;
        --seconds;
    }
    timespec t{};
    t.tv_sec = static_cast<time_t>(seconds);
    t.tv_nsec = static_cast<long>(nanos);
    return t;
}

}  // namespace

namespace standin {

// ---------------------------------------------------------------- clock
Clock& Clock::instance()
{
    static Clock* clock = new Clock();
    return *clock;
}

void Clock::set_manual(timespec start)
{
    std::lock_guard<std::mutex> lock(mutex_);
    manual_ = true;
    manual_now_ = normalised(start.tv_sec, start.tv_nsec);
}

void Clock::set_real()
{
    std::lock_guard<std::mutex> lock(mutex_);
    manual_ = false;
}

void Clock::advance_ms(long ms)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!manual_) {
        clock_gettime(CLOCK_MONOTONIC, &manual_now_);
        manual_ = true;
    }
    manual_now_ = normalised(static_cast<long long>(manual_now_.tv_sec) + ms / 1000,
                             manual_now_.tv_nsec + (ms % 1000) * 1000000LL);
}

timespec Clock::now() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (manual_)
        return manual_now_;
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t;
}

}  // namespace standin

namespace ac {
namespace util {

timespec get_time()
{
    return standin::Clock::instance().now();
}

int timespec_subtract(timespec* result, const timespec& a, timespec b)
{
    const timespec difference =
        normalised(static_cast<long long>(a.tv_sec) - static_cast<long long>(b.tv_sec),
                   static_cast<long long>(a.tv_nsec) - static_cast<long long>(b.tv_nsec));
    if (result)
        *result = difference;
    return difference.tv_sec < 0 ? 1 : 0;
}

// Whole milliseconds, truncated toward zero, limited to the range of int.
int timespec_to_ms(const timespec& t)
{
    const timespec n = normalised(t.tv_sec, t.tv_nsec);
    constexpr long long kLimit = INT_MAX / 1000 + 1;  // seconds beyond any int of ms
    if (n.tv_sec >= kLimit)
        return INT_MAX;
    if (n.tv_sec < -kLimit)
        return INT_MIN;
    const long long nanos = static_cast<long long>(n.tv_sec) * kNanosPerSecond + n.tv_nsec;
    const long long ms = nanos / 1000000;
    if (ms > INT_MAX)
        return INT_MAX;
    if (ms < INT_MIN)
        return INT_MIN;
    return static_cast<int>(ms);
}

// The kernel keeps at most 15 characters of a thread's name.
void set_thread_name(const std::string& name, unsigned long thread)
{
    standin::fail_if_configured("set_thread_name");
    pthread_setname_np(static_cast<pthread_t>(thread), name.substr(0, 15).c_str());
}

bool device_is_varnek_KTR()
{
    std::string model;
    config::get_param("host", "device_model", model, false);
    return model == "varnek_KTR";
}

// The stand-in terminal's buzzer sounds as a line of its log.
void rex_buzz::activateBuzzer()
{
    standin::fail_if_configured("buzzer");
    standin::log_host("buzzer");
}

}  // namespace util
}  // namespace ac
