// SQLite for the records service: one connection, used under one lock, with
// statements that bind and read JSON values as they are.
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

    bool open(const std::string& path, std::string& error);
    // Runs statements without results; throws std::runtime_error on failure.
    void execute(const std::string& sql);
    // Runs one statement with `values` bound in order; returns the rows as
    // objects keyed by column name (values keep their stored type).
    QJsonArray query(const std::string& sql, const std::vector<QJsonValue>& values = {});
    // The same for a statement without rows; returns the changed row count.
    int change(const std::string& sql, const std::vector<QJsonValue>& values = {});
    long long lastInsertId() const;

    // Everything a request does with the database happens under this lock.
    std::mutex& lock() { return mutex; }

private:
    // The compiled statement of `sql`, compiled once and kept: a batch runs the
    // same two statements for each of its rows.
    sqlite3_stmt* prepared(const std::string& sql);

    sqlite3* db = nullptr;
    std::mutex mutex;
    std::unordered_map<std::string, sqlite3_stmt*> statements;
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
