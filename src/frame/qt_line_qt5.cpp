#include "frame/qt_line.h"

#include <QNetworkRequest>

namespace norva::qt_line {

void pinRequestBehaviour(QNetworkRequest&)
{
    // Qt 5 follows no redirect and uses no HTTP/2 unless asked to.
}

QString utf8UpToNul(const QByteArray& bytes)
{
    return QString::fromUtf8(bytes); // stops at the first NUL in Qt 5
}

} // namespace norva::qt_line
