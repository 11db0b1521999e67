#include "records_service.h"

#include "form_reader.h"
#include "passwords.h"

#include <QDateTime>
#include <QFileInfo>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>
#include <QRandomGenerator>
#include <QUuid>

#include <algorithm>
#include <chrono>
#include <thread>
#include <cstdio>
#include <fstream>
#include <limits>
#include <memory>
#include <mutex>

namespace norva::service {

namespace {

// Tables whose ids are never given twice (AUTOINCREMENT): a file is stored
// under its record's id, and a removed record's id must not come round again.
const char* const numberedTables[] = {"users", "original_files", "shares", "favourites", "error_library",
                                      "error_messages", "mall_orders", "planner_models"};

const char* const schema = R"(
CREATE TABLE IF NOT EXISTS users(id INTEGER PRIMARY KEY AUTOINCREMENT, userName TEXT UNIQUE NOT NULL, userPwd TEXT NOT NULL,
  userRealname TEXT);
CREATE TABLE IF NOT EXISTS login_tokens(hash TEXT PRIMARY KEY, userId INTEGER NOT NULL, expires INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS login_tokens_by_user ON login_tokens(userId);
CREATE INDEX IF NOT EXISTS login_tokens_by_expiry ON login_tokens(expires);
CREATE TABLE IF NOT EXISTS original_files(id INTEGER PRIMARY KEY AUTOINCREMENT, origfilename TEXT, origfileguid TEXT,
  mongogridfsid TEXT, origfilesuffix TEXT, zkcompanycode TEXT, createuserid, fileupdateuserid, updateuserid,
  parentid, type, source, isError, delflag INTEGER NOT NULL DEFAULT 0, size INTEGER, createtime TEXT, owner INTEGER);
CREATE TABLE IF NOT EXISTS shares(id INTEGER PRIMARY KEY AUTOINCREMENT, userId, brdId, acsTypeId, acsType, createtime TEXT,
  owner INTEGER);
CREATE TABLE IF NOT EXISTS favourites(id INTEGER PRIMARY KEY AUTOINCREMENT, userId, boardId, boardName, createtime TEXT,
  owner INTEGER);
CREATE TABLE IF NOT EXISTS error_library(id INTEGER PRIMARY KEY AUTOINCREMENT, source, layer, errorMessage);
CREATE TABLE IF NOT EXISTS error_messages(id INTEGER PRIMARY KEY AUTOINCREMENT, brdId, isReappear, remark, gridX, gridY, source,
  layer, priority, libraryId, errorMessage, owner INTEGER);
CREATE INDEX IF NOT EXISTS shares_same ON shares(userId, brdId, acsTypeId);
CREATE INDEX IF NOT EXISTS favourites_same ON favourites(userId, boardId);
CREATE TABLE IF NOT EXISTS mall_orders(id INTEGER PRIMARY KEY AUTOINCREMENT, orderNum TEXT UNIQUE, userId, boardId, createtime TEXT);
CREATE TABLE IF NOT EXISTS planner_models(id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT, params TEXT, createtime TEXT);
)";

QString now()
{
    return QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
}

std::string compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

HttpResponse reply(int code, const QJsonValue& msg, const QJsonValue& data = QJsonValue::Null)
{
    return HttpResponse::json(compact({{"code", code}, {"msg", msg}, {"data", data}}));
}

HttpResponse ok(const QJsonValue& data = QJsonValue::Null, const char* msg = "success")
{
    return reply(200, QString::fromLatin1(msg), data);
}

HttpResponse refuse(const char* msg, int code = 400)
{
    return reply(code, QString::fromLatin1(msg));
}

// The service code of a request that the token's user is not entitled to.
constexpr int notYours = 403;

QJsonValue field(const QJsonObject& object, const char* key)
{
    return object.value(QString::fromLatin1(key));
}

bool present(const QJsonValue& value)
{
    return !value.isNull() && !value.isUndefined();
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

int pageNumber(const QJsonValue& value)
{
    const int n = value.isString() ? value.toString().toInt() : value.toInt();
    return n > 0 ? n : 1;
}

int pageSizeOf(const QJsonValue& value)
{
    const int n = value.isString() ? value.toString().toInt() : value.toInt();
    return n > 0 ? std::min(n, 1000) : 10;
}

std::map<std::string, std::string> formFields(const std::string& body)
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

long long formNumber(const std::map<std::string, std::string>& form, const char* key)
{
    const auto it = form.find(key);
    return it == form.end() ? 0 : std::strtoll(it->second.c_str(), nullptr, 10);
}

QString suffixOf(const QString& name)
{
    const int point = name.lastIndexOf(QLatin1Char('.'));
    return point < 0 ? QString() : name.mid(point + 1);
}

} // namespace

// An upload's form, its file parts already in files of their own beside the
// stored files (split so as the body came): a record takes its file by
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

RecordsService::RecordsService(ServiceOptions options) : options(std::move(options))
{
    addRoutes();
}

std::string RecordsService::spoolFolder() const
{
    return options.dataFolder + "/incoming";
}

std::string RecordsService::filePath(long long id) const
{
    return options.dataFolder + "/files/" + std::to_string(id);
}

bool RecordsService::open(std::string& error, bool& seeded)
{
    // Bodies spooled by a run that was killed are of no use to anybody.
    QDir(QString::fromStdString(spoolFolder())).removeRecursively();
    if (!QDir().mkpath(QString::fromStdString(options.dataFolder + "/files"))
        || !QDir().mkpath(QString::fromStdString(spoolFolder()))) {
        error = "cannot create the data folder " + options.dataFolder;
        return false;
    }
    keepPrivate();
    if (!db.open(options.dataFolder + "/records.sqlite3", error))
        return false;
    try {
        // Freed space is zeroed, so that a replaced password leaves nothing behind.
        db.execute("PRAGMA journal_mode=WAL; PRAGMA secure_delete=ON;");
        db.execute(schema);
        upgrade();
        purgeExpiredTokens();
        removeFilesWithoutRecord();
        seeded = db.query("SELECT id FROM users LIMIT 1").isEmpty();
        if (seeded)
            seed();
    } catch (const std::exception& e) {
        error = e.what();
        return false;
    }
    return true;
}

// A database from before gets the owner of each record (whoever it names as its
// user, where it names one) and has its passwords replaced by their hashes.
void RecordsService::upgrade()
{
    const auto addOwner = [this](const char* table, const char* ownerFrom) {
        const QJsonArray columns = db.query(std::string("SELECT name FROM pragma_table_info('") + table + "')");
        for (const QJsonValue& column : columns) {
            if (column.toObject().value("name").toString() == QLatin1String("owner"))
                return;
        }
        db.execute(std::string("ALTER TABLE ") + table + " ADD COLUMN owner INTEGER");
        if (ownerFrom)
            db.execute(std::string("UPDATE ") + table + " SET owner = " + ownerFrom);
    };
    // A table from before whose ids could come round again is made anew, with
    // its rows and ids, as the schema has it.
    const auto numberOnwards = [this](const std::string& table) {
        const QJsonArray made = db.query("SELECT sql FROM sqlite_master WHERE type = 'table' AND name = ?",
                                         {QString::fromStdString(table)});
        if (made.isEmpty() || made.first().toObject().value("sql").toString().contains(QLatin1String("AUTOINCREMENT")))
            return;
        std::string columns;
        for (const QJsonValue& column : db.query("SELECT name FROM pragma_table_info('" + table + "')"))
            columns += (columns.empty() ? "" : ", ") + column.toObject().value("name").toString().toStdString();
        const std::string text = schema;
        const std::size_t start = text.find("CREATE TABLE IF NOT EXISTS " + table + "(");
        const std::size_t end = text.find(");", start);
        db.execute("ALTER TABLE " + table + " RENAME TO " + table + "_before");
        db.execute(text.substr(start, end + 2 - start));
        db.execute("INSERT INTO " + table + "(" + columns + ") SELECT " + columns + " FROM " + table + "_before");
        db.execute("DROP TABLE " + table + "_before");
    };
    db.execute("BEGIN");
    // Tokens from before stood in clear text: their users log in again.
    db.execute("DROP TABLE IF EXISTS tokens");
    addOwner("shares", "userId");
    addOwner("favourites", "userId");
    addOwner("original_files", "createuserid");
    addOwner("error_messages", nullptr);
    for (const char* table : numberedTables)
        numberOnwards(table);
    db.execute(schema); // the indexes of the tables made anew
    bool rehashed = false;
    for (const QJsonValue& user : db.query("SELECT id, userPwd FROM users")) {
        const std::string stored = user.toObject().value("userPwd").toString().toStdString();
        if (!isPasswordHash(stored)) {
            db.change("UPDATE users SET userPwd = ? WHERE id = ?",
                      {QString::fromStdString(hashPassword(stored)), user.toObject().value("id")});
            rehashed = true;
        }
    }
    db.execute("COMMIT");
    if (rehashed) // the old pages leave the log too
        db.execute("PRAGMA wal_checkpoint(TRUNCATE);");
}

// Whether the token's user may change or remove the record `id` of `table`: it
// is the record's owner, or the record has none (made before owners were kept).
// nullopt when there is no such record.
std::optional<bool> RecordsService::entitled(const char* table, const QJsonValue& id, long long userId)
{
    const QJsonArray rows = db.query(std::string("SELECT owner FROM ") + table + " WHERE id = ?", {id});
    if (rows.isEmpty())
        return std::nullopt;
    const QJsonValue owner = rows.first().toObject().value("owner");
    return owner.isNull() || static_cast<long long>(owner.toDouble()) == userId;
}

bool RecordsService::addUser(const std::string& name, const std::string& password, std::string& error)
{
    std::lock_guard<std::mutex> lock(db.lock());
    if (!db.query("SELECT id FROM users WHERE userName = ?", {QString::fromStdString(name)}).isEmpty()) {
        error = "a user " + name + " exists already";
        return false;
    }
    db.change("INSERT INTO users(userName, userPwd, userRealname) VALUES(?, ?, ?)",
              {QString::fromStdString(name), QString::fromStdString(hashPassword(password)),
               QString::fromStdString(name)});
    return true;
}

void RecordsService::seed()
{
    db.execute("BEGIN");
    db.change("INSERT INTO users(userName, userPwd, userRealname) VALUES(?, ?, ?)",
              {QString::fromLatin1(seededUser), QString::fromStdString(hashPassword(seededPassword)),
               QStringLiteral("Norva Demo")});
    const long long userId = db.lastInsertId();
    // One board in the mall, so that orders point somewhere and can be fetched.
    const QByteArray sample = "G04 sample board, top copper*\nX0Y0D02*\nX1000Y0D01*\nM02*\n";
    db.change("INSERT INTO original_files(origfilename, origfileguid, mongogridfsid, origfilesuffix, zkcompanycode, "
              "createuserid, parentid, type, source, isError, size, createtime, owner) VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?)",
              {QStringLiteral("sample board.gbr"), QUuid::createUuid().toString(QUuid::WithoutBraces),
               QStringLiteral("local"), QStringLiteral("gbr"), QStringLiteral("NORVA"), double(userId), 0, 1, 1, 0,
               sample.size(), now(), double(userId)});
    const long long boardId = db.lastInsertId();
    QFile file(QString::fromStdString(filePath(boardId)));
    if (file.open(QIODevice::WriteOnly))
        file.write(sample);
    for (const char* order : {"A-1001", "A-1002", "A-1003"})
        db.change("INSERT INTO mall_orders(orderNum, userId, boardId, createtime) VALUES(?,?,?,?)",
                  {QString::fromLatin1(order), double(userId), double(boardId), now()});
    const struct {
        const char* name;
        const char* params;
    } models[] = {
        {"drill-2024", R"({"spindleRpm":60000,"feedMmPerS":2.5,"layers":2})"},
        {"route-2025", R"({"spindleRpm":30000,"feedMmPerS":12,"layers":4})"},
        {"laser-2026", R"({"powerW":15,"passes":3,"layers":6})"},
    };
    for (const auto& model : models)
        db.change("INSERT INTO planner_models(name, params, createtime) VALUES(?,?,?)",
                  {QString::fromLatin1(model.name), QString::fromLatin1(model.params), now()});
    db.execute("COMMIT");
}

// Only the owner may enter the data folder: the database holds the users and
// their records, the files the boards. Files made before are made private too;
// new ones are, by the service's umask (see main).
void RecordsService::keepPrivate() const
{
    const auto owner = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
    for (const QString& folder : {QString::fromStdString(options.dataFolder),
                                  QString::fromStdString(options.dataFolder + "/files")}) {
        QFile::setPermissions(folder, owner | QFileDevice::ExeOwner);
        for (const QFileInfo& file : QDir(folder).entryInfoList(QDir::Files | QDir::Hidden))
            QFile::setPermissions(file.filePath(), owner);
    }
}

// A service killed between storing a file and committing its record leaves the
// file behind; its id may come round again, and the file must not pass for the
// next record's.
void RecordsService::removeFilesWithoutRecord()
{
    QSet<QString> recorded;
    for (const QJsonValue& row : db.query("SELECT id FROM original_files"))
        recorded.insert(QString::number(static_cast<long long>(row.toObject().value("id").toDouble())));
    const QDir files(QString::fromStdString(options.dataFolder + "/files"));
    for (const QString& name : files.entryList(QDir::Files | QDir::Hidden)) {
        if (!recorded.contains(name))
            QFile::remove(files.filePath(name));
    }
}

void RecordsService::purgeExpiredTokens()
{
    db.change("DELETE FROM login_tokens WHERE expires <= ?", {double(QDateTime::currentSecsSinceEpoch())});
}

long long RecordsService::tokenUser(const std::string& token)
{
    if (token.empty() || options.expireTokens)
        return 0;
    const QJsonArray rows = db.query("SELECT userId FROM login_tokens WHERE hash = ? AND expires > ?",
                                     {QString::fromStdString(tokenHash(token)), double(QDateTime::currentSecsSinceEpoch())});
    return rows.isEmpty() ? 0 : static_cast<long long>(rows.first().toObject().value("userId").toDouble());
}

namespace {

// Routes that answer without a token: logging in and out, the mall, the planner.
bool isOpen(const std::string& path)
{
    return path.rfind("/kvr/", 0) != 0 || path == "/kvr/authority/login" || path == "/kvr/authority/logOut";
}

// A route without a token takes no more than this: a login, a mall query.
constexpr std::uint64_t openBodyBytes = 16 << 10;

// A file that could not be written or moved into place.
[[noreturn]] void failedToStore()
{
    if (lastWriteFoundNoRoom())
        throw StorageFull("cannot store the file: no room");
    throw std::runtime_error("cannot store the file");
}

HttpResponse tokenExpired()
{
    return HttpResponse::json(compact({{"code", 402}, {"msg", "token expired"}, {"data", QJsonValue::Null}}), 402);
}

} // namespace

std::optional<HttpResponse> RecordsService::refusedRoute(const HttpRequest& request) const
{
    const auto route = routes.find(request.path);
    if (route == routes.end())
        return HttpResponse::text(404, "no such path\n");
    if (route->second.method != request.method)
        return HttpResponse::text(405, "use " + route->second.method + "\n");
    return std::nullopt;
}

HeadVerdict RecordsService::checkHead(const HttpRequest& head)
{
    HeadVerdict verdict;
    if ((verdict.refusal = refusedRoute(head)))
        return verdict;
    const RouteEntry& route = routes.at(head.path);
    if (route.filePart) {
        FormPlan plan;
        plan.filePart = route.filePart;
        plan.maxFiles = route.maxFiles;
        plan.fieldPart = "data";
        plan.fieldLimit = 1 << 20;
        verdict.form = std::move(plan);
    }
    if (isOpen(head.path)) {
        verdict.bodyLimit = openBodyBytes;
        return verdict;
    }
    const std::lock_guard<std::mutex> lock(db.lock());
    if (tokenUser(head.header("token")) == 0)
        verdict.refusal = tokenExpired();
    return verdict;
}

HttpResponse RecordsService::handle(const HttpRequest& request)
{
    if (std::optional<HttpResponse> refusal = refusedRoute(request))
        return *refusal;
    const auto route = routes.find(request.path);
    Call call{request, {}, {}, 0, nullptr};
    if (!isOpen(request.path)) {
        std::lock_guard<std::mutex> lock(db.lock());
        if ((call.userId = tokenUser(request.header("token"))) == 0)
            return tokenExpired();
    }

    if (!request.body.empty() && request.header("Content-Type").rfind("application/json", 0) == 0) {
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(request.body), &error);
        if (error.error != QJsonParseError::NoError)
            return refuse("the body is no JSON");
        call.object = document.object();
        call.array = document.array();
    }
    UploadForm upload;
    if (route->second.filePart) {
        take(request, route->second, upload);
        call.upload = &upload;
    }
    std::unique_lock<std::mutex> lock(db.lock());
    call.databaseLock = &lock;
    return route->second.handler(call);
}

void RecordsService::take(const HttpRequest& request, const RouteEntry& route, UploadForm& upload) const
{
    if (!request.form || !request.form->complete())
        return;
    std::vector<FormPart>& parts = request.form->parts();
    const auto data = std::find_if(parts.begin(), parts.end(), [](const FormPart& p) { return p.field.name == "data"; });
    if (data == parts.end() || data->tooLarge)
        return;
    upload.data = QJsonDocument::fromJson(QByteArray::fromStdString(data->content)).object();
    for (FormPart& part : parts) {
        if (part.field.name == route.filePart && !part.file.empty()) {
            upload.files.push_back({part.field, std::move(part.file)});
            part.file.clear();
        }
    }
    upload.complete = true;
}

void RecordsService::addRoutes()
{
    const auto post = [this](const char* path, Route route) { routes[path] = {"POST", std::move(route), nullptr, 0}; };
    const auto get = [this](const char* path, Route route) { routes[path] = {"GET", std::move(route), nullptr, 0}; };
    const auto upload = [this](const char* path, const char* filePart, std::size_t maxFiles, Route route) {
        routes[path] = {"POST", std::move(route), filePart, maxFiles};
    };

    // Lists a table, whole or by page, with the filters' WHERE clause.
    const auto list = [this](const std::string& select, const Filter& filter, const std::string& order,
                             const Call* paged) -> QJsonValue {
        if (!paged)
            return db.query(select + filter.where() + order, filter.binds());
        const int pageNo = pageNumber((*paged)["pageNo"]);
        const int pageSize = pageSizeOf((*paged)["pageSize"]);
        const QJsonArray total =
            db.query("SELECT COUNT(*) AS n FROM (" + select + filter.where() + ")", filter.binds());
        std::vector<QJsonValue> binds = filter.binds();
        binds.push_back(pageSize);
        binds.push_back(double(pageNo - 1) * pageSize);
        return QJsonObject{{"pageNo", pageNo},
                           {"pageSize", pageSize},
                           {"total", total.first().toObject().value("n")},
                           {"list", db.query(select + filter.where() + order + " LIMIT ? OFFSET ?", binds)}};
    };

    // ---- Accounts --------------------------------------------------------
    post("/kvr/authority/login", [this](Call& call) {
        const QString name = call["userName"].toString();
        // Guessing one user's password slows down; other users' logins do not.
        const std::chrono::seconds wait = loginFailures.waitBeforeAnswering(name.toStdString());
        if (wait.count() > 0)
            call.unlocked([wait] {
                std::this_thread::sleep_for(wait);
                return 0;
            });
        const QJsonArray users = db.query("SELECT id, userPwd, userRealname FROM users WHERE userName = ?", {name});
        if (users.isEmpty()) {
            loginFailures.failed(name.toStdString());
            return refuse("user does not exist", 410);
        }
        const QJsonObject user = users.first().toObject();
        const std::string stored = user.value("userPwd").toString().toStdString();
        const std::string typed = call["userPwd"].toVariant().toString().toStdString();
        if (!call.unlocked([&] { return passwordMatches(stored, typed); })) {
            loginFailures.failed(name.toStdString());
            return refuse("wrong password", 411);
        }
        purgeExpiredTokens();
        const std::string token = newToken();
        db.change("INSERT INTO login_tokens(hash, userId, expires) VALUES(?,?,?)",
                  {QString::fromStdString(tokenHash(token)), user.value("id"),
                   double(QDateTime::currentSecsSinceEpoch() + options.tokenLifetimeSeconds)});
        return ok(QJsonObject{{"token", QString::fromStdString(token)},
                              {"userId", user.value("id")},
                              {"userName", call["userName"]},
                              {"userRealname", user.value("userRealname")}},
                  "login success");
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
        const QString hash = QString::fromStdString(call.unlocked([&] { return hashPassword(typed); }));
        if (db.change("UPDATE users SET userPwd = ? WHERE id = ?", {hash, call["id"]}) == 0)
            return refuse("no such user");
        // Whoever held the old password holds none of the user's other tokens.
        db.change("DELETE FROM login_tokens WHERE userId = ? AND hash <> ?",
                  {call["id"], QString::fromStdString(tokenHash(call.request.header("token")))});
        return ok(call["id"], "password changed");
    });
    const auto selectUsers = [list](Call& call, bool paged) {
        Filter filter;
        filter.equal("id", call["id"]).like("userName", call["userName"]).like("userRealname", call["userRealname"]);
        return ok(list("SELECT id, userName, userRealname FROM users", filter, " ORDER BY id", paged ? &call : nullptr));
    };
    post("/kvr/authority/selectUser", [selectUsers](Call& call) { return selectUsers(call, false); });
    post("/kvr/authority/selectUserByPage", [selectUsers](Call& call) { return selectUsers(call, true); });

    // ---- Original files --------------------------------------------------
    // A record for a staged file, which takes the record's file name.
    const auto storeFile = [this](UploadForm::File& file, const QJsonObject& info, long long owner) {
        const QString name = QString::fromStdString(file.field.filename);
        db.change("INSERT INTO original_files(origfilename, origfileguid, mongogridfsid, origfilesuffix, zkcompanycode, "
                  "createuserid, parentid, type, source, isError, size, createtime, owner) "
                  "VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?)",
                  {name, QUuid::createUuid().toString(QUuid::WithoutBraces), QStringLiteral("local"), suffixOf(name),
                   field(info, "zkcompanycode"), field(info, "createuserid"), field(info, "parentid"),
                   field(info, "type"), field(info, "source"), field(info, "isError"), double(file.field.size), now(),
                   double(owner)});
        const long long id = db.lastInsertId();
        if (std::rename(file.path.c_str(), filePath(id).c_str()) != 0)
            failedToStore();
        file.path.clear();
        return id;
    };
    const auto share = [this](const QJsonObject& info, long long boardId, long long owner) {
        db.change("INSERT INTO shares(userId, brdId, acsTypeId, acsType, createtime, owner) VALUES(?,?,?,?,?,?)",
                  {field(info, "createuserid"), double(boardId), field(info, "acsTypeId"), field(info, "acsType"), now(),
                   double(owner)});
    };
    // Stores the staged files [first, last) under one transaction: all of them,
    // or none (files already renamed go again). `each` adds the rest of a file's
    // records. Files left out are removed with their form.
    using StagedFiles = std::vector<UploadForm::File>::iterator;
    const auto storeAll = [this, storeFile](StagedFiles first, StagedFiles last, const QJsonObject& info, long long owner,
                                            const std::function<void(long long)>& each) {
        QJsonArray ids;
        db.execute("BEGIN");
        try {
            for (; first != last; ++first) {
                const long long id = storeFile(*first, info, owner);
                ids.append(double(id));
                each(id);
            }
            db.execute("COMMIT");
        } catch (...) {
            db.execute("ROLLBACK");
            for (const QJsonValue& id : ids)
                std::remove(filePath(static_cast<long long>(id.toDouble())).c_str());
            throw;
        }
        return ids;
    };
    const auto uploadOne = [this, storeAll, share](Call& call, bool withShare) {
        UploadForm& upload = *call.upload;
        if (!upload.complete || upload.files.empty())
            return refuse("the form needs a file part and a data part");
        const QJsonObject info = field(upload.data, "fileInfo").toObject();
        const QJsonObject error = field(upload.data, "errorInfo").toObject();
        const bool withError = upload.data.contains("errorInfo");
        const QJsonArray ids = storeAll(upload.files.begin(), upload.files.end(), info, call.userId, [&](long long id) {
            if (withError)
                db.change("INSERT INTO error_messages(brdId, isReappear, remark, gridX, gridY, source, layer, priority, "
                          "libraryId, errorMessage, owner) VALUES(?,?,?,?,?,?,?,?,?,?,?)",
                          {double(id), field(error, "isReappear"), field(error, "remark"), field(error, "gridX"),
                           field(error, "gridY"), field(error, "source"), field(error, "layer"), field(error, "priority"),
                           field(error, "libraryId"), field(error, "errorMessage"), double(call.userId)});
            if (withShare)
                share(info, id, call.userId);
        });
        return ok(ids.first(), "imported");
    };
    const auto uploadMany = [storeAll, share](Call& call, bool withShare) {
        UploadForm& upload = *call.upload;
        if (!upload.complete)
            return refuse("the form needs a data part");
        const QJsonArray ids = storeAll(upload.files.begin(), upload.files.end(), upload.data, call.userId, [&](long long id) {
            if (withShare)
                share(upload.data, id, call.userId);
        });
        if (ids.isEmpty())
            return refuse("no files in the form");
        return ok(ids, "imported");
    };
    // A single upload stores the form's first file part; the library sends no more.
    const std::size_t anyNumber = std::numeric_limits<std::size_t>::max();
    upload("/kvr/originalFile/uploadFile", "file", 1, [uploadOne](Call& call) { return uploadOne(call, false); });
    upload("/kvr/originalFile/insertBrdAndShare", "file", 1, [uploadOne](Call& call) { return uploadOne(call, true); });
    upload("/kvr/originalFile/uploadMultipleFile", "multipartFiles", anyNumber, [uploadMany](Call& call) { return uploadMany(call, false); });
    upload("/kvr/originalFile/insertBatchBrdAndShare", "multipartFiles", anyNumber, [uploadMany](Call& call) { return uploadMany(call, true); });

    const auto sendFile = [this](long long id, int missingStatus) {
        const QJsonArray rows =
            db.query("SELECT origfilename FROM original_files WHERE id = ? AND delflag = 0", {double(id)});
        if (rows.isEmpty() || !QFile::exists(QString::fromStdString(filePath(id))))
            return HttpResponse::text(missingStatus, missingStatus == 204 ? "" : "no such file\n");
        HttpResponse response;
        response.headers = {{"Content-Type", "application/octet-stream"},
                            {"Content-Disposition", "attachment;filename="
                                                        + percentEncode(rows.first().toObject().value("origfilename").toString().toStdString())}};
        response.bodyFile = filePath(id);
        return response;
    };
    post("/kvr/originalFile/downloadFile", [sendFile](Call& call) {
        return sendFile(formNumber(formFields(call.request.body), "id"), 404);
    });
    const auto selectFiles = [list](Call& call, bool paged) {
        Filter filter;
        filter.raw("delflag = 0", {})
            .equal("createuserid", call["createuserid"])
            .like("origfilename", call["origfilename"])
            .equal("id", call["id"])
            .equal("origfileguid", call["origfileguid"])
            .equal("mongogridfsid", call["mongogridfsid"])
            .equal("origfilesuffix", call["origfilesuffix"])
            .equal("zkcompanycode", call["zkcompanycode"])
            .equal("fileupdateuserid", call["fileupdateuserid"])
            .equal("parentid", call["parentid"])
            .equal("type", call["type"])
            .equal("source", call["source"])
            .equal("isError", call["isError"]);
        return ok(list("SELECT id, origfilename, origfileguid, mongogridfsid, origfilesuffix, zkcompanycode, createuserid, "
                       "fileupdateuserid, updateuserid, parentid, type, source, isError, size, createtime FROM original_files",
                       filter, " ORDER BY id", paged ? &call : nullptr));
    };
    post("/kvr/originalFile/selectOdbppOrigfilemanage", [selectFiles](Call& call) { return selectFiles(call, false); });
    post("/kvr/originalFile/selectOdbppOrigfilemanageByPage", [selectFiles](Call& call) { return selectFiles(call, true); });

    // Sets each field the request gives (null means "leave it").
    const auto update = [this](Call& call, const char* table, const std::vector<const char*>& columns,
                               bool owned) {
        if (!present(call["id"]))
            return refuse("id is required");
        const std::optional<bool> mayChange = owned ? entitled(table, call["id"], call.userId) : true;
        if (mayChange == false)
            return refuse("only the user who added this record may change it", notYours);
        std::string set;
        std::vector<QJsonValue> binds;
        for (const char* column : columns) {
            if (present(call[column])) {
                set += (set.empty() ? "" : ", ") + std::string(column) + " = ?";
                binds.push_back(call[column]);
            }
        }
        if (db.query(std::string("SELECT id FROM ") + table + " WHERE id = ?", {call["id"]}).isEmpty())
            return refuse("no such record");
        if (!set.empty()) {
            binds.push_back(call["id"]);
            db.change(std::string("UPDATE ") + table + " SET " + set + " WHERE id = ?", binds);
        }
        return ok(call["id"], "updated");
    };
    post("/kvr/originalFile/updateOdbppOrigfilemanage", [update](Call& call) {
        return update(call, "original_files",
                      {"origfilename", "mongogridfsid", "origfilesuffix", "zkcompanycode", "parentid", "type", "source",
                       "isError", "fileupdateuserid", "updateuserid"},
                      true);
    });
    post("/kvr/originalFile/deleteOrigfile", [this](Call& call) {
        const long long id = formNumber(formFields(call.request.body), "id");
        if (entitled("original_files", double(id), call.userId) == false)
            return refuse("only the user who uploaded this file may delete it", notYours);
        if (db.change("UPDATE original_files SET delflag = 1 WHERE id = ? AND delflag = 0", {double(id)}) == 0)
            return refuse("no such file");
        return ok(double(id), "delete flag set");
    });

    // ---- Shares and favourites -------------------------------------------
    // Inserts records that are not there yet; reports the boards that were.
    const auto insertMany = [this](const QJsonArray& records, const char* table, const char* boardKey,
                                   const std::vector<const char*>& keys, const std::vector<const char*>& sameKeys,
                                   long long owner) {
        QJsonArray inserted;
        QJsonArray repeated;
        // All of a batch or none of it: a batch cut off half way leaves nothing.
        Transaction transaction(db);
        // One time for the whole batch (reading the clock as local time looks
        // up the time zone's file every time).
        const QJsonValue createdAt = now();
        for (const QJsonValue& value : records) {
            const QJsonObject record = value.toObject();
            std::string same;
            std::vector<QJsonValue> sameBinds;
            for (const char* key : sameKeys) {
                same += (same.empty() ? "" : " AND ") + std::string(key) + " IS ?";
                sameBinds.push_back(field(record, key));
            }
            if (!db.query(std::string("SELECT id FROM ") + table + " WHERE " + same, sameBinds).isEmpty()) {
                repeated.append(field(record, boardKey));
                continue;
            }
            std::string columns;
            std::string marks;
            std::vector<QJsonValue> binds;
            for (const char* key : keys) {
                columns += std::string(key) + ", ";
                marks += "?, ";
                binds.push_back(field(record, key));
            }
            binds.push_back(createdAt);
            binds.push_back(double(owner));
            db.change(std::string("INSERT INTO ") + table + "(" + columns + "createtime, owner) VALUES(" + marks + "?, ?)",
                      binds);
            inserted.append(double(db.lastInsertId()));
        }
        transaction.commit();
        return std::make_pair(inserted, repeated);
    };
    const auto insertOne = [insertMany](Call& call, const char* table, const char* boardKey,
                                        const std::vector<const char*>& keys, const std::vector<const char*>& sameKeys) {
        const auto [inserted, repeated] =
            insertMany(QJsonArray{call.object}, table, boardKey, keys, sameKeys, call.userId);
        return repeated.isEmpty() ? ok(inserted.first(), "inserted") : refuse("already there");
    };
    const auto insertBatch = [insertMany](Call& call, const char* table, const char* boardKey,
                                          const std::vector<const char*>& keys, const std::vector<const char*>& sameKeys) {
        if (call.array.isEmpty())
            return refuse("nothing to insert");
        const auto [inserted, repeated] = insertMany(call.array, table, boardKey, keys, sameKeys, call.userId);
        if (!repeated.isEmpty())
            return reply(206, QStringLiteral("%1 inserted, %2 already there").arg(inserted.size()).arg(repeated.size()),
                         repeated);
        return ok(inserted, "inserted");
    };
    const auto remove = [this](Call& call, const char* table, bool byUser, bool owned) {
        const auto form = formFields(call.request.body);
        std::vector<QJsonValue> binds{double(formNumber(form, "id"))};
        if (owned && entitled(table, binds.front(), call.userId) == false)
            return refuse("only the user who added this record may remove it", notYours);
        if (byUser)
            binds.push_back(double(formNumber(form, "userId")));
        if (db.change(std::string("DELETE FROM ") + table + " WHERE id = ?" + (byUser ? " AND userId = ?" : ""), binds) == 0)
            return refuse("no such record");
        return ok(binds.front(), "deleted");
    };

    const std::vector<const char*> shareKeys{"userId", "brdId", "acsTypeId", "acsType"};
    const std::vector<const char*> sameShare{"userId", "brdId", "acsTypeId"};
    post("/kvr/share/insertShare",
         [=](Call& call) { return insertOne(call, "shares", "brdId", shareKeys, sameShare); });
    post("/kvr/share/insertMultipleShare",
         [=](Call& call) { return insertBatch(call, "shares", "brdId", shareKeys, sameShare); });
    const auto selectShares = [list](Call& call, bool paged) {
        Filter filter;
        filter.equal("s.userId", call["userId"])
            .like("f.origfilename", call["brdName"])
            .since("s.createtime", call["startTime"])
            .until("s.createtime", call["endTime"]);
        if (call["currentUserId"].toInt() != 0)
            filter.raw("(s.userId = ? OR s.acsTypeId = ?)", {call["currentUserId"], call["currentUserId"]});
        return ok(list("SELECT s.id AS id, s.userId AS userId, s.brdId AS brdId, f.origfilename AS brdName, "
                       "s.acsTypeId AS acsTypeId, s.acsType AS acsType, s.createtime AS createtime "
                       "FROM shares s LEFT JOIN original_files f ON f.id = s.brdId",
                       filter, " ORDER BY s.id", paged ? &call : nullptr));
    };
    post("/kvr/share/selectShare", [selectShares](Call& call) { return selectShares(call, false); });
    post("/kvr/share/selectShareByPage", [selectShares](Call& call) { return selectShares(call, true); });
    post("/kvr/share/deleteShare", [remove](Call& call) { return remove(call, "shares", true, true); });

    const std::vector<const char*> favouriteKeys{"userId", "boardId", "boardName"};
    const std::vector<const char*> sameFavourite{"userId", "boardId"};
    post("/kvr/favourite/insertFavourite",
         [=](Call& call) { return insertOne(call, "favourites", "boardId", favouriteKeys, sameFavourite); });
    post("/kvr/favourite/insertMultipleFavourite",
         [=](Call& call) { return insertBatch(call, "favourites", "boardId", favouriteKeys, sameFavourite); });
    const auto selectFavourites = [list](Call& call, bool paged) {
        Filter filter;
        filter.equal("userId", call["userId"])
            .like("boardName", call["boardName"])
            .since("createtime", call["startTime"])
            .until("createtime", call["endTime"]);
        return ok(list("SELECT id, userId, boardId, boardName, createtime FROM favourites", filter, " ORDER BY id",
                       paged ? &call : nullptr));
    };
    post("/kvr/favourite/selectFavourite", [selectFavourites](Call& call) { return selectFavourites(call, false); });
    post("/kvr/favourite/selectFavouriteByPage", [selectFavourites](Call& call) { return selectFavourites(call, true); });
    post("/kvr/favourite/deleteFavourite", [remove](Call& call) { return remove(call, "favourites", true, true); });

    // ---- Error library and error messages --------------------------------
    const auto insertRecord = [this](Call& call, const char* table, const std::vector<const char*>& keys,
                                     bool owned) {
        std::string columns;
        std::string marks;
        std::vector<QJsonValue> binds;
        for (const char* key : keys) {
            columns += (columns.empty() ? "" : ", ") + std::string(key);
            marks += marks.empty() ? "?" : ", ?";
            binds.push_back(call[key]);
        }
        if (owned) {
            columns += ", owner";
            marks += ", ?";
            binds.push_back(double(call.userId));
        }
        db.change(std::string("INSERT INTO ") + table + "(" + columns + ") VALUES(" + marks + ")", binds);
        return ok(double(db.lastInsertId()), "inserted");
    };
    post("/kvr/errorLibrary/insertErrorLibrary",
         [insertRecord](Call& call) {
             return insertRecord(call, "error_library", {"source", "layer", "errorMessage"}, false);
         });
    post("/kvr/errorLibrary/updateErrorLibrary",
         [update](Call& call) { return update(call, "error_library", {"source", "layer", "errorMessage"}, false); });
    post("/kvr/errorLibrary/deleteErrorLibrary", [remove](Call& call) { return remove(call, "error_library", false, false); });
    const auto selectLibrary = [list](Call& call, bool paged) {
        Filter filter;
        filter.equal("id", call["id"]).equal("source", call["source"]).equal("layer", call["layer"]).like("errorMessage", call["errorMessage"]);
        return ok(list("SELECT id, source, layer, errorMessage FROM error_library", filter, " ORDER BY id",
                       paged ? &call : nullptr));
    };
    post("/kvr/errorLibrary/selectErrorLibrary", [selectLibrary](Call& call) { return selectLibrary(call, false); });
    post("/kvr/errorLibrary/selectErrorLibraryByPage", [selectLibrary](Call& call) { return selectLibrary(call, true); });

    const std::vector<const char*> messageColumns{"brdId", "isReappear", "remark", "gridX", "gridY", "source",
                                                  "layer", "priority", "libraryId", "errorMessage"};
    post("/kvr/errorMessage/insertErrorMessage",
         [insertRecord, messageColumns](Call& call) {
             return insertRecord(call, "error_messages", messageColumns, true);
         });
    post("/kvr/errorMessage/updateErrorMessage",
         [update, messageColumns](Call& call) { return update(call, "error_messages", messageColumns, true); });
    post("/kvr/errorMessage/deleteErrorMessage", [remove](Call& call) { return remove(call, "error_messages", false, true); });
    const auto selectMessages = [list](Call& call, bool paged) {
        Filter filter;
        filter.equal("brdId", call["brdId"])
            .equal("isReappear", call["isReappear"])
            .like("remark", call["remark"])
            .equal("gridX", call["gridX"])
            .equal("gridY", call["gridY"])
            .equal("source", call["source"])
            .equal("layer", call["layer"])
            .equal("priority", call["priority"])
            .equal("libraryId", call["libraryId"])
            .like("errorMessage", call["errorMessage"]);
        return ok(list("SELECT id, brdId, isReappear, remark, gridX, gridY, source, layer, priority, libraryId, "
                       "errorMessage FROM error_messages",
                       filter, " ORDER BY id", paged ? &call : nullptr));
    };
    post("/kvr/errorMessage/selectErrorMessage", [selectMessages](Call& call) { return selectMessages(call, false); });
    post("/kvr/errorMessage/selectErrorMessageByPage", [selectMessages](Call& call) { return selectMessages(call, true); });

    // ---- Mall --------------------------------------------------------------
    get("/mall/order/selectBrdId", [this](Call& call) {
        const QJsonArray rows = db.query("SELECT boardId FROM mall_orders WHERE orderNum = ?",
                                         {QString::fromStdString(call.request.queryValue("orderNum"))});
        if (rows.isEmpty())
            return refuse("no such order", 404);
        return ok(rows.first().toObject(), "found");
    });
    post("/mall/order/selectOrderByPage", [list](Call& call) {
        Filter filter;
        filter.equal("userId", call["userId"]).equal("boardId", call["boardId"]).like("orderNum", call["orderNum"]);
        return ok(list("SELECT id, orderNum, userId, boardId, createtime FROM mall_orders", filter, " ORDER BY id", &call));
    });
    post("/mall/originalFile/selectOdbppOrigfilemanageByPage", [list](Call& call) {
        Filter filter;
        filter.raw("delflag = 0", {}).equal("createuserid", call["createuserid"]);
        return ok(list("SELECT id, origfilename, origfilesuffix, createuserid, size, createtime FROM original_files",
                       filter, " ORDER BY id", &call));
    });
    get("/mall/originalFile/getFileName", [list](Call& call) {
        Call paged = call;
        paged.object = {{"pageNo", QString::fromStdString(call.request.queryValue("pageNo"))},
                        {"pageSize", QString::fromStdString(call.request.queryValue("pageSize"))}};
        Filter filter;
        filter.raw("delflag = 0", {});
        return ok(list("SELECT id AS boardId, origfilename AS fileName FROM original_files", filter, " ORDER BY id", &paged));
    });
    post("/mall/originalFile/downloadFile", [sendFile](Call& call) {
        return sendFile(formNumber(formFields(call.request.body), "id"), 204);
    });

    // ---- Planner ------------------------------------------------------------
    get("/tavlin/tavlinModel/selectAllModel",
        [this](Call&) { return ok(db.query("SELECT id, name, createtime FROM planner_models ORDER BY id")); });
    get("/tavlin/tavlinModel/selectNewModel", [this](Call&) {
        const QJsonArray rows = db.query("SELECT id, name, createtime FROM planner_models ORDER BY id DESC LIMIT 1");
        return rows.isEmpty() ? refuse("no models", 404) : ok(rows.first());
    });
    get("/tavlin/tavlinModel/selectParams", [this](Call& call) {
        const QJsonArray rows = db.query("SELECT params FROM planner_models WHERE id = ?",
                                         {double(std::strtoll(call.request.queryValue("id").c_str(), nullptr, 10))});
        if (rows.isEmpty())
            return refuse("no such model", 404);
        return ok(QJsonDocument::fromJson(rows.first().toObject().value("params").toString().toUtf8()).object());
    });
}

} // namespace norva::service
