// The access-log bookkeeping of passages and give-ups, the operation-mode
// question to the online client, and data-access failures, which leave no
// trace.
#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "catra_internal.h"
#include "terminal_test.h"

namespace catra_test {
namespace {

using Texts = std::vector<std::string>;

// The seeded records: id 1 (user 100, portal 1, time 980) and id 2 (user
// 101, portal 2, time 990), both granted (event 1). The functions run with
// state_mutex held, as their callers hold it.
class PassageLog : public TerminalTest {
protected:
    standin::Rows records()
    {
        return database().query(
            "SELECT id, user_id, portal_id, time, event FROM access_logs ORDER BY id");
    }
    void restore_records()
    {
        database().exec("UPDATE access_logs SET portal_id = id, time = 970 + 10 * id, event = 1");
        logs().clear();
        recorder().clear();
    }
    const standin::Rows seeded_{{1, 100, 1, 980, 1}, {2, 101, 2, 990, 1}};
    std::lock_guard<std::mutex> lock_{state_mutex};
};

TEST_F(PassageLog, OnlineTheOperationModeDecidesAndAnUnansweredQuestionRaises)
{
    const struct {
        int online;
        const char* client;  // null: the host's default, an answer
        int mode;            // -1: unset, which the host answers as 0
        bool updated;
        const char* raised;
    } table[] = {
        {0, "answer", 0, true, ""},
        {1, "answer", 1, true, ""},
        {1, "answer", 0, false, ""},
        {1, nullptr, 1, true, ""},
        {1, "answer", -1, false, ""},
        {1, "silent", 1, false, "Message online_client_get_operation_mode not replied"},
        {1, "no_mode", 1, false, "Wrong parameters in reply"},
    };
    const struct {
        const char* name;
        std::function<void()> call;
    } updates[] = {
        {"update_last_log", [] { update_last_log(CatraEvent::TURN_LEFT); }},
        {"create_give_up_log", [] { create_give_up_log(false); }},
    };
    EXPECT_EQ(records(), seeded_);  // as the host seeds them
    for (const auto& row : table) {
        for (const auto& update : updates) {
            SCOPED_TRACE(update.name + (", row " + std::to_string(&row - table + 1)));
            restore_records();
            config().set("host", "online", row.online);
            row.client ? config().set("host", "online_client", row.client)
                       : config().erase("host", "online_client");
            row.mode < 0 ? config().erase("host", "online_client_mode")
                         : config().set("host", "online_client_mode", row.mode);

            EXPECT_EQ(thrown_text(update.call), row.raised);
            EXPECT_EQ(records() != seeded_, row.updated);
            // Online, the online client is asked.
            EXPECT_EQ(recorder().trace(),
                      row.online ? Texts{"online_client_get_operation_mode{} (sync)"} : Texts{});
        }
    }
}

// SQLite refusing the records: the table gone for the reads, a trigger that
// raises for the writes; each undone after its row. A passage's record that
// fails is dropped; a turn's access event that cannot be stored is raised
// before its message is built, and the pending release's uuid stays.
TEST_F(PassageLog, DataAccessFailuresLeaveNoTrace)
{
    const std::pair<std::string, std::string> unreadable = {
        "ALTER TABLE access_logs RENAME TO hidden", "ALTER TABLE hidden RENAME TO access_logs"};
    const std::pair<std::string, std::string> unwritable = {refusal("UPDATE", "access_logs"),
                                                            "DROP TRIGGER refuse"};
    const std::pair<std::string, std::string> no_events = {refusal("INSERT", "access_events"),
                                                           "DROP TRIGGER refuse"};
    const auto turn = [] { update_last_log(CatraEvent::TURN_RIGHT); };
    const auto give_up = [] { create_give_up_log(false); };
    const auto give_up_earlier = [] { create_give_up_log(true); };
    const auto event = [] { send_message_catra_event(CatraEvent::TURN_LEFT); };
    const struct {
        std::pair<std::string, std::string> fault;
        std::function<void()> call;
        Texts debug_lines;  // written before the failure
        const char* raised = "";
    } table[] = {
        {unreadable, turn, {}},
        {unwritable, turn, {"portal_id: 2, user_id: 101"}},
        {unreadable, give_up, {}},
        {unwritable, give_up, {"Portal_id: 2, user_id: 101"}},
        {unreadable, give_up_earlier, {}},
        {no_events, event, {}, "disk I/O error"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.fault.first + ", row " + std::to_string(&row - table));
        restore_records();
        release_uuid = "abc";
        database().exec(row.fault.first);
        EXPECT_EQ(thrown_text(row.call), row.raised);
        database().exec(row.fault.second);
        EXPECT_EQ(release_uuid, "abc");
        EXPECT_EQ(records(), seeded_);
        EXPECT_EQ(logs().texts(standin::LogLine::Kind::debug), row.debug_lines);
        EXPECT_TRUE(logs().texts(standin::LogLine::Kind::error).empty());
        EXPECT_EQ(recorder().trace(), Texts{});
    }
}

}  // namespace
}  // namespace catra_test
