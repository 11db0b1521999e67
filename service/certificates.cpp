// SPDX-License-Identifier: MIT
#include "certificates.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>

namespace norva::service {

namespace {

template <class T, void (*Free)(T*)> struct Freer {
    void operator()(T* p) const { Free(p); }
};
using Key = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY, EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Freer<X509, X509_free>>;
using Bio = std::unique_ptr<BIO, Freer<BIO, BIO_free_all>>;

Bio readingBio(const std::string& pem)
{
    return Bio(BIO_new_mem_buf(pem.data(), int(pem.size())));
}

std::string bioText(BIO* bio)
{
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return size > 0 ? std::string(data, std::size_t(size)) : std::string();
}

bool addExtension(X509* certificate, X509* issuer, int nid, const std::string& value)
{
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
    if (!extension)
        return false;
    const bool added = X509_add_ext(certificate, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    return added;
}

bool isAddress(const std::string& host)
{
    unsigned char ignored[16];
    return host.find(':') != std::string::npos
           || std::sscanf(host.c_str(), "%hhu.%hhu.%hhu.%hhu", &ignored[0], &ignored[1], &ignored[2], &ignored[3]) == 4;
}

} // namespace

PemPair makeCertificate(const CertificateRequest& request, std::string& error)
{
    error = "cannot make a certificate";
    const Key key(EVP_EC_gen("P-256"));
    const Certificate certificate(X509_new());
    if (!key || !certificate)
        return {};
    Key issuerKey;
    Certificate issuerCertificate;
    if (request.issuer) {
        issuerKey.reset(PEM_read_bio_PrivateKey(readingBio(request.issuer->key).get(), nullptr, nullptr, nullptr));
        issuerCertificate.reset(PEM_read_bio_X509(readingBio(request.issuer->certificate).get(), nullptr, nullptr, nullptr));
        if (!issuerKey || !issuerCertificate)
            return {};
    }
    X509* const cert = certificate.get();
    X509* const signer = request.issuer ? issuerCertificate.get() : cert;

    unsigned char serial[16];
    RAND_bytes(serial, sizeof serial);
    serial[0] &= 0x7f; // a positive serial number
    BIGNUM* serialNumber = BN_bin2bn(serial, sizeof serial, nullptr);
    const bool serialSet = serialNumber && BN_to_ASN1_INTEGER(serialNumber, X509_get_serialNumber(cert));
    BN_free(serialNumber);

    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(request.commonName.c_str()), -1, -1, 0);
    std::string names;
    for (const std::string& host : request.hosts)
        names += (names.empty() ? "" : ",") + std::string(isAddress(host) ? "IP:" : "DNS:") + host;
    const bool built = serialSet && X509_set_version(cert, 2) == 1
                       && X509_gmtime_adj(X509_getm_notBefore(cert), request.validFromSeconds)
                       && X509_gmtime_adj(X509_getm_notAfter(cert), request.validFromSeconds + request.validForSeconds)
                       && X509_set_pubkey(cert, key.get()) == 1
                       && X509_set_issuer_name(cert, X509_get_subject_name(signer)) == 1
                       && addExtension(cert, signer, NID_basic_constraints,
                                       request.authority ? "critical,CA:TRUE" : "critical,CA:FALSE")
                       && addExtension(cert, signer, NID_key_usage,
                                       request.authority ? "critical,digitalSignature,keyCertSign,cRLSign"
                                                         : "critical,digitalSignature")
                       && addExtension(cert, signer, NID_subject_key_identifier, "hash")
                       && (!request.issuer || addExtension(cert, signer, NID_authority_key_identifier, "keyid"))
                       && (names.empty() || addExtension(cert, signer, NID_subject_alt_name, names))
                       && (request.authority || addExtension(cert, signer, NID_ext_key_usage, "serverAuth"))
                       && X509_sign(cert, request.issuer ? issuerKey.get() : key.get(), EVP_sha256()) > 0;
    if (!built)
        return {};

    const Bio certificateText(BIO_new(BIO_s_mem()));
    const Bio keyText(BIO_new(BIO_s_mem()));
    if (!PEM_write_bio_X509(certificateText.get(), cert)
        || !PEM_write_bio_PrivateKey(keyText.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr))
        return {};
    error.clear();
    return {bioText(certificateText.get()), bioText(keyText.get())};
}

std::string sha256Fingerprint(const std::string& certificatePem)
{
    const Certificate certificate(PEM_read_bio_X509(readingBio(certificatePem).get(), nullptr, nullptr, nullptr));
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (!certificate || X509_digest(certificate.get(), EVP_sha256(), digest, &size) != 1)
        return std::string();
    std::string text;
    for (unsigned int i = 0; i < size; ++i) {
        char pair[4];
        std::snprintf(pair, sizeof pair, i == 0 ? "%02X" : ":%02X", digest[i]);
        text += pair;
    }
    return text;
}

Validity validityOf(const std::string& certificatePem)
{
    const Certificate certificate(PEM_read_bio_X509(readingBio(certificatePem).get(), nullptr, nullptr, nullptr));
    Validity validity;
    int days = 0, seconds = 0;
    if (!certificate || ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate.get())) != 1)
        return validity;
    validity.secondsLeft = days * 86400LL + seconds;
    if (ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notBefore(certificate.get())) != 1)
        return validity;
    validity.secondsToStart = days * 86400LL + seconds;
    validity.read = true;
    return validity;
}

} // namespace norva::service
