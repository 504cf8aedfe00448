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
