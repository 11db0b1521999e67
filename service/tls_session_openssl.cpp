// SPDX-License-Identifier: MIT
#include "tls_session.h"

#include <boost/asio/ssl.hpp>

namespace norva::service {

namespace net = boost::asio;
namespace ssl = boost::asio::ssl;

class TlsContext
{
public:
    ssl::context context{ssl::context::tls_server};
};

std::shared_ptr<TlsContext> loadTlsContext(const std::string& certificateFile, const std::string& keyFile,
                                           std::string& error)
{
    auto tls = std::make_shared<TlsContext>();
    boost::system::error_code ec;
    // TLS 1.2 and later only; the older versions have known breaks.
    tls->context.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3
                                 | ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1,
                             ec);
    // TLS 1.2 takes forward-secret AEAD suites only (no static RSA, no CBC),
    // in the service's order rather than the client's. TLS 1.3's suites are all so.
    SSL_CTX_set_options(tls->context.native_handle(), SSL_OP_CIPHER_SERVER_PREFERENCE);
    if (!ec && SSL_CTX_set_cipher_list(tls->context.native_handle(),
                                       "ECDHE+AESGCM:ECDHE+CHACHA20") != 1) {
        error = "cannot set the TLS cipher suites";
        return nullptr;
    }
    if (!ec)
        tls->context.use_certificate_chain_file(certificateFile, ec);
    if (ec) {
        error = "cannot use the certificate " + certificateFile + ": " + ec.message();
        return nullptr;
    }
    tls->context.use_private_key_file(keyFile, ssl::context::pem, ec);
    if (ec) {
        error = "cannot use the key " + keyFile + ": " + ec.message();
        return nullptr;
    }
    if (SSL_CTX_check_private_key(tls->context.native_handle()) != 1) {
        error = "the key " + keyFile + " does not belong to the certificate " + certificateFile;
        return nullptr;
    }
    return tls;
}

namespace {

class OpenSslSession final : public TlsSession
{
public:
    OpenSslSession(TlsContext& tls, boost::beast::tcp_stream& stream) : stream(stream, tls.context) {}

    void asyncHandshake(net::const_buffer hello, Done done) override
    {
        if (hello.size() == 0) {
            stream.async_handshake(ssl::stream_base::server,
                                   [done = std::move(done)](boost::system::error_code ec) { done(ec, 0); });
            return;
        }
        stream.async_handshake(ssl::stream_base::server, hello, std::move(done));
    }
    void asyncReadSome(net::mutable_buffer into, Done done) override
    {
        stream.async_read_some(into, std::move(done));
    }
    void asyncWriteSome(net::const_buffer from, Done done) override
    {
        stream.async_write_some(from, std::move(done));
    }

private:
    ssl::stream<boost::beast::tcp_stream&> stream;
};

} // namespace

std::unique_ptr<TlsSession> startTlsSession(TlsContext& context, boost::beast::tcp_stream& stream)
{
    return std::make_unique<OpenSslSession>(context, stream);
}

} // namespace norva::service
