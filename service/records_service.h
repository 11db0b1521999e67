// SPDX-License-Identifier: MIT
// The records service's behaviour: every path the library uses, over SQLite
// and a folder of file contents.
#pragma once

#include "database.h"
#include "login_failures.h"
#include "http_server.h"

#include <QJsonObject>

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace norva::service {

class Filter;

struct ServiceOptions {
    std::string dataFolder = "./norva-data";
    long long tokenLifetimeSeconds = 8 * 3600;
    bool expireTokens = false; // every token counts as expired (fault injection)
};

class RecordsService
{
public:
    explicit RecordsService(ServiceOptions options);

    // Opens (or creates and seeds) the data folder; false with `error` set.
    // `seeded` tells whether a fresh folder got its first user and samples.
    bool open(std::string& error, bool& seeded);
    HttpResponse handle(const HttpRequest& request);
    // What the head alone decides: an unknown path (404), a token route
    // without a valid token (402), and the body size a route takes (a route
    // without a token takes a small one). Nothing of the body is read before.
    HeadVerdict checkHead(const HttpRequest& head);
    // Adds a user with that password (stored as its hash); false with `error`
    // set when the name is taken.
    bool addUser(const std::string& name, const std::string& password, std::string& error);

    // Where the parts of upload forms go as they arrive; emptied by open().
    std::string spoolFolder() const;

    static constexpr const char* seededUser = "norva";
    static constexpr const char* seededPassword = "norva";

private:
    struct Call;
    struct UploadForm;
    using Route = std::function<HttpResponse(Call&)>;
    struct RouteEntry {
        std::string method;
        Route handler;
        // Runs on the database's reader: it waits for no write.
        bool readsOnly;
        // An upload's part name for its files, which are split out of the form
        // as it arrives. nullptr elsewhere.
        const char* filePart;
        // How many of those parts an upload stores; later ones are dropped.
        std::size_t maxFiles;
    };

    // The route families, each in a file of its own.
    void addRoutes();
    void addAccountRoutes();
    void addTransferRoutes();
    void addRecordRoutes();
    void addMallRoutes();
    // A route that writes; one that only reads (POST, GET); an upload, whose
    // first `maxFiles` parts named `filePart` are stored.
    void post(const char* path, Route route);
    void query(const char* path, Route route);
    void get(const char* path, Route route);
    void upload(const char* path, const char* filePart, std::size_t maxFiles, Route route);

    // Lists a table, whole or by the page `paged` asks for, with the filter's
    // WHERE clause.
    QJsonValue list(const std::string& select, const Filter& filter, const std::string& order, const Call* paged);
    // A stored file as a download, or `missingStatus` when there is none.
    HttpResponse sendFile(long long id, int missingStatus);
    // A login's answer: a token for the right password.
    HttpResponse login(Call& call);
    void seed();
    void upgrade();
    std::optional<bool> entitled(const char* table, const QJsonValue& id, long long userId);
    long long tokenUser(const std::string& token);
    std::optional<HttpResponse> refusedRoute(const HttpRequest& request) const;
    void purgeExpiredTokens();
    void removeFilesWithoutRecord();
    void keepPrivate() const;
    std::string filePath(long long id) const;
    // Takes an upload's data part and its part files from the request's form.
    void take(const HttpRequest& request, const RouteEntry& route, UploadForm& upload) const;

    ServiceOptions options;
    Database db;
    LoginFailures loginFailures;
    std::map<std::string, RouteEntry> routes; // by path
};

} // namespace norva::service
