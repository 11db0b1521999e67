// SPDX-License-Identifier: MIT
// The request head that Qt's network manager writes for a request, built
// without it: the exchanges on the library's own connections send the very
// bytes the manager would.
#pragma once

#include <QByteArray>

QT_BEGIN_NAMESPACE
class QNetworkRequest;
QT_END_NAMESPACE

namespace norva {

// "POST <path> HTTP/1.1", Host, the request's own fields in the order Qt
// writes them, then what Qt adds (Connection, Accept-Encoding,
// Accept-Language, User-Agent), and the blank line.
//
// To an HTTP proxy (`throughProxy`) the target is the whole URL; a caching
// proxy is asked to keep the connection with Proxy-Connection instead.
enum class HeadFor { Service, HttpProxy, CachingProxy };
QByteArray requestHead(const QByteArray& verb, const QNetworkRequest& request, HeadFor headFor = HeadFor::Service);

} // namespace norva
