// SPDX-License-Identifier: MIT
#include "frame/request.h"

#include "frame/qt_line.h"

#include <QHttpMultiPart>
#include <QJsonDocument>
#include <QUrl>

namespace norva {

OutgoingRequest::OutgoingRequest() = default;
OutgoingRequest::OutgoingRequest(QNetworkRequest request) : request(std::move(request)) {}
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

thread_local RequestCache* activeCache = nullptr;

// Every request the library sends starts here: the behaviour both Qt lines
// share pinned down, a body of known length asked for in place (a request
// whose body goes to a sink goes on a socket of its own, not through Qt's
// manager), and the content type.
QNetworkRequest uncachedRequest(const QUrl& url, const char* contentType)
{
    QNetworkRequest request(url);
    qt_line::pinRequestBehaviour(request);
    qt_line::askForBodyInPlace(request);
    if (contentType)
        request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray(contentType));
    return request;
}

// The same request, built or copied: a cached head is the same value.
QNetworkRequest requestFor(const QString& url, const char* contentType, bool forBody = false)
{
    return activeCache ? activeCache->request(url, contentType, forBody)
                       : uncachedRequest(QUrl(url, QUrl::TolerantMode), contentType);
}

} // namespace

RequestCache::Use::Use(RequestCache& cache) : outer(activeCache)
{
    activeCache = &cache;
}

RequestCache::Use::~Use()
{
    activeCache = outer;
}

QNetworkRequest RequestCache::request(const QString& url, const char* contentType, bool forBody)
{
    auto found = heads.find(url);
    if (found == heads.end()) {
        // A host that calls many services keeps at most this many heads.
        if (heads.size() >= 64)
            heads.clear();
        found = heads.insert(url, Head{QUrl(url, QUrl::TolerantMode), false, false, QByteArray(), QNetworkRequest(),
                                       std::nullopt});
    }
    Head& head = *found;
    const bool typed = contentType != nullptr;
    if (!head.built || head.typed != typed || (typed && head.contentType != contentType)) {
        head.built = true;
        head.typed = typed;
        head.contentType = contentType;
        head.request = uncachedRequest(head.url, contentType);
        head.spare.reset();
    }
    if (!forBody)
        return head.request;
    lastWithLength = url;
    spareWanted = true;
    if (!head.spare)
        return head.request;
    QNetworkRequest spare = std::move(*head.spare);
    head.spare.reset();
    return spare;
}

void RequestCache::prepareSpare()
{
    if (!spareWanted)
        return;
    spareWanted = false;
    const auto found = heads.find(lastWithLength);
    if (found == heads.end() || found->spare)
        return;
    found->spare = found->request;
    found->spare->setRawHeader(QByteArrayLiteral("Content-Length"), QByteArrayLiteral("0"));
}

QString RequestCache::serviceUrl(std::string_view ipconfig, const char* path)
{
    const auto build = [&] {
        return serviceUrlText(QString::fromUtf8(ipconfig.data(), int(ipconfig.size())), QString::fromLatin1(path));
    };
    RequestCache* const cache = activeCache;
    if (!cache)
        return build();
    if (cache->lastPath != path || std::string_view(cache->lastIpconfig.constData(), size_t(cache->lastIpconfig.size())) != ipconfig) {
        cache->lastUrl = build();
        cache->lastPath = path;
        cache->lastIpconfig = QByteArray(ipconfig.data(), int(ipconfig.size()));
    }
    return cache->lastUrl;
}

namespace {

OutgoingRequest withBody(const QString& url, const QByteArray& body, const char* type)
{
    OutgoingRequest outgoing(requestFor(url, type, true));
    outgoing.body = body;
    outgoing.sentText.utf8 = body;
    // The raw field, which Qt reads back as the same known header: on Qt 6
    // setHeader costs four times as much for the same field.
    outgoing.request.setRawHeader(QByteArrayLiteral("Content-Length"), QByteArray::number(body.size()));
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
    OutgoingRequest outgoing(requestFor(url, type));
    outgoing.verb = Verb::Get;
    if (hasQuery)
        outgoing.sentText.url = url;
    return outgoing;
}

OutgoingRequest formPost(const QString& url, std::unique_ptr<QHttpMultiPart> form,
                         const QByteArray& record)
{
    OutgoingRequest outgoing(requestFor(url, nullptr));
    outgoing.form = std::move(form);
    outgoing.sentText.utf8 = record;
    return outgoing;
}

void setTokenHeader(OutgoingRequest& outgoing, const QByteArray& tokenUtf8)
{
    outgoing.request.setRawHeader(QByteArrayLiteral("token"), tokenUtf8);
}

} // namespace norva
