// SPDX-License-Identifier: MIT
// An upload form as Qt's network manager sends it: the request with the
// fields the manager adds for a form (its Content-Type with the boundary,
// MIME-Version), and the device that reads the form's bytes. Taken from the
// manager itself, so that an upload on the library's own connection sends the
// very bytes, boundary and part heads included, on either Qt line.
#pragma once

#include <QNetworkRequest>

QT_BEGIN_NAMESPACE
class QHttpMultiPart;
class QIODevice;
QT_END_NAMESPACE

namespace norva {

struct FormBody {
    QNetworkRequest request;
    QIODevice* device = nullptr; // the form's own: lives as long as the form
};

FormBody formBody(const QNetworkRequest& request, QHttpMultiPart& form);

} // namespace norva
