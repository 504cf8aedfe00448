// The SQLite database behind the data-access layer.
#include "standin/database.h"

#include <iomanip>
#include <ostream>
#include <string>

#include "ac/ac_exception.h"
#include "ac_dal/ac_dal.h"
#include "host_internal.h"

namespace standin {

namespace {

const char* const kSchema = R"sql(
CREATE TABLE IF NOT EXISTS access_events(
    id INTEGER PRIMARY KEY AUTOINCREMENT, module TEXT NOT NULL, name TEXT NOT NULL,
    uuid TEXT NOT NULL, device_id INTEGER NOT NULL, timestamp INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS access_logs(
    id INTEGER PRIMARY KEY AUTOINCREMENT, user_id INTEGER NOT NULL DEFAULT 0,
    portal_id INTEGER NOT NULL DEFAULT 0, time INTEGER NOT NULL DEFAULT 0,
    event INTEGER NOT NULL DEFAULT 0, reason INTEGER NOT NULL DEFAULT 0,
    uuid TEXT NOT NULL DEFAULT '');
CREATE TABLE IF NOT EXISTS portals(
    id INTEGER PRIMARY KEY, device_id INTEGER NOT NULL, name TEXT NOT NULL DEFAULT '');
CREATE TABLE IF NOT EXISTS portal_actions(
    portal_id INTEGER NOT NULL, position INTEGER NOT NULL, action_id INTEGER NOT NULL,
    PRIMARY KEY(portal_id, position));
CREATE TABLE IF NOT EXISTS actions(id INTEGER PRIMARY KEY, name TEXT NOT NULL DEFAULT '');
CREATE TABLE IF NOT EXISTS action_portals(
    action_id INTEGER NOT NULL, portal_id INTEGER NOT NULL, PRIMARY KEY(action_id, portal_id));
CREATE TABLE IF NOT EXISTS counters(name TEXT PRIMARY KEY, value INTEGER NOT NULL);
)sql";

}  // namespace

[[noreturn]] void raise_sqlite(sqlite3* db)
{
    throw ac::ac_exception(db ? sqlite3_errmsg(db) : "database not open", true);
}

// ---------------------------------------------------------------- Cell
std::ostream& operator<<(std::ostream& out, const Cell& cell)
{
    struct Print {
        std::ostream& out;
        void operator()(std::nullptr_t) const { out << "NULL"; }
        void operator()(long long integer) const { out << integer; }
        void operator()(double real) const { out << real; }
        void operator()(const std::string& text) const { out << std::quoted(text); }
    };
    std::visit(Print{out}, cell.value());
    return out;
}

// ---------------------------------------------------------------- Statement
Statement::Statement(sqlite3* db, const char* sql) : db_(db)
{
    check(sqlite3_prepare_v2(db_, sql, -1, &stmt_, nullptr));
}

Statement::~Statement()
{
    sqlite3_finalize(stmt_);
}

void Statement::check(int rc) const
{
    if (rc != SQLITE_OK)
        raise_sqlite(db_);
}

Statement& Statement::bind(int index, long long value)
{
    check(sqlite3_bind_int64(stmt_, index, value));
    return *this;
}

Statement& Statement::bind(int index, const std::string& value)
{
    check(sqlite3_bind_text(stmt_, index, value.c_str(), static_cast<int>(value.size()),
                            SQLITE_TRANSIENT));
    return *this;
}

bool Statement::step()
{
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW)
        return true;
    if (rc == SQLITE_DONE)
        return false;
    raise_sqlite(db_);
}

void Statement::run()
{
    while (step()) {
    }
}

int Statement::columns() const
{
    return sqlite3_column_count(stmt_);
}

long long Statement::int64(int column) const
{
    return sqlite3_column_int64(stmt_, column);
}

Cell Statement::cell(int column) const
{
    switch (sqlite3_column_type(stmt_, column)) {
        case SQLITE_INTEGER: return int64(column);
        case SQLITE_FLOAT: return sqlite3_column_double(stmt_, column);
        case SQLITE_NULL: return nullptr;
        default: return text(column);  // a blob too, byte for byte
    }
}

std::string Statement::text(int column) const
{
    const unsigned char* text = sqlite3_column_text(stmt_, column);
    if (!text)
        return "";
    // SQLite hands out its text as unsigned bytes.
    return std::string(reinterpret_cast<const char*>(text),  // NOLINT(*-reinterpret-cast)
                       static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
}

// ---------------------------------------------------------------- DbSession
DbSession::DbSession() : lock_(Internals::database().mutex), db_(Internals::database().handle()) {}

void DbSession::exec(const char* sql)
{
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        const std::string text = message ? message : sqlite3_errmsg(db_);
        sqlite3_free(message);
        throw ac::ac_exception(text, true);
    }
}

// ---------------------------------------------------------------- Impl
sqlite3* Database::Impl::handle()
{
    if (!db)
        open_locked(":memory:");
    return db;
}

void Database::Impl::open_locked(const std::string& path)
{
    close_locked();
    sqlite3* opened = nullptr;
    const int rc =
        sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (rc != SQLITE_OK) {
        const std::string text = opened ? sqlite3_errmsg(opened) : sqlite3_errstr(rc);
        sqlite3_close(opened);
        throw ac::ac_exception("cannot open database " + path + ": " + text, true);
    }
    char* message = nullptr;
    if (sqlite3_exec(opened, kSchema, nullptr, nullptr, &message) != SQLITE_OK) {
        const std::string text = message ? message : sqlite3_errmsg(opened);
        sqlite3_free(message);
        sqlite3_close(opened);
        throw ac::ac_exception("cannot create tables in " + path + ": " + text, true);
    }
    db = opened;
}

void Database::Impl::close_locked()
{
    if (db)
        sqlite3_close(db);
    db = nullptr;
}

// ---------------------------------------------------------------- Database
// Leaked on purpose, so that no static destructor runs before it.
Database& Database::instance()
{
    static Database* database = new Database();
    return *database;
}

Database::Database() : impl_(std::make_unique<Impl>()) {}

void Database::open(const std::string& path)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->open_locked(path);
}

void Database::close()
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->close_locked();
}

void Database::exec(const std::string& sql)
{
    DbSession session;
    session.exec(sql.c_str());
}

Rows Database::query(const std::string& sql)
{
    DbSession session;
    Statement statement(session.db(), sql.c_str());
    Rows rows;
    while (statement.step()) {
        Row row;
        row.reserve(static_cast<size_t>(statement.columns()));
        for (int column = 0; column < statement.columns(); ++column) {
            row.push_back(statement.cell(column));
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

long long Database::counter(const std::string& name)
{
    DbSession session;
    Statement statement(session.db(), "SELECT value FROM counters WHERE name = ?");
    statement.bind(1, name);
    return statement.step() ? statement.int64(0) : 0;
}

void Database::add_portal(long long id, long long device_id, const std::string& name)
{
    DbSession session;
    Statement(session.db(), "INSERT OR IGNORE INTO portals(id, device_id, name) VALUES(?, ?, ?)")
        .bind(1, id)
        .bind(2, device_id)
        .bind(3, name)
        .run();
}

void Database::seed(long long device_id, int now)
{
    add_portal(1, device_id, "portal 1");
    add_portal(2, device_id, "portal 2");
    exec(
        "INSERT OR IGNORE INTO actions(id, name) VALUES (2, 'release anticlockwise'), "
        "(3, 'release clockwise'), (4, 'release both');"
        "INSERT OR IGNORE INTO action_portals(action_id, portal_id) VALUES (2, 1), (2, 2), "
        "(3, 1), (3, 2), (4, 1), (4, 2);");
    if (query("SELECT COUNT(*) FROM access_logs").at(0).at(0) != 0)
        return;
    const std::string granted = std::to_string(ac_dal::access_log_event::GRANTED);
    exec("INSERT INTO access_logs(user_id, portal_id, time, event) VALUES (100, 1, " +
         std::to_string(now - 20) + ", " + granted + "), (101, 2, " + std::to_string(now - 10) +
         ", " + granted + ")");
}

}  // namespace standin
