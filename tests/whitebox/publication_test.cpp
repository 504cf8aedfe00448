// Event and state names, and the publication of events and state changes.
#include <gtest/gtest.h>

#include <ctime>
#include <mutex>

#include "catra_internal.h"
#include "terminal_test.h"

namespace catra_test {
namespace {

// Codes without a name; the named ones are shown with every event and state
// change the model publishes.
TEST(EventNames, CodesOutsideTheTablesAreUnknown)
{
    for (int code : {13, -1, -32, 25})
        EXPECT_EQ(catra_event_to_string(code), "UNKNOWN EVENT") << code;
    for (int state : {4, -1})
        EXPECT_EQ(catra_state_to_string(state), "UNKNOWN STATE") << state;
    EXPECT_EQ(catra_event_to_string(CatraEvent::BLOCKED),
              catra_state_to_string(CatraState::BLOCKED));
}

// The publishers run with state_mutex held by their callers; so do the tests.
class Publication : public TerminalTest {
protected:
    void SetUp() override
    {
        TerminalTest::SetUp();
        config().set("host", "device_id", 7);
    }

    standin::Rows access_events()
    {
        return database().query(
            "SELECT id, module, name, uuid, device_id, timestamp FROM access_events ORDER BY id");
    }

    std::lock_guard<std::mutex> lock_{state_mutex};
};

TEST_F(Publication, ADataAccessFailureSendsNothingAndKeepsTheUuid)
{
    release_uuid = "abc";
    database().fail_next(standin::DalCall::access_event_create);
    EXPECT_THROW(send_message_catra_event(CatraEvent::TURN_LEFT), ac::ac_exception);
    EXPECT_TRUE(recorder().of_type("catra_event").empty());
    EXPECT_EQ(release_uuid, "abc");

    send_message_catra_event(CatraEvent::TURN_LEFT);
    EXPECT_EQ(recorder().of_type("catra_event").size(), 1u);
}

}  // namespace
}  // namespace catra_test
