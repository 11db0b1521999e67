// SPDX-License-Identifier: MIT
#include "frame/request_head.h"

#include "frame/content_decoder.h"
#include "frame/qt_line.h"

#include <QHostAddress>
#include <QLocale>
#include <QNetworkRequest>
#include <QUrl>

namespace norva {

namespace {

// The request-target: the path and query, encoded, "/" for an empty path;
// `absolute`, the whole URL but its user and fragment.
QByteArray target(QUrl url, bool absolute)
{
    QUrl::FormattingOptions format(QUrl::RemoveFragment | QUrl::RemoveUserInfo | QUrl::FullyEncoded);
    if (!absolute)
        format |= QUrl::RemoveScheme | QUrl::RemoveAuthority;
    if (url.path().isEmpty())
        url.setPath(QStringLiteral("/"));
    else
        format |= QUrl::NormalizePathSegments;
    return url.toEncoded(format);
}

QByteArray hostField(const QUrl& url)
{
    const QString host = url.host();
    QByteArray field;
    QHostAddress address;
    if (address.setAddress(host))
        field = address.protocol() == QAbstractSocket::IPv6Protocol ? '[' + host.toLatin1() + ']' : host.toLatin1();
    else
        field = QUrl::toAce(host);
    if (url.port() != -1)
        field += ':' + QByteArray::number(url.port());
    return field;
}

// The languages Qt asks for: the system locale's, English, then any.
QByteArray acceptLanguage()
{
    const QString locale = QLocale::system().name().replace(QLatin1Char('_'), QLatin1Char('-'));
    if (locale == QLatin1String("C"))
        return "en,*";
    if (locale.startsWith(QLatin1String("en-")))
        return locale.toLatin1() + ",*";
    return locale.toLatin1() + ",en,*";
}

} // namespace

QByteArray requestHead(const QByteArray& verb, const QNetworkRequest& request, HeadFor headFor)
{
    QList<QPair<QByteArray, QByteArray>> fields = qt_line::headerFieldsAsSent(request);
    fields.prepend({"Host", hostField(request.url())});
    const auto addUnlessSet = [&fields, &request](const QByteArray& name, const QByteArray& value) {
        if (!request.hasRawHeader(name))
            fields.append({name, value});
    };
    if (headFor == HeadFor::CachingProxy)
        addUnlessSet("Proxy-Connection", "Keep-Alive");
    else
        addUnlessSet("Connection", "Keep-Alive");
    addUnlessSet("Accept-Encoding", acceptedEncodings());
    addUnlessSet("Accept-Language", acceptLanguage());
    addUnlessSet("User-Agent", "Mozilla/5.0");

    QByteArray head = verb + ' ' + target(request.url(), headFor != HeadFor::Service) + " HTTP/1.1\r\n";
    for (const auto& [name, value] : fields)
        head += name + ": " + value + "\r\n";
    return head + "\r\n";
}

} // namespace norva
