// SPDX-License-Identifier: MIT
// What the service's route families share: a request as its route sees it,
// the service's answers, and WHERE clauses made from a request's filters.
// Each family adds its routes in a file of its own (routes_accounts.cpp,
// routes_records.cpp, routes_transfer.cpp, routes_mall.cpp).
#pragma once

#include "records_service.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace norva::service {

inline QString now()
{
    return QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
}

inline std::string compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

inline HttpResponse reply(int code, const QJsonValue& msg, const QJsonValue& data = QJsonValue::Null)
{
    return HttpResponse::json(compact({{"code", code}, {"msg", msg}, {"data", data}}));
}

inline HttpResponse ok(const QJsonValue& data = QJsonValue::Null, const char* msg = "success")
{
    return reply(200, QString::fromLatin1(msg), data);
}

inline HttpResponse refuse(const char* msg, int code = 400)
{
    return reply(code, QString::fromLatin1(msg));
}

// The service code of a request that the token's user is not entitled to.
inline constexpr int notYours = 403;

inline QJsonValue field(const QJsonObject& object, const char* key)
{
    return object.value(QString::fromLatin1(key));
}

inline bool present(const QJsonValue& value)
{
    return !value.isNull() && !value.isUndefined();
}

inline std::map<std::string, std::string> formFields(const std::string& body)
{
    std::map<std::string, std::string> fields;
    std::size_t at = 0;
    while (at <= body.size()) {
        const std::size_t amp = std::min(body.find('&', at), body.size());
        const std::string pair = body.substr(at, amp - at);
        const std::size_t eq = pair.find('=');
        if (!pair.empty())
            fields[percentDecode(pair.substr(0, eq), true)] =
                eq == std::string::npos ? std::string() : percentDecode(pair.substr(eq + 1), true);
        at = amp + 1;
    }
    return fields;
}

inline long long formNumber(const std::map<std::string, std::string>& form, const char* key)
{
    const auto it = form.find(key);
    return it == form.end() ? 0 : std::strtoll(it->second.c_str(), nullptr, 10);
}

// WHERE clauses from filters; a filter that is null or absent means "any".
class Filter
{
public:
    Filter& equal(const char* column, const QJsonValue& value)
    {
        if (present(value))
            add(std::string(column) + " = ?", value);
        return *this;
    }
    Filter& like(const char* column, const QJsonValue& value)
    {
        if (present(value))
            add(std::string(column) + " LIKE ?", QStringLiteral("%") + value.toVariant().toString() + QStringLiteral("%"));
        return *this;
    }
    Filter& since(const char* column, const QJsonValue& value)
    {
        if (present(value))
            add(std::string(column) + " >= ?", value);
        return *this;
    }
    Filter& until(const char* column, const QJsonValue& value)
    {
        if (present(value))
            add(std::string(column) + " <= ?", value);
        return *this;
    }
    Filter& raw(const std::string& condition, const std::vector<QJsonValue>& binds)
    {
        conditions.push_back(condition);
        values.insert(values.end(), binds.begin(), binds.end());
        return *this;
    }
    std::string where() const
    {
        std::string text;
        for (const std::string& c : conditions)
            text += (text.empty() ? " WHERE " : " AND ") + c;
        return text;
    }
    const std::vector<QJsonValue>& binds() const { return values; }

private:
    void add(const std::string& condition, const QJsonValue& value)
    {
        conditions.push_back(condition);
        values.push_back(value);
    }
    std::vector<std::string> conditions;
    std::vector<QJsonValue> values;
};

// An upload's form, its file parts already in files of their own beside the
// stored files (split out as the body came): a record takes its file by
// renaming it, and no other request waits while a large file is stored. A
// part file that no record took is removed with the form.
struct RecordsService::UploadForm {
    struct File {
        FormField field;
        std::string path; // empty once a record took it
    };
    bool complete = false; // a whole form with a data part
    QJsonObject data;
    std::vector<File> files; // the route's first file parts, in form order

    UploadForm() = default;
    UploadForm(const UploadForm&) = delete;
    UploadForm& operator=(const UploadForm&) = delete;
    ~UploadForm()
    {
        for (const File& file : files) {
            if (!file.path.empty())
                std::remove(file.path.c_str());
        }
    }
};

struct RecordsService::Call {
    const HttpRequest& request;
    QJsonObject object;
    QJsonArray array;
    long long userId = 0;
    UploadForm* upload = nullptr; // on the upload paths
    std::unique_lock<std::mutex>* databaseLock = nullptr; // held while the route runs

    QJsonValue operator[](const char* key) const { return field(object, key); }

    // Runs `work` with the database unlocked, for slow work on values already
    // read (hashing a password takes ~50 ms): other requests go on meanwhile.
    template <typename Work>
    auto unlocked(Work&& work)
    {
        struct Relock {
            std::unique_lock<std::mutex>& lock;
            ~Relock() { lock.lock(); }
        } relock{*databaseLock};
        databaseLock->unlock();
        return work();
    }
};

} // namespace norva::service
