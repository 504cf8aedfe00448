// The data-access layer over SQLite: records round trip, faults are injected.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "ac_dal/ac_dal.h"
#include "standin/standin.h"

namespace {

using standin::DalCall;
using standin::Database;
using standin::Rows;

std::string raised_by(const std::function<void()>& call)
{
    try {
        call();
    } catch (const ac::ac_exception& e) {
        return e.what();
    }
    return "";
}

std::vector<long long> ids_of(const std::list<ac_dal::portal>& portals)
{
    std::vector<long long> ids;
    for (const ac_dal::portal& portal : portals)
        ids.push_back(portal.id());
    return ids;
}

class DalTest : public testing::Test {
protected:
    void SetUp() override
    {
        Database::instance().open();  // a fresh, empty in-memory database
        standin::Config::instance().clear();
    }
    Database& db = Database::instance();
};

TEST_F(DalTest, AccessEventsGetIncreasingIdsAndKeepTheirFields)
{
    ac_dal::access_event turn("catra", "TURN RIGHT", "u-1", 3, 1700000000);
    ac_dal::access_event give_up("catra", "GIVE UP", "", 3, 1700000005);
    turn.create();
    give_up.create();
    EXPECT_EQ(turn.id(), 1);
    EXPECT_EQ(give_up.id(), 2);
    EXPECT_EQ(db.query("SELECT id, module, name, uuid, device_id, timestamp FROM access_events"),
              (Rows{{"1", "catra", "TURN RIGHT", "u-1", "3", "1700000000"},
                    {"2", "catra", "GIVE UP", "", "3", "1700000005"}}));
}

TEST_F(DalTest, LastAndBeforeLastLogAreTheNewestTwoById)
{
    EXPECT_EQ(raised_by([] { ac_dal::access_log::get_last_log(true); }), "no access log");
    db.add_access_log(10, 1, 100, ac_dal::access_log_event::GRANTED);
    EXPECT_EQ(raised_by([] { ac_dal::access_log::get_before_last_log(true); }),
              "no access log before the last");
    db.add_access_log(11, 2, 200, ac_dal::access_log_event::DENIED);
    db.add_access_log(12, 1, 300, ac_dal::access_log_event::GRANTED);

    const ac_dal::access_log last = ac_dal::access_log::get_last_log(true);
    const ac_dal::access_log before = ac_dal::access_log::get_before_last_log(true);
    EXPECT_EQ((std::vector<long long>{last.id(), last.user_id(), last.portal_id(), last.time(),
                                      last.event()}),
              (std::vector<long long>{3, 12, 1, 300, ac_dal::access_log_event::GRANTED}));
    EXPECT_EQ((std::vector<long long>{before.id(), before.user_id(), before.portal_id(),
                                      before.time(), before.event()}),
              (std::vector<long long>{2, 11, 2, 200, ac_dal::access_log_event::DENIED}));
}

TEST_F(DalTest, SaveWritesTheRecordBackAndCreateAddsANewestOne)
{
    db.add_access_log(10, 1, 100, ac_dal::access_log_event::GRANTED);
    db.add_access_log(11, 1, 200, ac_dal::access_log_event::GRANTED);
    ac_dal::access_log record = ac_dal::access_log::get_before_last_log(true);
    record.portal_id(2);
    record.time(1234);
    record.event(ac_dal::access_log_event::GIVEN_UP);
    record.save();
    EXPECT_EQ(db.query("SELECT id, user_id, portal_id, time, event FROM access_logs ORDER BY id"),
              (Rows{{"1", "10", "2", "1234", "13"}, {"2", "11", "1", "200", "1"}}));

    ac_dal::access_log unsaved;
    EXPECT_EQ(raised_by([&] { unsaved.save(); }), "no access log 0");

    ac_dal::access_log fresh;
    fresh.user_id(7);
    fresh.reason(ac::util::WEB);
    fresh.create();
    EXPECT_EQ(fresh.id(), 3);
    EXPECT_EQ(ac_dal::access_log::get_last_log(true).reason(), ac::util::WEB);
}

TEST_F(DalTest, AddActionsReplacesThePortalsActions)
{
    db.add_portal(1, 1, "entrance");
    db.add_portal(2, 1, "exit");
    EXPECT_EQ(raised_by([] { ac_dal::portal::load(9); }), "no portal 9");
    const ac_dal::portal entrance = ac_dal::portal::load(1);
    EXPECT_EQ(entrance.id(), 1);
    EXPECT_EQ(entrance.device_id(), 1);

    ac_dal::portal::load(2).add_actions({4});
    entrance.add_actions({4});
    entrance.add_actions({3, 2});
    EXPECT_EQ(db.query("SELECT portal_id, position, action_id FROM portal_actions "
                       "ORDER BY portal_id, position"),
              (Rows{{"1", "0", "3"}, {"1", "1", "2"}, {"2", "0", "4"}}));
}

TEST_F(DalTest, ActionListsItsPortalsOfOneDeviceByPortalId)
{
    db.add_portal(1, 1, "entrance");
    db.add_portal(2, 1, "exit");
    db.add_portal(5, 2, "elsewhere");
    db.add_action(3, "clockwise", {2, 5, 1});
    db.add_action(2, "anticlockwise", {2});

    ac_dal::action clockwise;
    ASSERT_TRUE(clockwise.load(3));
    EXPECT_EQ(clockwise.id(), 3);
    EXPECT_EQ(ids_of(clockwise.device_portals(1)), (std::vector<long long>{1, 2}));
    EXPECT_EQ(ids_of(clockwise.device_portals(2)), (std::vector<long long>{5}));
    EXPECT_EQ(ids_of(clockwise.device_portals(3)), (std::vector<long long>{}));

    ac_dal::action missing;
    EXPECT_FALSE(missing.load(99));
    EXPECT_TRUE(missing.device_portals(1).empty());
}

TEST_F(DalTest, DeviceIdComesFromTheHostKeyWithDefaultOne)
{
    EXPECT_EQ(ac_dal::device::this_id(), 1);
    standin::Config::instance().set("host", "device_id", 42);
    EXPECT_EQ(ac_dal::device::this_id(), 42);
}

TEST_F(DalTest, TurnCountersCountFromZero)
{
    ac_dal::catra_info::inc_left_turns();
    ac_dal::catra_info::inc_left_turns();
    ac_dal::catra_info::inc_right_turns();
    ac_dal::catra_info::inc_entrance_turns();
    EXPECT_EQ((std::vector<long long>{db.counter("left_turns"), db.counter("right_turns"),
                                      db.counter("entrance_turns"), db.counter("exit_turns")}),
              (std::vector<long long>{2, 1, 1, 0}));
}

TEST_F(DalTest, ExitRequestRecordIsAnAccessLogWithEventRex)
{
    db.add_access_log(10, 1, 100, ac_dal::access_log_event::GRANTED);
    const long long before = std::time(nullptr);
    ac::util::create_log_rex(2, ac::util::REX, 0);
    const long long after = std::time(nullptr);

    const ac_dal::access_log rex = ac_dal::access_log::get_last_log(true);
    EXPECT_EQ((std::vector<long long>{rex.id(), rex.portal_id(), rex.user_id(), rex.event(),
                                      rex.reason()}),
              (std::vector<long long>{2, 2, 0, ac_dal::access_log_event::REX, ac::util::REX}));
    EXPECT_GE(rex.time(), before);
    EXPECT_LE(rex.time(), after);
}

TEST_F(DalTest, ArmedFaultRaisesForItsKindOnlyAsOftenAsArmed)
{
    db.add_portal(1, 1, "entrance");
    db.add_action(3, "clockwise", {1});
    db.add_access_log(10, 1, 100, ac_dal::access_log_event::GRANTED);
    db.add_access_log(11, 1, 200, ac_dal::access_log_event::GRANTED);
    struct Case {
        DalCall call;
        std::string name;
        std::function<void()> run;
    };
    const Case cases[] = {
        {DalCall::access_event_create, "access_event::create",
         [] { ac_dal::access_event("catra", "TURN LEFT", "", 1, 0).create(); }},
        {DalCall::access_log_get_last, "access_log::get_last_log",
         [] { ac_dal::access_log::get_last_log(true); }},
        {DalCall::access_log_get_before_last, "access_log::get_before_last_log",
         [] { ac_dal::access_log::get_before_last_log(true); }},
        {DalCall::access_log_create, "access_log::create", [] { ac_dal::access_log().create(); }},
        {DalCall::access_log_save, "access_log::save",
         [] { ac_dal::access_log::get_last_log(true).save(); }},
        {DalCall::portal_load, "portal::load", [] { ac_dal::portal::load(1); }},
        {DalCall::portal_add_actions, "portal::add_actions",
         [] { ac_dal::portal::load(1).add_actions({2}); }},
        {DalCall::action_load, "action::load", [] { ac_dal::action().load(3); }},
        {DalCall::action_device_portals, "action::device_portals",
         [] {
             ac_dal::action action;
             action.load(3);
             action.device_portals(1);
         }},
        {DalCall::create_log_rex, "create_log_rex",
         [] { ac::util::create_log_rex(1, ac::util::REX, 0); }},
        {DalCall::catra_info_inc, "catra_info::inc", [] { ac_dal::catra_info::inc_exit_turns(); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        db.fail_next(c.call, 2);
        EXPECT_EQ(raised_by(c.run), "injected fault in " + c.name);
        EXPECT_EQ(raised_by(c.run), "injected fault in " + c.name);
        EXPECT_EQ(raised_by(c.run), "");
    }
}

TEST_F(DalTest, FailedStatementRaisesWithSqlitesText)
{
    EXPECT_EQ(raised_by([this] { db.exec("INSERT INTO nowhere VALUES(1)"); }),
              "no such table: nowhere");
    EXPECT_EQ(raised_by([this] { db.query("SELECT colour FROM portals"); }),
              "no such column: colour");
}

TEST_F(DalTest, FileDatabaseKeepsItsRecordsAcrossOpens)
{
    const std::string path =
        testing::TempDir() + "host_dal_test_" + std::to_string(getpid()) + ".db";
    db.open(path);
    db.add_portal(7, 1, "kept");
    db.close();
    db.open(path);
    EXPECT_EQ(ac_dal::portal::load(7).id(), 7);
    db.close();
    std::remove(path.c_str());
}

}  // namespace
