// SPDX-License-Identifier: MIT
// Keys and X.509 certificates in PEM, made with OpenSSL: the service's
// self-signed certificate, and the certificate authorities of the tests.
#pragma once

#include <string>
#include <vector>

namespace norva::service {

struct PemPair {
    std::string certificate;
    std::string key;
};

struct CertificateRequest {
    std::string commonName;
    std::vector<std::string> hosts; // subject alternative names: IP addresses or DNS names
    bool authority = false;         // may sign other certificates
    long validFromSeconds = -3600;  // from now; negative is in the past
    long validForSeconds = 825L * 86400;
    const PemPair* issuer = nullptr; // none: self-signed
};

// A new P-256 key and its certificate; empty with `error` set on failure.
PemPair makeCertificate(const CertificateRequest& request, std::string& error);

// The SHA-256 fingerprint of a PEM certificate, as "AB:CD:…"; empty when it is none.
std::string sha256Fingerprint(const std::string& certificatePem);

// When the first certificate in a PEM text is valid, seen from now.
struct Validity {
    bool read = false;            // it is a certificate
    long long secondsToStart = 0; // above 0: not valid yet
    long long secondsLeft = 0;    // 0 or below: expired
};
Validity validityOf(const std::string& certificatePem);

} // namespace norva::service
