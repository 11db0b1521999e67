// SPDX-License-Identifier: MIT
// A Qt without TLS reaches no "https" service; a certificate to trust changes
// nothing, and the library says why at the call.
#include "trusted_certificates.h"

#include <QFile>

namespace norva::command {

bool trustCertificates(const QString& path, QString& error)
{
    if (QFile::exists(path))
        return true;
    error = QStringLiteral("cannot read ") + path;
    return false;
}

} // namespace norva::command
