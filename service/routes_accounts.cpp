// SPDX-License-Identifier: MIT
// Logging in and out, passwords, and the user list.
#include "routes.h"
#include "passwords.h"

#include <chrono>

namespace norva::service {

namespace {

// Too many logins (or password changes) at once: told so now, not queued.
HttpResponse busyHashing()
{
    HttpResponse busy = HttpResponse::text(503, "too many logins at once; try again\n");
    busy.headers.emplace_back("Retry-After", "1");
    return busy;
}

} // namespace

HttpResponse RecordsService::login(Call& call)
{
    const QString name = call["userName"].toString();
    const QJsonArray users = db.query("SELECT id, userPwd, userRealname FROM users WHERE userName = ?", {name});
    if (users.isEmpty()) {
        loginFailures.failed(name.toStdString());
        return refuse("user does not exist", 410);
    }
    const QJsonObject user = users.first().toObject();
    const std::string stored = user.value("userPwd").toString().toStdString();
    const std::string typed = call["userPwd"].toVariant().toString().toStdString();
    const std::optional<bool> matches = call.unlocked([&] { return passwordMatchesInTurn(stored, typed); });
    if (!matches)
        return busyHashing();
    if (!*matches) {
        loginFailures.failed(name.toStdString());
        return refuse("wrong password", 411);
    }
    purgeExpiredTokens();
    const std::string token = newToken();
    // The password was checked without the lock: a token is made only if
    // the hash it matched is still the user's (a change meanwhile ends
    // every token of the old password, and this one must not outlive it).
    const int made = db.change("INSERT INTO login_tokens(hash, userId, expires) "
                               "SELECT ?, ?, ? WHERE EXISTS (SELECT 1 FROM users WHERE id = ? AND userPwd = ?)",
                               {QString::fromStdString(tokenHash(token)), user.value("id"),
                                double(QDateTime::currentSecsSinceEpoch() + options.tokenLifetimeSeconds),
                                user.value("id"), user.value("userPwd")});
    if (made == 0)
        return refuse("wrong password", 411);
    return ok(QJsonObject{{"token", QString::fromStdString(token)},
                          {"userId", user.value("id")},
                          {"userName", call["userName"]},
                          {"userRealname", user.value("userRealname")}},
              "login success");
}

void RecordsService::addAccountRoutes()
{
    post("/kvr/authority/login", [this](Call& call) {
        // Guessing one user's password slows down: its answer, whatever it
        // is, leaves only after the wait, on a timer of the connection's; other
        // users' logins, and everything else, go on meanwhile.
        const std::chrono::seconds wait = loginFailures.waitBeforeAnswering(call["userName"].toString().toStdString());
        HttpResponse answer = login(call);
        answer.delay = wait;
        return answer;
    });
    post("/kvr/authority/logOut", [this](Call& call) {
        if (db.query("SELECT id FROM users WHERE id = ?", {call["id"]}).isEmpty())
            return refuse("no such user");
        db.change("DELETE FROM login_tokens WHERE userId = ?", {call["id"]});
        return ok(call["id"], "logged out");
    });
    post("/kvr/authority/updateUser", [this](Call& call) {
        if (call["userPwd"].toString().isEmpty())
            return refuse("the password must not be empty");
        if (static_cast<long long>(call["id"].toDouble()) != call.userId)
            return refuse("a token may change only its own user's password", notYours);
        const std::string typed = call["userPwd"].toString().toStdString();
        const std::optional<std::string> made = call.unlocked([&] { return hashPasswordInTurn(typed); });
        if (!made)
            return busyHashing();
        const QString hash = QString::fromStdString(*made);
        // One transaction: the new hash and the end of the user's other
        // tokens are stored together or not at all (a crash between them
        // would leave an old token valid under the new password).
        Transaction transaction(db);
        if (db.change("UPDATE users SET userPwd = ? WHERE id = ?", {hash, call["id"]}) == 0)
            return refuse("no such user");
        // Whoever held the old password holds none of the user's other tokens.
        db.change("DELETE FROM login_tokens WHERE userId = ? AND hash <> ?",
                  {call["id"], QString::fromStdString(tokenHash(call.request.header("token")))});
        transaction.commit();
        return ok(call["id"], "password changed");
    });
    const auto selectUsers = [this](Call& call, bool paged) {
        Filter filter;
        filter.equal("id", call["id"]).like("userName", call["userName"]).like("userRealname", call["userRealname"]);
        return ok(list("SELECT id, userName, userRealname FROM users", filter, " ORDER BY id", paged ? &call : nullptr));
    };
    query("/kvr/authority/selectUser", [selectUsers](Call& call) { return selectUsers(call, false); });
    query("/kvr/authority/selectUserByPage", [selectUsers](Call& call) { return selectUsers(call, true); });
}

} // namespace norva::service
