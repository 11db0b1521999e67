// SPDX-License-Identifier: MIT
// A build without TLS: no context can be made, so no session is ever started.
#include "tls_session.h"

namespace norva::service {

class TlsContext
{
};

std::shared_ptr<TlsContext> loadTlsContext(const std::string&, const std::string&, std::string& error)
{
    error = "this build has no TLS";
    return nullptr;
}

std::unique_ptr<TlsSession> startTlsSession(TlsContext&, boost::beast::tcp_stream&)
{
    return nullptr;
}

} // namespace norva::service
