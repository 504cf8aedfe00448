// The publication of events: a failed store of the access event.
#include <gtest/gtest.h>

#include <mutex>
#include <string>

#include "catra_internal.h"
#include "terminal_test.h"

namespace catra_test {
namespace {

// The publishers run with state_mutex held by their callers; so does the test.
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
