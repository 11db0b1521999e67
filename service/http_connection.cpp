// SPDX-License-Identifier: MIT
// The rules a request's head is held to, and how a connection's socket is set.
#include "http_connection.h"

#include <cctype>

namespace norva::service::detail {

std::string lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

// A target in absolute form ("http://host/path") is taken as its path.
std::string originForm(const std::string& target)
{
    const std::string lower = lowered(target.substr(0, 8));
    if (lower.rfind("http://", 0) != 0 && lower.rfind("https://", 0) != 0)
        return target;
    const std::size_t path = target.find_first_of("/?", target.find("://") + 3);
    if (path == std::string::npos)
        return "/";
    return target[path] == '?' ? "/" + target.substr(path) : target.substr(path);
}

// What is wrong with a request's head where HTTP/1.1 is strict about it
// (RFC 9112): one Host field, only the chunked transfer coding and only as the
// last one, and no expectation but 100-continue. None when it is right.
std::optional<HttpResponse> wrongHead(const HttpRequest& request)
{
    int hosts = 0;
    std::vector<std::string> codings;
    for (const auto& [name, value] : request.headers) {
        const std::string field = lowered(name);
        if (field == "host")
            ++hosts;
        if (field != "transfer-encoding")
            continue;
        std::size_t at = 0;
        while (at <= value.size()) {
            const std::size_t comma = std::min(value.find(',', at), value.size());
            std::string coding = lowered(value.substr(at, comma - at));
            coding.erase(0, coding.find_first_not_of(" \t"));
            coding.erase(coding.find_last_not_of(" \t") + 1);
            if (!coding.empty())
                codings.push_back(coding);
            at = comma + 1;
        }
    }
    if (hosts != 1)
        return HttpResponse::text(400, "a request needs one Host field\n");
    for (std::size_t i = 0; i < codings.size(); ++i) {
        if (codings[i] != "chunked")
            return HttpResponse::text(501, "no transfer coding but chunked is taken\n");
        if (i + 1 != codings.size())
            return HttpResponse::text(400, "chunked must be the last transfer coding, and only once\n");
    }
    const std::string expect = lowered(request.header("Expect"));
    if (!expect.empty() && expect != "100-continue")
        return HttpResponse::text(417, "no expectation but 100-continue is met\n");
    return std::nullopt;
}

void splitTarget(HttpRequest& request)
{
    const auto question = request.target.find('?');
    request.path = percentDecode(request.target.substr(0, question), false);
    if (question == std::string::npos)
        return;
    const std::string query = request.target.substr(question + 1);
    std::size_t at = 0;
    while (at <= query.size()) {
        const auto amp = std::min(query.find('&', at), query.size());
        const std::string pair = query.substr(at, amp - at);
        if (!pair.empty()) {
            const auto eq = pair.find('=');
            request.query.emplace(percentDecode(pair.substr(0, eq), true),
                                  eq == std::string::npos ? std::string() : percentDecode(pair.substr(eq + 1), true));
        }
        at = amp + 1;
    }
}

// A broken message, as opposed to a peer that went away or went quiet.
bool isMalformed(const error_code& ec)
{
    return ec.category() == make_error_code(http::error::bad_version).category() && ec != http::error::end_of_stream
           && ec != http::error::partial_message;
}

// The answer to a request the parser could not read: 431 for a head too
// large, 413 for a body too large, 400 for a broken message; 0 (no answer)
// when the peer went away or went quiet.
int refusalStatus(const error_code& ec)
{
    return ec == http::error::header_limit ? 431 : ec == http::error::body_limit ? 413 : isMalformed(ec) ? 400 : 0;
}

// Acknowledges what arrives at once. A client that keeps its connection and
// writes a request in two pieces (Qt's manager writes head and body apart, with
// Nagle's wait on) would otherwise wait for the delayed ACK, 40 ms a request.
// Linux only: elsewhere the option does not exist, and the wait stays.
void acknowledgeAtOnce([[maybe_unused]] tcp::socket& socket)
{
#ifdef TCP_QUICKACK
    error_code ignored;
    socket.set_option(net::detail::socket_option::boolean<IPPROTO_TCP, TCP_QUICKACK>(true), ignored);
#endif
}

// Keeps at most 64 KiB of an answer waiting in the kernel for a client to
// take it (a file goes in pieces of that size too). Without a bound, the
// kernel takes up to its send buffer's limit (4 MiB here) from every write:
// 300 downloads that are never read hold 900 MB of kernel memory, and copying
// it in keeps the service's threads from everyone else for a second. Bytes in
// flight are not counted, so a client that reads still gets the whole window.
// Linux and BSD; elsewhere nothing is bound.
void boundUnsentBytes([[maybe_unused]] tcp::socket& socket)
{
#ifdef TCP_NOTSENT_LOWAT
    error_code ignored;
    socket.set_option(net::detail::socket_option::integer<IPPROTO_TCP, TCP_NOTSENT_LOWAT>(64 << 10), ignored);
#endif
}

} // namespace norva::service::detail
