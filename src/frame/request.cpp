#include "frame/request.h"

#include <QHttpMultiPart>
#include <QJsonDocument>
#include <QUrl>

namespace norva {

OutgoingRequest::OutgoingRequest() = default;
OutgoingRequest::OutgoingRequest(OutgoingRequest&&) noexcept = default;
OutgoingRequest& OutgoingRequest::operator=(OutgoingRequest&&) noexcept = default;
OutgoingRequest::~OutgoingRequest() = default;

QString serviceUrlText(const QString& ipconfig, const QString& pathAndQuery)
{
    const bool hasScheme = ipconfig.startsWith(QLatin1String("https://"), Qt::CaseInsensitive)
                           || ipconfig.startsWith(QLatin1String("http://"), Qt::CaseInsensitive);
    if (!hasScheme)
        return QStringLiteral("http://") + ipconfig + pathAndQuery;
    // "https://host:port/" names the same service as "https://host:port".
    QString base = ipconfig;
    if (base.endsWith(QLatin1Char('/')) && !pathAndQuery.isEmpty())
        base.chop(1);
    return base + pathAndQuery;
}

namespace {

OutgoingRequest withBody(const QString& url, const QByteArray& body, const char* type)
{
    OutgoingRequest outgoing;
    outgoing.request = QNetworkRequest(QUrl(url, QUrl::TolerantMode));
    outgoing.body = body;
    outgoing.sentText.utf8 = body;
    outgoing.request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray(type));
    outgoing.request.setHeader(QNetworkRequest::ContentLengthHeader, body.size());
    return outgoing;
}

} // namespace

OutgoingRequest jsonPost(const QString& url, const QByteArray& compactJson)
{
    return withBody(url, compactJson, contentType::json);
}

OutgoingRequest formTextPost(const QString& url, const QByteArray& formText)
{
    return withBody(url, formText, contentType::formText);
}

OutgoingRequest bodilessGet(const QString& url, const char* type, bool hasQuery)
{
    OutgoingRequest outgoing;
    outgoing.verb = Verb::Get;
    outgoing.request = QNetworkRequest(QUrl(url, QUrl::TolerantMode));
    if (hasQuery)
        outgoing.sentText.url = url;
    outgoing.request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray(type));
    return outgoing;
}

OutgoingRequest formPost(const QString& url, std::unique_ptr<QHttpMultiPart> form,
                         const QByteArray& record)
{
    OutgoingRequest outgoing;
    outgoing.request = QNetworkRequest(QUrl(url, QUrl::TolerantMode));
    outgoing.form = std::move(form);
    outgoing.sentText.utf8 = record;
    return outgoing;
}

void setTokenHeader(OutgoingRequest& outgoing, const QString& token)
{
    outgoing.request.setRawHeader(QByteArrayLiteral("token"), token.toUtf8());
}

} // namespace norva
