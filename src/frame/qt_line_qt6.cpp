// SPDX-License-Identifier: MIT
#include "frame/qt_line.h"

#include <QNetworkRequest>

namespace norva::qt_line {

void pinRequestBehaviour(QNetworkRequest& request)
{
    // Qt 6 follows redirects to the same scheme by default: the service would
    // see a second request and the caller get its answer.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
}

void askForBodyInPlace(QNetworkRequest&)
{
}

QSharedPointer<char> bodyStorage(const QNetworkReply&)
{
    return {};
}

QList<QPair<QByteArray, QByteArray>> headerFieldsAsSent(const QNetworkRequest& request)
{
    QList<QPair<QByteArray, QByteArray>> fields;
    for (const QByteArray& name : request.rawHeaderList())
        fields.append({name, request.rawHeader(name)});
    return fields;
}

void skipPluginSearch()
{
}

QString utf8UpToNul(const QByteArray& bytes)
{
    const qsizetype nul = bytes.indexOf('\0');
    return QString::fromUtf8(nul < 0 ? bytes : bytes.first(nul));
}

} // namespace norva::qt_line
