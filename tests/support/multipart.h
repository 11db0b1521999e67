// Splits a recorded multipart/form-data body into its parts, strictly: any
// byte out of place makes the parse fail.
#pragma once

#include "support/test_service.h"

#include <QByteArray>
#include <QList>

namespace testing_support {

struct FormPart {
    HeaderList headers;
    QByteArray body;
};

// The boundary from a Content-Type header value (quoted or not); empty if none.
QByteArray boundaryOf(const QByteArray& contentType);

// false when the body is not exactly a sequence of parts closed by the final
// boundary.
bool parseMultipart(const QByteArray& body, const QByteArray& boundary, QList<FormPart>& parts);

} // namespace testing_support
