// SPDX-License-Identifier: MIT
// SQLite for the records service: a connection that writes and one that only
// reads, each used under its own lock, with statements that bind and read JSON
// values as they are. In WAL mode the reader sees the last commit and waits
// for no writer, so a request that only reads is not held up by a long batch.
#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <mutex>
#include <unordered_map>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace norva::service {

class Database
{
public:
    Database() = default;
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Opens both connections to the file at `path`, made when missing.
    bool open(const std::string& path, std::string& error);
    // Runs statements without results; throws std::runtime_error on failure.
    void execute(const std::string& sql);
    // Runs one statement with `values` bound in order; returns the rows as
    // objects keyed by column name (values keep their stored type).
    QJsonArray query(const std::string& sql, const std::vector<QJsonValue>& values = {});
    // The same for a statement without rows; returns the changed row count.
    int change(const std::string& sql, const std::vector<QJsonValue>& values = {});
    long long lastInsertId();

    // Everything a request that writes does with the database happens under
    // this lock.
    std::mutex& lock() { return writer.mutex; }
    // And a request that only reads, under this one, within a Reading.
    std::mutex& readLock() { return reader.mutex; }

    // While one lives, this thread's statements on `db` go to its reader,
    // which refuses to write.
    class Reading
    {
    public:
        explicit Reading(Database& db);
        ~Reading();
        Reading(const Reading&) = delete;
        Reading& operator=(const Reading&) = delete;

    private:
        Database* const previous;
    };

private:
    struct Connection {
        sqlite3* handle = nullptr;
        std::mutex mutex;
        // Compiled statements by their text, compiled once and kept: a batch
        // runs the same two statements for each of its rows.
        std::unordered_map<std::string, sqlite3_stmt*> statements;
        ~Connection();
    };

    Connection& current();
    sqlite3_stmt* prepared(Connection& connection, const std::string& sql);

    Connection writer;
    Connection reader;
    static thread_local Database* reading; // whose reader this thread uses
};

// A transaction that ends with commit(), or is rolled back when it goes
// without one (an exception on the way).
class Transaction
{
public:
    explicit Transaction(Database& db) : db(db) { db.execute("BEGIN"); }
    ~Transaction()
    {
        if (!committed) {
            try {
                db.execute("ROLLBACK");
            } catch (...) {
            }
        }
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    void commit()
    {
        db.execute("COMMIT");
        committed = true;
    }

private:
    Database& db;
    bool committed = false;
};

} // namespace norva::service
