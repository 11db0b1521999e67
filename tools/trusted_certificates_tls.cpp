// SPDX-License-Identifier: MIT
#include "trusted_certificates.h"

#include <QFile>
#include <QSslCertificate>
#include <QSslConfiguration>

namespace norva::command {

bool trustCertificates(const QString& path, QString& error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("cannot read ") + path;
        return false;
    }
    const QList<QSslCertificate> certificates = QSslCertificate::fromData(file.readAll(), QSsl::Pem);
    if (certificates.isEmpty()) {
        error = QStringLiteral("no PEM certificate in ") + path;
        return false;
    }
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.addCaCertificates(certificates);
    QSslConfiguration::setDefaultConfiguration(configuration);
    return true;
}

} // namespace norva::command
