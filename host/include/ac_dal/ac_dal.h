// The host's data-access layer, as far as a plug-in uses it.
#pragma once

#include <list>
#include <string>

namespace ac_dal {

// Base of the records that can be stored.
class ac_dao {
public:
    virtual ~ac_dao();

protected:
    ac_dao() = default;
    ac_dao(const ac_dao&) = default;
    ac_dao& operator=(const ac_dao&) = default;
    ac_dao(ac_dao&&) = default;
    ac_dao& operator=(ac_dao&&) = default;

public:
    // Inserts the record; raises ac::ac_exception on failure.
    virtual void create() = 0;
    // Writes the changed record back; raises ac::ac_exception on failure.
    virtual void save() = 0;
};

namespace access_log_event {
enum event : int {
    UNKNOWN = 0,
    GRANTED = 1,
    DENIED = 2,
    REX = 12,
    GIVEN_UP = 13,
};
}  // namespace access_log_event

// An access event: what happened at a device, for whom.
class access_event : public ac_dao {
public:
    access_event(std::string module, std::string name, std::string uuid, long long device_id,
                 int timestamp);
    void create() override;
    void save() override;
    long long id() const;

private:
    long long id_ = 0;
    std::string module_;
    std::string name_;
    std::string uuid_;
    long long device_id_;
    int timestamp_;
};

// An access-log record: one access through a portal.
class access_log : public ac_dao {
public:
    access_log();
    // The newest record and the one before it; raise ac::ac_exception when missing.
    static access_log get_last_log(bool flag);
    static access_log get_before_last_log(bool flag);

    void create() override;
    void save() override;

    long long id() const;
    void portal_id(long long portal);
    long long portal_id() const;
    void user_id(long long user);
    long long user_id() const;
    void time(int seconds);
    int time() const;
    void event(access_log_event::event value);
    access_log_event::event event() const;
    void reason(int value);
    int reason() const;

private:
    long long id_ = 0;
    long long portal_id_ = 0;
    long long user_id_ = 0;
    int time_ = 0;
    access_log_event::event event_ = access_log_event::UNKNOWN;
    int reason_ = 0;
};

class portal {
public:
    portal();
    // Raises ac::ac_exception when there is no portal with that id.
    static portal load(long long id);
    long long id() const;
    long long device_id() const;
    // Sets the portal's access actions (replacing those it had).
    void add_actions(const std::list<long long>& actions) const;

private:
    friend class action;  // device_portals builds portals from its rows
    long long id_ = 0;
    long long device_id_ = 0;
};

class action {
public:
    action();
    // Fills this object from the action record with that id; false when missing.
    bool load(long long id);
    long long id() const;
    // The portals of that device which this action applies to.
    std::list<portal> device_portals(long long device_id) const;

private:
    long long id_ = 0;
    bool loaded_ = false;
};

namespace device {
long long this_id();
}  // namespace device

namespace catra_info {
void inc_left_turns();
void inc_right_turns();
void inc_entrance_turns();
void inc_exit_turns();
}  // namespace catra_info

}  // namespace ac_dal
