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

TEST_F(Publication, TurnStoresAnAccessEventAndPublishesItsId)
{
    release_uuid = "abc";
    const time_t before = time(nullptr);
    send_message_catra_event(CatraEvent::TURN_RIGHT);
    const time_t after = time(nullptr);

    const standin::Rows rows = access_events();
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0][1], "catra");
    EXPECT_EQ(rows[0][2], "TURN RIGHT");
    EXPECT_EQ(rows[0][3], "abc");
    EXPECT_EQ(rows[0][4], "7");
    const long long stamp = std::stoll(rows[0][5]);
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, after);

    const auto events = recorder().of_type("catra_event");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(render(events[0]),
              render("catra_event", {
                                        Field("event", 8).field,
                                        Field("event_name", "TURN RIGHT").field,
                                        Field("timestamp", int(stamp)).field,
                                        Field("uuid", "abc").field,
                                        Field("access_event_id", std::stoi(rows[0][0])).field,
                                    }));
    EXPECT_EQ(release_uuid, "");
}

TEST_F(Publication, ASecondTurnRecordsAnEmptyUuid)
{
    release_uuid = "abc";
    send_message_catra_event(CatraEvent::TURN_RIGHT);
    send_message_catra_event(CatraEvent::TURN_RIGHT);

    const standin::Rows rows = access_events();
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[1][3], "");
    const auto events = recorder().of_type("catra_event");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].text_field("uuid"), "");
    EXPECT_EQ(events[1].int_field("access_event_id"), std::stoi(rows[1][0]));
    EXPECT_NE(rows[0][0], rows[1][0]);
}

TEST_F(Publication, TurnsAndGiveUpsUseUpThePendingUuid)
{
    for (int event : {CatraEvent::TURN_LEFT, CatraEvent::TURN_RIGHT, CatraEvent::GIVE_UP}) {
        release_uuid = "u-" + std::to_string(event);
        send_message_catra_event(event);
        EXPECT_EQ(release_uuid, "") << catra_event_to_string(event);
        const auto sent = recorder().of_type("catra_event").back();
        EXPECT_EQ(sent.text_field("uuid"), "u-" + std::to_string(event));
        EXPECT_NE(sent.int_field("access_event_id"), 0);
    }
    const standin::Rows rows = access_events();
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0][2], "TURN LEFT");
    EXPECT_EQ(rows[1][2], "TURN RIGHT");
    EXPECT_EQ(rows[2][2], "GIVE UP");
}

TEST_F(Publication, OtherEventsStoreNothingAndKeepTheUuid)
{
    release_uuid = "keep";
    for (int event : {0, 1, 2, 3, 4, 5, 6, 10, 11, 12, 25, -32}) {
        send_message_catra_event(event);
        const auto sent = recorder().of_type("catra_event").back();
        EXPECT_EQ(sent.int_field("event"), event);
        EXPECT_EQ(sent.text_field("event_name"), catra_event_to_string(event));
        EXPECT_EQ(sent.text_field("uuid"), "keep");
        EXPECT_EQ(sent.int_field("access_event_id"), 0) << "event " << event;
        EXPECT_EQ(release_uuid, "keep");
    }
    EXPECT_TRUE(access_events().empty());
}

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

TEST_F(Publication, EachStateChangeIsAnnouncedOnce)
{
    current_state = CatraState::BLOCKED;
    default_state = CatraState::BLOCKED;
    logs().clear();

    set_current_state(CatraState::BLOCKED);
    set_default_state(CatraState::BLOCKED);
    EXPECT_TRUE(recorder().messages().empty());

    set_default_state(CatraState::RIGHT_LIBERATED);
    set_default_state(CatraState::RIGHT_LIBERATED);
    set_current_state(CatraState::LEFT_LIBERATED);
    set_current_state(CatraState::LEFT_LIBERATED);

    const auto sent = recorder().messages();
    ASSERT_EQ(sent.size(), 2u) << recorder().dump();
    EXPECT_EQ(render(sent[0]), "catra_default_state_changed{default_state=2}");
    EXPECT_EQ(render(sent[1]), "catra_state_changed{state=1}");
    EXPECT_EQ(default_state, CatraState::RIGHT_LIBERATED);
    EXPECT_EQ(current_state, CatraState::LEFT_LIBERATED);

    const auto lines = logs().lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "Catra default_state : RIGHT LIBERATED");
    EXPECT_EQ(lines[0].function, "send_message_catra_default_state_changed");
    EXPECT_EQ(lines[1].text, "Catra state : LEFT LIBERATED");
    EXPECT_EQ(lines[1].function, "send_message_catra_state_changed");
    EXPECT_NE(lines[1].file.find("catra/src/source/"), std::string::npos);
}

}  // namespace
}  // namespace catra_test
