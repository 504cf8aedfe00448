// Configuration reads, host switches, the clock, logs and small host services.
#include <gtest/gtest.h>
#include <pthread.h>

#include <climits>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "standin/standin.h"

namespace {

using standin::Config;

class ConfigTest : public testing::Test {
protected:
    void SetUp() override
    {
        Config::instance().clear();
        Config::instance().set("catra", "gateway", "clockwise");
        Config::instance().set("catra", "select_timeout", 250);
        Config::instance().set("catra", "bad", "12a");
        Config::instance().set("", "collector_gpio", "-7");
    }
};

// The text of the ac_exception that call raises, or "" when it raises none.
std::string raised_by(const std::function<void()>& call)
{
    try {
        call();
    } catch (const ac::ac_exception& e) {
        return e.what();
    }
    return "";
}

TEST_F(ConfigTest, GetParamFillsFoundValuesAndTreatsMissingKeysByFlag)
{
    struct Case {
        std::string module, key;
        bool flag;
        bool found;
        std::string value;
        std::string error;
    };
    const Case cases[] = {
        {"catra", "gateway", false, true, "clockwise", ""},
        {"catra", "gateway", true, true, "clockwise", ""},
        {"catra", "fi1", false, false, "preset", ""},
        {"catra", "fi1", true, false, "preset", "Parameter catra.fi1 not found"},
        {"", "gateway", true, false, "preset", "Parameter gateway not found"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.module + "/" + c.key + (c.flag ? " flag" : " no flag"));
        std::string value = "preset";
        bool found = false;
        EXPECT_EQ(raised_by([&] { found = ac::config::get_param(c.module, c.key, value, c.flag); }),
                  c.error);
        EXPECT_EQ(found, c.found);
        EXPECT_EQ(value, c.value);
    }
}

TEST_F(ConfigTest, GetIntReadsBothFormsAndTreatsMissingOrTextByFlag)
{
    struct Case {
        const char* what;
        std::function<int()> read;
        int value;
        std::string error;
    };
    using ac::config_util::get_int;
    const Case cases[] = {
        {"two keys", [] { return get_int("catra", "select_timeout", true); }, 250, ""},
        {"one key", [] { return get_int("collector_gpio", true); }, -7, ""},
        {"one key is module-less", [] { return get_int("select_timeout", false); }, 0, ""},
        {"one key missing", [] { return get_int("select_timeout", true); }, 0,
         "Parameter select_timeout not found"},
        {"missing, no flag", [] { return get_int("catra", "fi1", false); }, 0, ""},
        {"missing, flag", [] { return get_int("catra", "fi1", true); }, 0,
         "Parameter catra.fi1 not found"},
        {"text, no flag", [] { return get_int("catra", "bad", false); }, 0, ""},
        {"text, flag", [] { return get_int("catra", "bad", true); }, 0,
         "Parameter catra.bad is not an integer: \"12a\""},
        {"word, flag", [] { return get_int("catra", "gateway", true); }, 0,
         "Parameter catra.gateway is not an integer: \"clockwise\""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        int value = 0;
        EXPECT_EQ(raised_by([&] { value = c.read(); }), c.error);
        EXPECT_EQ(value, c.value);
    }
}

TEST_F(ConfigTest, HostSwitchesAreKeysOfModuleHost)
{
    namespace cu = ac::config_util;
    EXPECT_FALSE(cu::online());
    EXPECT_EQ(cu::exception_mode(), 0);
    EXPECT_EQ(cu::buttonhole_count(), 0);
    EXPECT_FALSE(ac::util::device_is_varnek_KTR());

    Config::instance().set("host", "online", 1);
    Config::instance().set("host", "exception_mode", "blocked");
    Config::instance().set("host", "buttonholes", "12, 7,30");
    Config::instance().set("host", "device_model", "varnek_KTR");
    EXPECT_TRUE(cu::online());
    EXPECT_EQ(cu::exception_mode(), 2);
    EXPECT_EQ(cu::buttonhole_count(), 3);
    EXPECT_EQ((std::vector<int>{cu::buttonhole(1), cu::buttonhole(2), cu::buttonhole(3),
                                cu::buttonhole(4), cu::buttonhole(0)}),
              (std::vector<int>{12, 7, 30, -1, -1}));
    EXPECT_TRUE(ac::util::device_is_varnek_KTR());

    cu::antipassback_enabled(true);
    cu::antipassback_mode("daily_catra");
    std::string enabled, mode;
    EXPECT_TRUE(Config::instance().get("host", "antipassback_enabled", &enabled));
    EXPECT_TRUE(Config::instance().get("host", "antipassback_mode", &mode));
    EXPECT_EQ(enabled, "1");
    EXPECT_EQ(mode, "daily_catra");
    EXPECT_TRUE(cu::antipassback_enabled());
    cu::antipassback_enabled(false);
    EXPECT_FALSE(cu::antipassback_enabled());
}

TEST(ConfigUtilTest, ExceptionModeTextsMapToNumbers)
{
    const std::pair<std::string, int> cases[] = {
        {"1", 1},    {"2", 2}, {"7", 7},    {"free", 1}, {"blocked", 2},
        {"Free", 0}, {"", 0},  {"none", 0}, {"2x", 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ac::config_util::str_to_exception_mode(c.first), c.second) << c.first;
    }
}

timespec ts(long long sec, long nsec)
{
    timespec t{};
    t.tv_sec = static_cast<time_t>(sec);
    t.tv_nsec = nsec;
    return t;
}

std::pair<long long, long> pair_of(const timespec& t)
{
    return {t.tv_sec, t.tv_nsec};
}

TEST(ClockTest, ManualClockMovesOnlyWhenAdvanced)
{
    standin::Clock& clock = standin::Clock::instance();
    clock.set_manual(ts(100, 999000000));
    EXPECT_EQ(pair_of(ac::util::get_time()), pair_of(ts(100, 999000000)));
    EXPECT_EQ(pair_of(ac::util::get_time()), pair_of(ts(100, 999000000)));
    clock.advance_ms(2);
    EXPECT_EQ(pair_of(ac::util::get_time()), pair_of(ts(101, 1000000)));
    clock.advance_ms(-1500);
    EXPECT_EQ(pair_of(ac::util::get_time()), pair_of(ts(99, 501000000)));
    clock.set_real();
}

TEST(ClockTest, TimespecSubtractNormalisesAndFlagsNegativeResults)
{
    struct Case {
        timespec a, b;
        std::pair<long long, long> result;
        int negative;
    };
    const Case cases[] = {
        {ts(5, 500), ts(3, 200), {2, 300}, 0},
        {ts(5, 100), ts(3, 200), {1, 999999900}, 0},
        {ts(7, 0), ts(7, 0), {0, 0}, 0},
        {ts(3, 0), ts(5, 0), {-2, 0}, 1},
        {ts(3, 200), ts(3, 500), {-1, 999999700}, 1},
    };
    for (const Case& c : cases) {
        timespec result = ts(-99, -99);
        EXPECT_EQ(ac::util::timespec_subtract(&result, c.a, c.b), c.negative);
        EXPECT_EQ(pair_of(result), c.result);
    }
}

TEST(ClockTest, TimespecToMsTruncatesTowardZero)
{
    const std::pair<timespec, int> cases[] = {
        {ts(0, 0), 0},           {ts(0, 999999), 0},        {ts(1, 999999999), 1999},
        {ts(-1, 998500000), -1},  // -1.5 ms
        {ts(-2, 0), -2000},      {ts(3000000, 0), INT_MAX},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ac::util::timespec_to_ms(c.first), c.second) << c.first.tv_sec;
    }
}

TEST(LogsTest, DebugAndErrorLinesAreKeptAndShownToObservers)
{
    standin::Logs& logs = standin::Logs::instance();
    logs.clear();
    std::vector<std::string> observed;
    const int id =
        logs.subscribe([&](const standin::LogLine& line) { observed.push_back(line.text); });
    ac::zorlog::debug("Catra enabled : 1", "catra/src/source/catra", "send_message_changed", 42);
    ac::error::log("ERROR: Cannot turn left  while blocked!!");
    logs.unsubscribe(id);
    ac::error::log("after unsubscribe");

    const std::vector<standin::LogLine> lines = logs.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].kind, standin::LogLine::Kind::debug);
    EXPECT_EQ(lines[0].text, "Catra enabled : 1");
    EXPECT_EQ(lines[0].file, "catra/src/source/catra");
    EXPECT_EQ(lines[0].function, "send_message_changed");
    EXPECT_EQ(lines[0].line, 42);
    EXPECT_EQ(lines[1].kind, standin::LogLine::Kind::error);
    EXPECT_EQ(lines[1].text, "ERROR: Cannot turn left  while blocked!!");
    EXPECT_EQ(observed, (std::vector<std::string>{"Catra enabled : 1",
                                                  "ERROR: Cannot turn left  while blocked!!"}));
}

TEST(HostServicesTest, WatchdogCountsPerModuleAndBuzzerFailsOnlyWhenArmed)
{
    const long long before = standin::Watchdog::instance().count("catra");
    ac::watchdog::keep_alive("catra");
    ac::watchdog::keep_alive("catra");
    EXPECT_EQ(standin::Watchdog::instance().count("catra"), before + 2);
    EXPECT_EQ(standin::Watchdog::instance().count("never_fed"), 0);

    standin::Buzzer& buzzer = standin::Buzzer::instance();
    const int buzzes = buzzer.count();
    buzzer.fail_next();
    EXPECT_EQ(raised_by(ac::util::rex_buzz::activateBuzzer), "buzzer failure");
    EXPECT_EQ(buzzer.count(), buzzes);
    EXPECT_EQ(raised_by(ac::util::rex_buzz::activateBuzzer), "");
    EXPECT_EQ(buzzer.count(), buzzes + 1);
}

TEST(HostServicesTest, ThreadNameIsRecordedAndTruncatedForTheKernel)
{
    char kernel_name[32] = {};
    unsigned long named = 0;
    std::thread thread([&] {
        named = pthread_self();
        ac::util::set_thread_name("catra_run_with_a_long_name", named);
        pthread_getname_np(pthread_self(), kernel_name, sizeof kernel_name);
    });
    thread.join();
    EXPECT_STREQ(kernel_name, "catra_run_with_");
    const std::vector<standin::ThreadName> names = standin::Threads::instance().names();
    ASSERT_FALSE(names.empty());
    EXPECT_EQ(names.back().name, "catra_run_with_a_long_name");
    EXPECT_EQ(names.back().thread, named);
}

class OnlineClientTest : public testing::Test {
protected:
    void SetUp() override
    {
        Config::instance().clear();
        standin::install_services();
    }
    // Sends the mode request; returns (replied, "mode" or -1 when absent).
    static std::pair<bool, int> ask()
    {
        ac::MessageReply reply;
        auto* msg = new ac::Message("online_client_get_operation_mode", 0, nullptr);
        msg->set_reply(&reply);
        ac::PostOffice::send_message_sync(msg);
        int mode = -1;
        reply.get_int("mode", &mode);
        return {reply.replied(), mode};
    }
};

TEST_F(OnlineClientTest, AnswersAsConfigured)
{
    Config::instance().set("host", "online_client_mode", 1);
    EXPECT_EQ(ask(), std::make_pair(true, 1));
    Config::instance().set("host", "online_client", "no_mode");
    EXPECT_EQ(ask(), std::make_pair(true, -1));
    Config::instance().set("host", "online_client", "silent");
    EXPECT_EQ(ask(), std::make_pair(false, -1));
}

TEST_F(OnlineClientTest, GpioServiceKeepsTheLastStateOfEachPin)
{
    auto send = [](const char* type, std::vector<std::pair<const char*, int>> fields, bool sync) {
        auto* msg = new ac::Message(type, 0, nullptr);
        for (const auto& field : fields)
            msg->add_int(field.first, field.second);
        sync ? (void)ac::PostOffice::send_message_sync(msg) : ac::PostOffice::send_message(msg);
    };
    send("gpio_update", {{"gpio", 5}, {"enabled", 0}}, true);
    send("gpio_set_value", {{"gpio", 5}, {"value", 1}}, false);
    send("gpio_activate", {{"gpio", 6}, {"timeout", 2000}}, false);
    send("gpio_activate", {{"gpio", 7}, {"timeout", 500}}, false);
    send("gpio_deactivate", {{"gpio", 7}}, false);
    ASSERT_TRUE(standin::Bus::instance().wait_idle());

    auto state = [](int gpio) {
        const standin::GpioPin pin = standin::GpioService::instance().pin(gpio);
        return std::vector<int>{pin.value, pin.active, pin.timeout, pin.enabled};
    };
    EXPECT_EQ(state(5), (std::vector<int>{1, 0, 0, 0}));
    EXPECT_EQ(state(6), (std::vector<int>{0, 1, 2000, -1}));
    EXPECT_EQ(state(7), (std::vector<int>{0, 0, 500, -1}));
    EXPECT_EQ(state(8), (std::vector<int>{0, 0, 0, -1}));
}

}  // namespace
