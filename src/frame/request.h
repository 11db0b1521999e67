// SPDX-License-Identifier: MIT
// Building the request of one call: the service URL, the body in one of its
// forms, and the headers. Nothing here touches the network.
#pragma once

#include "frame/result.h"

#include <QByteArray>
#include <QHash>
#include <QJsonValue>
#include <QNetworkRequest>
#include <QString>

#include <memory>
#include <optional>
#include <string_view>

QT_BEGIN_NAMESPACE
class QHttpMultiPart;
class QJsonDocument;
QT_END_NAMESPACE

namespace norva {

class BodySink;

enum class Verb { Post, Get };

// A request ready to send, with what the operation will report as sent.
struct OutgoingRequest {
    OutgoingRequest();
    // Starts from `request` (a default QNetworkRequest is not free).
    explicit OutgoingRequest(QNetworkRequest request);
    OutgoingRequest(OutgoingRequest&&) noexcept;
    OutgoingRequest& operator=(OutgoingRequest&&) noexcept;
    ~OutgoingRequest();

    QNetworkRequest request;
    Verb verb = Verb::Post;
    QByteArray body;                      // a JSON or form text body
    std::unique_ptr<QHttpMultiPart> form; // or an upload form
    // What a failure document reports as sent: the body as one JSON string, the
    // data part of a form, the URL of a GET with a query; undefined for a GET
    // without one.
    SentText sentText;
    // Where the reply's body goes instead of memory, if it takes it; not owned.
    BodySink* bodySink = nullptr;
};

// "http://" + ipconfig + pathAndQuery; an ipconfig that names its scheme
// ("https://host:port", "http://host:port") keeps it.
QString serviceUrlText(const QString& ipconfig, const QString& pathAndQuery);

// Request heads built once per service URL. A client that calls the same
// service again and again would otherwise parse the same few URLs, and set the
// same content type on them, on every call, which costs more than the rest of
// building a request. While a Use is alive on a thread, the requests built
// there start from that cache.
class RequestCache
{
public:
    class Use
    {
    public:
        explicit Use(RequestCache& cache);
        ~Use();
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;

    private:
        RequestCache* const outer;
    };

    // A request for `url` with Content-Type `contentType` (none when null).
    // `forBody`: the caller sets "Content-Length" next (the request may hold
    // that field already).
    QNetworkRequest request(const QString& url, const char* contentType, bool forBody);

    // Makes ready, while the thread has nothing else to do, an unshared copy
    // of the head last asked for a body's request: changing a shared
    // request first copies all of it, which is most of a call's own cost on
    // Qt 6, and would otherwise be paid while the call waits to be sent.
    void prepareSpare();

    // serviceUrlText(ipconfig, path) for a path that lives as long as the
    // program; with a cache in use, the last one is remembered.
    static QString serviceUrl(std::string_view ipconfig, const char* path);

private:
    // The last request built for a URL, and the content type it was built with.
    struct Head {
        QUrl url;
        bool built;
        bool typed;
        QByteArray contentType;
        QNetworkRequest request;
        std::optional<QNetworkRequest> spare; // unshared, with a length field
    };
    QHash<QString, Head> heads;
    QString lastWithLength; // the URL of the head last asked for a body's request
    bool spareWanted = false; // its spare went, or there was none
    // The last service URL built, and what it was built of.
    const char* lastPath = nullptr;
    QByteArray lastIpconfig;
    QString lastUrl;
};

// POST with a compact JSON body: Content-Type "application/json", Content-Length.
OutgoingRequest jsonPost(const QString& url, const QByteArray& compactJson);
// POST with a form text body: Content-Type "application/x-www-form-urlencoded".
OutgoingRequest formTextPost(const QString& url, const QByteArray& formText);
// GET without a body; `hasQuery` makes the URL the sent text.
OutgoingRequest bodilessGet(const QString& url, const char* contentType, bool hasQuery);
// POST with an upload form; Qt sets Content-Type with its boundary, and the size.
OutgoingRequest formPost(const QString& url, std::unique_ptr<QHttpMultiPart> form,
                         const QByteArray& record);

// Adds the raw "token" header; always set after the content headers.
void setTokenHeader(OutgoingRequest& outgoing, const QByteArray& tokenUtf8);

namespace contentType {
inline const char* const json = "application/json";
inline const char* const formText = "application/x-www-form-urlencoded";
} // namespace contentType

} // namespace norva
