// Releasing the turnstile: the choice of command from the current and the
// default state, the exit-request record, and the "liberate_catra" request.
#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "catra_internal.h"
#include "controller_line_test.h"

namespace catra_test {
namespace {

// The plug-in's code with the controller line as its device, the turnstile
// enabled and blocked. Actions 2, 3 and 4 lead to portals 2, 1 and 3, so the
// record's portal tells which action was loaded.
class Release : public ControllerLineTest {
protected:
    void SetUp() override
    {
        ControllerLineTest::SetUp();
        database().add_portal(3, kDeviceId, "portal 3");
        database().exec(
            "DELETE FROM action_portals;"
            "INSERT INTO action_portals(action_id, portal_id) VALUES (2, 2), (3, 1), (4, 3);");
    }

    // The exit-request records as {portal, reason, user}.
    standin::Rows rex_records()
    {
        return database().query(
            "SELECT portal_id, reason, user_id FROM access_logs WHERE event = 12 ORDER BY id");
    }
};

TEST_F(Release, RecordNamesTheReasonAndThePortalOfTheDirection)
{
    const struct {
        const char* direction;
        int reason;
        int verbose_logging;
        Texts lines;
        standin::Rows records;
    } table[] = {
        {"clockwise", 2, 1, {"Allow clockwise! Reason: REX"}, {{"1", "2", "0"}}},
        {"both", 0, 1, {"Allow both! Reason: UNKNOWN"}, {{"3", "0", "0"}}},
        {"anticlockwise", 3, 1, {"Allow anticlockwise! Reason: WEB"}, {{"2", "3", "0"}}},
        {"always", 0, 1, {"Allow always! Reason: UNKNOWN"}, {{"2", "0", "0"}}},
        {"clockwise", 1, 1, {}, {}},
        // A reason without a name: its look-up fails before the line.
        {"clockwise", 7, 1, {}, {}},
        {"both", -1, 1, {}, {}},
        {"clockwise", 2, 0, {}, {}},
        {"both", 0, 0, {}, {}},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(std::string(row.direction) + " reason " + std::to_string(row.reason) +
                     " verbose " + std::to_string(row.verbose_logging));
        database().exec("DELETE FROM access_logs");
        logs().clear();
        config().set("identifier", "verbose_logging", row.verbose_logging);
        {
            std::lock_guard<std::mutex> lock(state_mutex);
            log_catra_liberated(row.direction, row.reason);
        }
        EXPECT_EQ(debug_lines("log_catra_liberated"), row.lines);
        EXPECT_EQ(rex_records(), row.records);
    }
}

TEST_F(Release, AnActionWithoutAPortalOfThisDeviceWritesNoRecord)
{
    config().set("host", "device_id", 7);
    recorder().clear();
    {
        std::lock_guard<std::mutex> lock(state_mutex);
        liberate_catra("clockwise", ac::util::REX);
    }
    EXPECT_EQ(recorder().trace(), Texts{"write r5\\0"});
    EXPECT_EQ(debug_lines("log_catra_liberated"),
              (Texts{"Allow clockwise! Reason: REX",
                     "No portal of this device for action 3: exit-request record not written"}));
    EXPECT_TRUE(rex_records().empty());
}

// ---------------------------------------------------------------- the request

// Hands a "liberate_catra" message to its handler as the queue would.
class ReleaseRequest : public Release {
protected:
    void request(const Fields& fields) { handle(liberate_catra_callback, fields); }
};

TEST_F(ReleaseRequest, FieldsDecideTheReleaseTheUuidAndTheRecord)
{
    const struct {
        const char* name;
        bool record_fails;
        Fields fields;
        Texts handler_lines;
        Texts trace;
        const char* uuid_after;
        standin::Rows records;
    } table[] = {
        // clang-format off
        {"no uuid, no reason", false, {{"catra_direction", "clockwise"}},
         {"UUID: previous"}, {"write r5\\0"}, "previous", {{"1", "0", "0"}}},
        {"unknown direction", false, {{"catra_direction", "x"}, {"uuid", "u-8"}, {"catra_reason", 2}},
         {"UUID: u-8", "unknown catra allow: x"}, {}, "u-8", {}},
        {"record fails", true, {{"catra_direction", "clockwise"}, {"uuid", "u-9"}, {"catra_reason", 2}},
         {"UUID: u-9", "disk I/O error"}, {}, "u-9", {}},
        // clang-format on
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        release_uuid = "previous";
        database().exec("DELETE FROM access_logs");
        if (row.record_fails)
            database().exec(refusal("INSERT", "access_logs"));
        recorder().clear();
        request(row.fields);
        if (row.record_fails)
            database().exec("DROP TRIGGER refuse");
        EXPECT_EQ(debug_lines("liberate_catra_callback"), row.handler_lines);
        EXPECT_EQ(recorder().trace(), row.trace);
        EXPECT_EQ(release_uuid, row.uuid_after);
        EXPECT_EQ(rex_records(), row.records);
    }
}

TEST_F(ReleaseRequest, AMissingDirectionIsRaisedAndChangesNothing)
{
    release_uuid = "previous";
    recorder().clear();
    EXPECT_EQ(thrown_text([&] {
                  request({{"uuid", "u-1"}, {"catra_reason", 2}});
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
