// SPDX-License-Identifier: MIT
// Certificates the norva command trusts beside the system's (--cacert,
// NORVA_CACERT, the saved session), added to Qt's default TLS configuration,
// which every call of the library checks a service's certificate against. One
// file per kind of Qt build (trusted_certificates_tls.cpp, _plain.cpp).
#pragma once

#include <QString>

namespace norva::command {

// Adds the PEM certificates in `path`; false with `error` set when there are none.
bool trustCertificates(const QString& path, QString& error);

} // namespace norva::command
