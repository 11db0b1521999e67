// SPDX-License-Identifier: MIT
#include "frame/qt_line.h"

#include <QCoreApplication>
#include <QNetworkReply>
#include <QStringList>
#include <QNetworkRequest>

// The type of QNetworkRequest::DownloadBufferAttribute, as QtNetwork registers it.
Q_DECLARE_METATYPE(QSharedPointer<char>)

namespace norva::qt_line {

void pinRequestBehaviour(QNetworkRequest&)
{
    // Qt 5 follows no redirect and uses no HTTP/2 unless asked to.
}

void askForBodyInPlace(QNetworkRequest& request)
{
    // Larger replies than 1 GiB are drained as they arrive, as on Qt 6.
    request.setAttribute(QNetworkRequest::MaximumDownloadBufferSizeAttribute, qint64(1) << 30);
}

QSharedPointer<char> bodyStorage(const QNetworkReply& reply)
{
    return reply.attribute(QNetworkRequest::DownloadBufferAttribute).value<QSharedPointer<char>>();
}

QList<QPair<QByteArray, QByteArray>> headerFieldsAsSent(const QNetworkRequest& request)
{
    QList<QPair<QByteArray, QByteArray>> fields;
    QByteArray length;
    for (const QByteArray& name : request.rawHeaderList()) {
        if (name.compare("Content-Length", Qt::CaseInsensitive) == 0)
            length = request.rawHeader(name);
        else
            fields.append({name, request.rawHeader(name)});
    }
    if (!length.isNull())
        fields.append({QByteArrayLiteral("Content-Length"), length});
    return fields;
}

void skipPluginSearch()
{
    QCoreApplication::setLibraryPaths(QStringList());
}

QString utf8UpToNul(const QByteArray& bytes)
{
    return QString::fromUtf8(bytes); // stops at the first NUL in Qt 5
}

} // namespace norva::qt_line
