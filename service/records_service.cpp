// SPDX-License-Identifier: MIT
#include "records_service.h"

#include "passwords.h"
#include "routes.h"

#include <QDateTime>
#include <QFileInfo>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>
#include <QUuid>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <optional>

namespace norva::service {

namespace {

// What a JSON body takes of the memory bound, per byte: the text, and Qt's
// parsed form of it, about ten times the text (measured on both Qt lines: 150
// MiB for a batch of 15 MiB). Counted from the head, so that of many large
// batches at once the first ones are taken whole and the others answered 503,
// instead of all of them read and none parsed.
constexpr std::uint64_t jsonMemoryPerByte = 11;

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

} // namespace

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
    // HEAD is answered wherever GET is (the head of GET's answer).
    const bool headOfGet = request.method == "HEAD" && route->second.method == "GET";
    if (route->second.method != request.method && !headOfGet) {
        HttpResponse refusal = HttpResponse::text(405, "use " + route->second.method + "\n");
        refusal.headers.emplace_back("Allow", route->second.method == "GET" ? "GET, HEAD" : route->second.method);
        return refusal;
    }
    return std::nullopt;
}

HeadVerdict RecordsService::checkHead(const HttpRequest& head)
{
    HeadVerdict verdict;
    if ((verdict.refusal = refusedRoute(head)))
        return verdict;
    if (head.header("Content-Type").rfind("application/json", 0) == 0)
        verdict.memoryPerBodyByte = jsonMemoryPerByte;
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
    const std::lock_guard<std::mutex> lock(db.readLock());
    const Database::Reading reading(db);
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
        const std::lock_guard<std::mutex> lock(db.readLock());
        const Database::Reading reading(db);
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
    // A route that only reads does so on the reader, which waits for no write.
    const bool readsOnly = route->second.readsOnly;
    std::unique_lock<std::mutex> lock(readsOnly ? db.readLock() : db.lock());
    std::optional<Database::Reading> reading;
    if (readsOnly)
        reading.emplace(db);
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
    addAccountRoutes();
    addTransferRoutes();
    addRecordRoutes();
    addMallRoutes();
}

void RecordsService::post(const char* path, Route route)
{
    routes[path] = {"POST", std::move(route), false, nullptr, 0};
}

void RecordsService::query(const char* path, Route route)
{
    routes[path] = {"POST", std::move(route), true, nullptr, 0};
}

void RecordsService::get(const char* path, Route route)
{
    routes[path] = {"GET", std::move(route), true, nullptr, 0};
}

void RecordsService::upload(const char* path, const char* filePart, std::size_t maxFiles, Route route)
{
    routes[path] = {"POST", std::move(route), false, filePart, maxFiles};
}

QJsonValue RecordsService::list(const std::string& select, const Filter& filter, const std::string& order,
                                const Call* paged)
{
    if (!paged)
        return db.query(select + filter.where() + order, filter.binds());
    const int pageNo = pageNumber((*paged)["pageNo"]);
    const int pageSize = pageSizeOf((*paged)["pageSize"]);
    const QJsonArray total = db.query("SELECT COUNT(*) AS n FROM (" + select + filter.where() + ")", filter.binds());
    std::vector<QJsonValue> binds = filter.binds();
    binds.push_back(pageSize);
    binds.push_back(double(pageNo - 1) * pageSize);
    return QJsonObject{{"pageNo", pageNo},
                       {"pageSize", pageSize},
                       {"total", total.first().toObject().value("n")},
                       {"list", db.query(select + filter.where() + order + " LIMIT ? OFFSET ?", binds)}};
}

} // namespace norva::service
