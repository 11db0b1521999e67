// Where Qt 5 and Qt 6 behave differently and the library pins one behaviour
// down. One file per Qt line stands behind this header (qt_line_qt5.cpp,
// qt_line_qt6.cpp), chosen by the build; nothing else in the library asks which
// line it runs on.
#pragma once

#include <QByteArray>
#include <QString>

QT_BEGIN_NAMESPACE
class QNetworkRequest;
QT_END_NAMESPACE

namespace norva::qt_line {

// A redirect status is a status like any other, never followed, and the
// exchange speaks HTTP/1.1: Qt 5's defaults, which Qt 6 changed.
void pinRequestBehaviour(QNetworkRequest& request);

// The UTF-8 text of `bytes` up to the first NUL byte, as Qt 5's
// QString::fromUtf8(QByteArray) reads it (Qt 6 reads on past the NUL).
QString utf8UpToNul(const QByteArray& bytes);

} // namespace norva::qt_line
