// SPDX-License-Identifier: MIT
// TLS on the service's connections, behind one small interface so that the
// HTTP layer needs no TLS headers: OpenSSL through Asio's TLS stream where the
// build has it (tls_session_openssl.cpp), none elsewhere (tls_session_none.cpp,
// the Windows build of the tests' scripted service).
#pragma once

#include <boost/asio/buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace norva::service {

// A certificate chain and its key, shared by every connection.
class TlsContext;

// Loads a PEM certificate (chain) and its PEM key; null with `error` set when
// they can't be used (or the build has no TLS).
std::shared_ptr<TlsContext> loadTlsContext(const std::string& certificateFile, const std::string& keyFile,
                                           std::string& error);

// One connection's TLS, layered on its TCP stream: every operation runs under
// the stream's own deadline.
class TlsSession
{
public:
    using Done = std::function<void(boost::system::error_code, std::size_t)>;
    virtual ~TlsSession() = default;
    // `hello`: what the client has sent already, read before the session was
    // made; it stays valid until `done`.
    virtual void asyncHandshake(boost::asio::const_buffer hello, Done done) = 0;
    virtual void asyncReadSome(boost::asio::mutable_buffer into, Done done) = 0;
    virtual void asyncWriteSome(boost::asio::const_buffer from, Done done) = 0;
};

std::unique_ptr<TlsSession> startTlsSession(TlsContext& context, boost::beast::tcp_stream& stream);

} // namespace norva::service
