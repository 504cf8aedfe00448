// Releasing the turnstile where the turnstile's model does not reach: the
// reason named in a release's debug line, a release whose exit-request record
// finds no portal or is refused, and a request without a direction.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "catra_internal.h"
#include "controller_line_test.h"

namespace catra_test {
namespace {

using namespace std::string_literals;

// The plug-in's code with the controller line as its device, the turnstile
// enabled and blocked.
using Release = ControllerLineTest;

TEST_F(Release, AnActionWithoutAPortalOfThisDeviceWritesNoRecord)
{
    config().set("host", "device_id", 7);
    for (const auto& [reason, name] : {std::pair{ac::util::UNKNOWN, "UNKNOWN"},
                                       {ac::util::REX, "REX"},
                                       {ac::util::WEB, "WEB"}}) {
        recorder().clear();
        logs().clear();
        {
            std::lock_guard<std::mutex> lock(state_mutex);
            liberate_catra("clockwise", reason);
        }
        EXPECT_EQ(recorder().trace(), Texts{"write r5\\0"});
        EXPECT_EQ(
            debug_lines("log_catra_liberated"),
            (Texts{"Allow clockwise! Reason: "s + name,
                   "No portal of this device for action 3: exit-request record not written"}));
    }
    EXPECT_EQ(database().query("SELECT COUNT(*) FROM access_logs WHERE event = 12"),
              (standin::Rows{{0}}));
}

// A record that SQLite refuses ends the release before its command; the
// handler logs why.
TEST_F(Release, ARefusedRecordEndsTheReleaseAndIsLogged)
{
    database().exec(refusal("INSERT", "access_logs"));
    handle(liberate_catra_callback,
           {{"catra_direction", "clockwise"}, {"uuid", "u-9"}, {"catra_reason", 2}});
    EXPECT_EQ(debug_lines("liberate_catra_callback"), (Texts{"UUID: u-9", "disk I/O error"}));
    EXPECT_TRUE(recorder().trace().empty());
    EXPECT_EQ(release_uuid, "u-9");
}

TEST_F(Release, AMissingDirectionIsRaisedAndChangesNothing)
{
    release_uuid = "previous";
    EXPECT_EQ(thrown_text([&] {
                  handle(liberate_catra_callback, {{"uuid", "u-1"}, {"catra_reason", 2}});
              }),
              "catra allow not found!");
    EXPECT_TRUE(recorder().trace().empty());
    EXPECT_EQ(release_uuid, "previous");
    // The lock is given back on the way out.
    EXPECT_TRUE(state_mutex.try_lock());
    state_mutex.unlock();
}

}  // namespace
}  // namespace catra_test
