// SPDX-License-Identifier: MIT
// The request head that Qt's network manager writes for a request, built
// without it: the exchange that reads a download on a socket of its own sends
// the very bytes the manager would.
#pragma once

#include <QByteArray>

QT_BEGIN_NAMESPACE
class QNetworkRequest;
QT_END_NAMESPACE

namespace norva {

// "POST <path> HTTP/1.1", Host, the request's own fields in the order Qt
// writes them, then what Qt adds (Connection, Accept-Encoding,
// Accept-Language, User-Agent), and the blank line.
QByteArray requestHead(const QByteArray& verb, const QNetworkRequest& request);

} // namespace norva
