// SPDX-License-Identifier: MIT
#include "database.h"

#include <QJsonDocument>

#include "http_server.h"

#include <sqlite3.h>

#include <cerrno>

#include <stdexcept>

namespace norva::service {

namespace {

// One use of a kept statement: reset, with its values cleared, when done.
class Statement
{
public:
    explicit Statement(sqlite3_stmt* statement) : statement(statement) {}
    ~Statement()
    {
        sqlite3_reset(statement);
        sqlite3_clear_bindings(statement);
    }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    void bind(int index, const QJsonValue& value)
    {
        switch (value.type()) {
        case QJsonValue::Bool:
            sqlite3_bind_int(statement, index, value.toBool() ? 1 : 0);
            break;
        case QJsonValue::Double: {
            const double number = value.toDouble();
            if (number == double(static_cast<long long>(number)))
                sqlite3_bind_int64(statement, index, static_cast<long long>(number));
            else
                sqlite3_bind_double(statement, index, number);
            break;
        }
        case QJsonValue::String: {
            const QByteArray text = value.toString().toUtf8();
            sqlite3_bind_text(statement, index, text.constData(), text.size(), SQLITE_TRANSIENT);
            break;
        }
        case QJsonValue::Array:
        case QJsonValue::Object: {
            const QByteArray text = value.isArray() ? QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact)
                                                    : QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact);
            sqlite3_bind_text(statement, index, text.constData(), text.size(), SQLITE_TRANSIENT);
            break;
        }
        case QJsonValue::Null:
        case QJsonValue::Undefined:
            sqlite3_bind_null(statement, index);
            break;
        }
    }

    QJsonValue column(int index) const
    {
        switch (sqlite3_column_type(statement, index)) {
        case SQLITE_INTEGER:
            return double(sqlite3_column_int64(statement, index));
        case SQLITE_FLOAT:
            return sqlite3_column_double(statement, index);
        case SQLITE_TEXT:
            return QString::fromUtf8(reinterpret_cast<const char*>(sqlite3_column_text(statement, index)),
                                     sqlite3_column_bytes(statement, index));
        default:
            return QJsonValue::Null;
        }
    }

    sqlite3_stmt* statement = nullptr;
};

// The error of the last failed call on `db`, as an exception: a full disk
// as StorageFull.
[[noreturn]] void fail(sqlite3* db, const std::string& text)
{
    const int code = sqlite3_errcode(db);
    const int system = sqlite3_system_errno(db);
    if (code == SQLITE_FULL || system == ENOSPC || system == EDQUOT)
        throw StorageFull("sql: " + text);
    throw std::runtime_error("sql: " + text);
}

} // namespace

thread_local Database* Database::reading = nullptr;

Database::Reading::Reading(Database& db) : previous(reading)
{
    reading = &db;
}

Database::Reading::~Reading()
{
    reading = previous;
}

Database::~Database() = default;

Database::Connection::~Connection()
{
    for (const auto& kept : statements)
        sqlite3_finalize(kept.second);
    sqlite3_close(handle);
}

Database::Connection& Database::current()
{
    return reading == this ? reader : writer;
}

sqlite3_stmt* Database::prepared(Connection& connection, const std::string& sql)
{
    auto& statements = connection.statements;
    const auto kept = statements.find(sql);
    if (kept != statements.end())
        return kept->second;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(connection.handle, sql.c_str(), int(sql.size()), SQLITE_PREPARE_PERSISTENT, &statement, nullptr)
        != SQLITE_OK)
        fail(connection.handle, sqlite3_errmsg(connection.handle));
    // Statements made from filters vary without end; only so many are kept.
    if (statements.size() >= 256) {
        for (const auto& old : statements)
            sqlite3_finalize(old.second);
        statements.clear();
    }
    statements.emplace(sql, statement);
    return statement;
}

bool Database::open(const std::string& path, std::string& error)
{
    const int readWrite = SQLITE_OPEN_READWRITE;
    for (Connection* connection : {&writer, &reader}) {
        if (sqlite3_open_v2(path.c_str(), &connection->handle, readWrite | (connection == &writer ? SQLITE_OPEN_CREATE : 0),
                            nullptr)
            != SQLITE_OK) {
            error = sqlite3_errmsg(connection->handle);
            return false;
        }
        sqlite3_busy_timeout(connection->handle, 5000);
    }
    // The reader may not write, whatever a route asks of it.
    char* message = nullptr;
    if (sqlite3_exec(reader.handle, "PRAGMA query_only=ON", nullptr, nullptr, &message) != SQLITE_OK) {
        error = message ? message : "cannot make the reader read only";
        sqlite3_free(message);
        return false;
    }
    return true;
}

void Database::execute(const std::string& sql)
{
    sqlite3* const db = current().handle;
    char* message = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        const std::string text = message ? message : "unknown error";
        sqlite3_free(message);
        fail(db, text);
    }
}

QJsonArray Database::query(const std::string& sql, const std::vector<QJsonValue>& values)
{
    Connection& connection = current();
    Statement statement(prepared(connection, sql));
    for (std::size_t i = 0; i < values.size(); ++i)
        statement.bind(int(i) + 1, values[i]);
    QJsonArray rows;
    int step;
    while ((step = sqlite3_step(statement.statement)) == SQLITE_ROW) {
        QJsonObject row;
        for (int c = 0; c < sqlite3_column_count(statement.statement); ++c)
            row.insert(QString::fromUtf8(sqlite3_column_name(statement.statement, c)), statement.column(c));
        rows.append(row);
    }
    if (step != SQLITE_DONE)
        fail(connection.handle, sqlite3_errmsg(connection.handle));
    return rows;
}

int Database::change(const std::string& sql, const std::vector<QJsonValue>& values)
{
    query(sql, values);
    return sqlite3_changes(current().handle);
}

long long Database::lastInsertId()
{
    return sqlite3_last_insert_rowid(current().handle);
}

} // namespace norva::service
