// Building the request of one call: the service URL, the body in one of its
// forms, and the headers. Nothing here touches the network.
#pragma once

#include "frame/result.h"

#include <QByteArray>
#include <QJsonValue>
#include <QNetworkRequest>
#include <QString>

#include <memory>

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
void setTokenHeader(OutgoingRequest& outgoing, const QString& token);

namespace contentType {
inline const char* const json = "application/json";
inline const char* const formText = "application/x-www-form-urlencoded";
} // namespace contentType

} // namespace norva
