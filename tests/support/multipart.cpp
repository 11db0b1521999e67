#include "support/multipart.h"

namespace testing_support {

QByteArray boundaryOf(const QByteArray& contentType)
{
    const int at = contentType.indexOf("boundary=");
    if (at < 0)
        return QByteArray();
    QByteArray boundary = contentType.mid(at + 9);
    const int end = boundary.indexOf(';');
    if (end >= 0)
        boundary.truncate(end);
    boundary = boundary.trimmed();
    if (boundary.startsWith('"') && boundary.endsWith('"') && boundary.size() >= 2)
        boundary = boundary.mid(1, boundary.size() - 2);
    return boundary;
}

bool parseMultipart(const QByteArray& body, const QByteArray& boundary, QList<FormPart>& parts)
{
    const QByteArray opening = "--" + boundary + "\r\n";
    const QByteArray separator = "\r\n--" + boundary;
    if (boundary.isEmpty() || !body.startsWith(opening))
        return false;
    int at = opening.size();
    for (;;) {
        const int headEnd = body.indexOf("\r\n\r\n", at);
        if (headEnd < 0)
            return false;
        FormPart part;
        for (const QByteArray& line : body.mid(at, headEnd - at).split('\n')) {
            const QByteArray trimmed = line.endsWith('\r') ? line.chopped(1) : line;
            const int colon = trimmed.indexOf(':');
            if (colon <= 0)
                return false;
            part.headers.append({trimmed.left(colon), trimmed.mid(colon + 1).trimmed()});
        }
        const int bodyStart = headEnd + 4;
        const int next = body.indexOf(separator, bodyStart);
        if (next < 0)
            return false;
        part.body = body.mid(bodyStart, next - bodyStart);
        parts.append(part);
        at = next + separator.size();
        if (body.mid(at) == "--\r\n" || body.mid(at) == "--")
            return true;
        if (body.mid(at, 2) != "\r\n")
            return false;
        at += 2;
    }
}

} // namespace testing_support
