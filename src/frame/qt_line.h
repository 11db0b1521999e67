// SPDX-License-Identifier: MIT
// Where Qt 5 and Qt 6 behave differently and the library pins one behaviour
// down. One file per Qt line stands behind this header (qt_line_qt5.cpp,
// qt_line_qt6.cpp), chosen by the build; nothing else in the library asks which
// line it runs on.
#pragma once

#include <QByteArray>
#include <QString>

#include <QList>
#include <QPair>
#include <QSharedPointer>

QT_BEGIN_NAMESPACE
class QNetworkReply;
class QNetworkRequest;
QT_END_NAMESPACE

namespace norva::qt_line {

// A redirect status is a status like any other, never followed, and the
// exchange speaks HTTP/1.1: Qt 5's defaults, which Qt 6 changed.
void pinRequestBehaviour(QNetworkRequest& request);

// Qt 5 writes a reply of known length straight into one buffer of that length,
// which the call then keeps: asked to, it does so for any length, so that a
// large reply is held once instead of passing through Qt's queues beside the
// call's copy. (Unasked, Qt 5 does so up to 128 KiB.) Qt 6 has no such buffer;
// there the exchange drains the body as it arrives.
void askForBodyInPlace(QNetworkRequest& request);
// The storage Qt wrote the body into; null when it did not write in place.
QSharedPointer<char> bodyStorage(const QNetworkReply& reply);

// The request's own header fields in the order the manager writes them: Qt 5
// writes Content-Length behind the others, Qt 6 where it was set.
QList<QPair<QByteArray, QByteArray>> headerFieldsAsSent(const QNetworkRequest& request);

// Keeps a temporary application from searching Qt's plugin folders, which Qt 5
// does again for every new application (for bearer plugins, which serve roaming
// sessions and cost more than the exchange). Qt 6 has no bearer plugins and
// searches nothing, and there clearing the paths would cost time of its own.
void skipPluginSearch();

// The UTF-8 text of `bytes` up to the first NUL byte, as Qt 5's
// QString::fromUtf8(QByteArray) reads it (Qt 6 reads on past the NUL).
QString utf8UpToNul(const QByteArray& bytes);

} // namespace norva::qt_line
