// SPDX-License-Identifier: MIT
// Beast first: on Windows, Asio's headers must see winsock2.h before anything
// brings in windows.h.
#include <boost/asio/buffer.hpp>
#include <boost/beast/http/basic_parser.hpp>

#include "frame/socket_exchange.h"

#include "frame/call_watch.h"
#include "frame/connection_pool.h"
#include "frame/content_decoder.h"
#include "frame/form_body.h"
#include "frame/quick_ack.h"
#include "frame/request_head.h"
#include "frame/transport.h"

#include <QUrl>

#include <limits>

namespace norva {

namespace http = boost::beast::http;
using boost::beast::error_code;
using boost::beast::string_view;

// How much is read from the socket at once, and how much Qt may hold for it.
constexpr qint64 readStep = 64 * 1024;

// How much of an upload form is read at once, and how much may wait in the
// socket unwritten: a large file is sent without being held in memory.
constexpr qint64 formStep = 64 * 1024;

// A head larger than this is no reply the call can use (a download's name
// is in it, and no name is this long).
constexpr std::uint32_t headLimit = 4u << 20;

// Hands on what the exchange keeps of a reply: its status, the two fields a
// download reads, the announced length, and the body bytes as they come.
class ReplyParser final : public http::basic_parser<false>
{
public:
    ReplyParser()
    {
        header_limit(headLimit);
        // A download's size is the service's to decide. (Not boost::none: this
        // Boost's parser compares a Content-Length with an empty limit and
        // refuses every body that has one.)
        body_limit(std::numeric_limits<std::uint64_t>::max());
        eager(true);
    }

    int status = 0;
    qint64 announced = -1; // the Content-Length field, as Qt's manager reports it
    QByteArray contentDisposition;
    QByteArray contentEncoding;
    std::function<void()> onHead;
    std::function<void(const char*, qint64)> onBody;
    // The head as it came, kept only for a head observer.
    bool keepHead = false;
    QByteArray head;

private:
    // A field sent more than once reads as its values joined by ", ", as the
    // manager joins them.
    static void join(QByteArray& field, string_view value)
    {
        const QByteArray text(value.data(), int(value.size()));
        field = field.isNull() ? (text.isNull() ? QByteArray("") : text) : field + ", " + text;
    }

    void on_request_impl(http::verb, string_view, string_view, int, error_code&) override {}
    void on_response_impl(int code, string_view reason, int, error_code&) override
    {
        status = code;
        if (keepHead)
            head = "HTTP/1.1 " + QByteArray::number(code) + ' ' + QByteArray(reason.data(), int(reason.size())) + "\r\n";
    }
    void on_field_impl(http::field name, string_view nameText, string_view value, error_code&) override
    {
        if (keepHead)
            head += QByteArray(nameText.data(), int(nameText.size())) + ": " + QByteArray(value.data(), int(value.size())) + "\r\n";
        if (name == http::field::content_disposition)
            join(contentDisposition, value);
        else if (name == http::field::content_encoding)
            join(contentEncoding, value);
        else if (name == http::field::content_length)
            announced = QByteArray(value.data(), int(value.size())).toLongLong();
    }
    void on_header_impl(error_code&) override { onHead(); }
    void on_body_init_impl(const boost::optional<std::uint64_t>&, error_code&) override {}
    std::size_t on_body_impl(string_view body, error_code&) override
    {
        onBody(body.data(), qint64(body.size()));
        return body.size();
    }
    void on_chunk_header_impl(std::uint64_t, string_view, error_code&) override {}
    std::size_t on_chunk_body_impl(std::uint64_t, string_view body, error_code&) override
    {
        onBody(body.data(), qint64(body.size()));
        return body.size();
    }
    void on_finish_impl(error_code&) override {}
};

namespace {

QByteArray verbName(Verb verb)
{
    return verb == Verb::Get ? QByteArrayLiteral("GET") : QByteArrayLiteral("POST");
}

// What the manager would have said of a connection that gave no reply.
QNetworkReply::NetworkError asReplyError(QAbstractSocket::SocketError error)
{
    switch (error) {
    case QAbstractSocket::ConnectionRefusedError: return QNetworkReply::ConnectionRefusedError;
    case QAbstractSocket::HostNotFoundError: return QNetworkReply::HostNotFoundError;
    case QAbstractSocket::SslHandshakeFailedError: return QNetworkReply::SslHandshakeFailedError;
    case QAbstractSocket::SocketTimeoutError: return QNetworkReply::TimeoutError;
    case QAbstractSocket::RemoteHostClosedError:
    case QAbstractSocket::UnknownSocketError: return QNetworkReply::RemoteHostClosedError;
    default: return QNetworkReply::UnknownNetworkError;
    }
}

} // namespace

namespace {

HeadFor headFor(const Route& route)
{
    if (route.way != Route::Way::AbsoluteForm)
        return HeadFor::Service;
    return route.proxy.type() == QNetworkProxy::HttpCachingProxy ? HeadFor::CachingProxy : HeadFor::HttpProxy;
}

} // namespace

SocketExchange::SocketExchange(OutgoingRequest& outgoing, Route route, ConnectionPool* pool)
    : outgoing(outgoing), route(std::move(route)), pool(pool)
{
    // A form's head is the one the manager makes for it, with its length.
    FormBody form;
    if (outgoing.form) {
        form = formBody(outgoing.request, *outgoing.form);
        formDevice = form.device;
        form.request.setRawHeader(QByteArrayLiteral("Content-Length"), QByteArray::number(formDevice->size()));
    }
    requestBytes = requestHead(verbName(outgoing.verb), formDevice ? form.request : outgoing.request, headFor(this->route));
    headSize = requestBytes.size();
    bodySize = formDevice ? formDevice->size() : outgoing.body.size();
    if (!formDevice)
        requestBytes += outgoing.body;
}

// The socket, if the exchange still has one, goes with it. (An exchange that
// still has its socket is never deleted inside one of its socket's signals:
// deletableNow() says so.)
SocketExchange::~SocketExchange() = default;

void SocketExchange::start()
{
    openConnection(true);
}

void SocketExchange::openConnection(bool mayReuse)
{
    newParser();
    unparsed.clear();
    connectedThisAttempt = false;
    closedCleanly = false;
    writtenBytes = 0;
    if (socket) {
        QObject::disconnect(socket.get(), nullptr, this, nullptr);
        socket->abort();
        socket.release()->deleteLater();
    }
    if (mayReuse && pool)
        socket = pool->take(route.key);
    reusedThisAttempt = socket != nullptr;
    if (reusedThisAttempt) {
        wire();
        connectedThisAttempt = true;
        send();
        return;
    }
    const QUrl url = outgoing.request.url();
    socket = makeSocket(url, this, [this] {
        const Running running(*this);
        connectedThisAttempt = true;
        send();
    });
    socket->setReadBufferSize(readStep);
    noteTlsErrors(*socket, this, [this](const QString& errors) { reply.tlsErrors = errors; });
    // Nagle's algorithm would hold a request's last piece until the service's
    // delayed ACK for the one before.
    connect(socket.get(), &QTcpSocket::connected, this,
            [this] { socket->setSocketOption(QAbstractSocket::LowDelayOption, 1); });
    wire();
    connectSocket(*socket, url, route);
}

void SocketExchange::wire()
{
    connect(socket.get(), &QTcpSocket::bytesWritten, this, &SocketExchange::written);
    connect(socket.get(), &QTcpSocket::readyRead, this, &SocketExchange::readArrived);
    // A close comes as an error, as a disconnect, or both, in either order; it
    // is looked at once the socket has settled.
    const auto closeSoon = [this] { QMetaObject::invokeMethod(this, &SocketExchange::closed, Qt::QueuedConnection); };
    connect(socket.get(), &QTcpSocket::disconnected, this, closeSoon);
    connect(socket.get(), &QTcpSocket::errorOccurred, this, [this, closeSoon] {
        // The TCP close that follows a close_notify tells of itself in turn:
        // the service's own end is noted as it comes.
        closedCleanly = closedCleanly || closedByService(*socket);
        closeSoon();
    });
}

void SocketExchange::send()
{
    onActivity();
    // Head and body in one write: a small request leaves in one segment.
    if (!formDevice) {
        socket->write(requestBytes);
        return;
    }
    formDevice->reset();
    socket->write(requestBytes + formDevice->read(formStep));
    writeMoreOfForm();
}

void SocketExchange::writeMoreOfForm()
{
    while (!formDevice->atEnd() && socket->bytesToWrite() < formStep) {
        const QByteArray next = formDevice->read(formStep);
        if (next.isEmpty())
            return;
        socket->write(next);
    }
}

void SocketExchange::newParser()
{
    parser = std::make_unique<ReplyParser>();
    parser->onHead = [this] { headArrived(); };
    parser->onBody = [this](const char* data, qint64 size) { body(data, size); };
    parser->keepHead = headsObserved();
}

void SocketExchange::abort()
{
    if (finishedAlready)
        return;
    aborted = true;
    finish();
}

void SocketExchange::written(qint64 bytes)
{
    const Running running(*this);
    writtenBytes += bytes;
    if (formDevice)
        writeMoreOfForm();
    onActivity();
    onSent(qMax<qint64>(0, writtenBytes - headSize), bodySize);
}

void SocketExchange::readArrived()
{
    bool over = false;
    {
        const Running running(*this);
        over = readAvailable();
    }
    if (over)
        finish();
}

bool SocketExchange::readAvailable()
{
    // A step at a time, into the bytes the parser has not taken yet: with Qt's
    // own buffer bounded too, a download holds little of its body in memory
    // however fast it comes.
    while (!finishedAlready && socket->bytesAvailable() > 0) {
        const int kept = unparsed.size();
        unparsed.resize(kept + int(readStep));
        const qint64 got = socket->read(unparsed.data() + kept, readStep);
        unparsed.resize(kept + int(qMax<qint64>(got, 0)));
        if (got <= 0)
            return false;
        acknowledgeAtOnce(socket->socketDescriptor());
        replyStarted = true;
        onActivity();
        if (!parse() || parser->is_done())
            return true;
    }
    return false;
}

bool SocketExchange::parse()
{
    while (!unparsed.isEmpty()) {
        error_code error;
        const std::size_t used = parser->put(boost::asio::const_buffer(unparsed.constData(), std::size_t(unparsed.size())), error);
        unparsed.remove(0, int(used));
        if (error == http::error::need_more)
            return true;
        if (error)
            return false;
        if (parser->is_done()) {
            if (parser->status != 100)
                return true;
            // "100 Continue" is no answer: the reply follows it.
            newParser();
        }
        if (used == 0)
            return true;
    }
    return true;
}

void SocketExchange::headArrived()
{
    if (parser->status == 100)
        return;
    headSeen = true;
    decoder = decoderFor(parser->contentEncoding);
    onReceived(0, parser->announced);
}

void SocketExchange::body(const char* data, qint64 size)
{
    if (!bodyValid)
        return;
    if (decoder) {
        decodedRun.clear();
        bodyValid = decoder->decode(data, size, decodedRun);
        data = decodedRun.constData();
        size = decodedRun.size();
    }
    if (size == 0)
        return;
    if (!sinkAsked) {
        sinkAsked = true;
        bodyInSink = outgoing.bodySink && outgoing.bodySink->take(parser->status);
    }
    if (bodyInSink)
        outgoing.bodySink->write(data, size);
    else
        reply.body.append(data, int(size));
    reply.bodySize += size;
    onReceived(reply.bodySize, parser->announced);
}

void SocketExchange::closed()
{
    {
        const Running running(*this);
        if (finishedAlready || !socket || socket->state() != QAbstractSocket::UnconnectedState)
            return;
        const bool over = readAvailable();
        // A connection closed before any of a reply came is tried again, as the
        // manager does: the service may have dropped it unread. A kept
        // connection the service closed while it lay unused costs no attempt.
        if (!over && !replyStarted && connectedThisAttempt && (reusedThisAttempt || attemptsLeft > 0)) {
            if (!reusedThisAttempt)
                --attemptsLeft;
            openConnection(false);
            return;
        }
        // A body that runs to the close ends there, if its framing says so,
        // and if the close was the service's own.
        if (!over && headSeen && !parser->is_done() && (closedCleanly || closedByService(*socket))) {
            error_code error;
            parser->put_eof(error);
        }
    }
    finish();
}

void SocketExchange::finish()
{
    if (finishedAlready)
        return;
    finishedAlready = true;
    const bool replyDone = headSeen && !aborted && parser->is_done();
    reply.httpStatus = headSeen ? parser->status : 0;
    reply.contentDisposition = parser->contentDisposition;
    reply.bodyInSink = bodyInSink;
    reply.complete = replyDone && bodyValid && (!decoder || decoder->ended());
    // Downloads judge a reply by its status and whether it came whole; the
    // error is only there to say what ended it.
    const QAbstractSocket::SocketError socketError = socket ? socket->error() : QAbstractSocket::UnknownSocketError;
    reply.networkError = reply.complete ? QNetworkReply::NoError
                         : headSeen     ? QNetworkReply::RemoteHostClosedError
                                        : asReplyError(socketError);
    reply.errorString = socket ? socket->errorString() : QString();
    if (headSeen && parser->keepHead)
        reply.replyHead = parser->head + "\r\n";
    // A connection that carried a whole exchange, and that both sides keep,
    // carries the next; any other closes.
    if (socket) {
        QObject::disconnect(socket.get(), nullptr, this, nullptr);
        const bool keep = pool && reply.complete && parser->keep_alive() && unparsed.isEmpty()
                          && socket->state() == QAbstractSocket::ConnectedState && socket->bytesAvailable() == 0;
        if (keep)
            pool->giveBack(route.key, std::move(socket));
        else
            socket->abort();
    }
    onFinished();
}

ReceivedReply SocketExchange::takeReply()
{
    return std::move(reply);
}

} // namespace norva
