// Event and state names, and the publication of events and state changes.
#include <gtest/gtest.h>

#include <ctime>
#include <mutex>

#include "catra_internal.h"
#include "terminal_test.h"

namespace catra_test {
namespace {

TEST(EventNames, EveryCodeHasItsDisplayText)
{
    const struct {
        int code;
        const char* text;
    } table[] = {
        {0, "ALWAYS BLOCKED"},   {1, "ALWAYS FREE LEFT"}, {2, "ALWAYS FREE RIGHT"},
        {3, "ALWAYS FREE BOTH"}, {4, "FREE LEFT"},        {5, "FREE RIGHT"},
        {6, "FREE BOTH"},        {7, "TURN LEFT"},        {8, "TURN RIGHT"},
        {9, "GIVE UP"},          {10, "BLOCKED"},         {11, "EVENT_READY"},
        {12, "EVENT_NOT_READY"}, {13, "UNKNOWN EVENT"},   {-1, "UNKNOWN EVENT"},
        {-32, "UNKNOWN EVENT"},  {25, "UNKNOWN EVENT"},
    };
    for (const auto& row : table) {
        EXPECT_EQ(catra_event_to_string(row.code), row.text) << "code " << row.code;
    }
}

TEST(StateNames, EveryStateHasItsDisplayText)
{
    const struct {
        int code;
        const char* text;
    } table[] = {
        {0, "BLOCKED"},        {1, "LEFT LIBERATED"}, {2, "RIGHT LIBERATED"},
        {3, "BOTH LIBERATED"}, {4, "UNKNOWN STATE"},  {-1, "UNKNOWN STATE"},
    };
    for (const auto& row : table) {
        EXPECT_EQ(catra_state_to_string(row.code), row.text) << "state " << row.code;
    }
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
