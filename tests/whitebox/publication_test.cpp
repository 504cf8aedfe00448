// The publication of events and state changes.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "catra_internal.h"
#include "terminal_test.h"

namespace catra_test {
namespace {

// Each change is told to the debug log by name (the names of the events are
// those the model's messages show).
TEST(Publication, EachChangeIsLoggedByName)
{
    LogRecorder logs;
    BusRecorder recorder;
    std::lock_guard<std::mutex> lock(state_mutex);
    for (int state : {0, 1, 2, 3})
        send_message_catra_state_changed(state);
    send_message_catra_default_state_changed(CatraState::BLOCKED);
    send_message_catra_enabled_changed(true);
    send_message_catra_enabled_changed(false);
    new_catra_event(CatraEvent::EVENT_READY);
    EXPECT_EQ(
        logs.texts(standin::LogLine::Kind::debug),
        (std::vector<std::string>{"Catra state : BLOCKED", "Catra state : LEFT LIBERATED",
                                  "Catra state : RIGHT LIBERATED", "Catra state : BOTH LIBERATED",
                                  "Catra default_state : BLOCKED", "Catra enabled : 1",
                                  "Catra enabled : 0", "Catra event : EVENT_READY"}));
}

// The publishers run with state_mutex held by their callers; so do the tests.
// A failed store of the access event leaves before the message is built.
TEST(Publication, ADataAccessFailureSendsNothingAndKeepsTheUuid)
{
    BusRecorder recorder;
    std::lock_guard<std::mutex> lock(state_mutex);
    release_uuid = "abc";
    standin::Database::instance().exec(refusal("INSERT", "access_events"));
    EXPECT_EQ(thrown_text([] { send_message_catra_event(CatraEvent::TURN_LEFT); }),
              "disk I/O error");
    EXPECT_TRUE(recorder.trace().empty());
    EXPECT_EQ(release_uuid, "abc");
}

}  // namespace
}  // namespace catra_test
