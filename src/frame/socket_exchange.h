// SPDX-License-Identifier: MIT
// An HTTP/1.1 exchange on a connection of the library's own: every call of the
// asynchronous face, and every download of either face.
//
// Qt's network manager writes a POST's head and body in two writes with
// Nagle's algorithm on, so on a kept connection the body waits for the
// server's delayed ACK (40 ms on Linux); and when a connection closes in the
// middle of a chunked body it at some moments ends that body as if the close
// had been its end. Here the request goes out in one write with TCP_NODELAY,
// what comes is acknowledged at once, and the reply goes through Boost.Beast's
// parser, which knows the framing of every body: a chunked one is whole only
// once its last chunk came, and one that runs to the close of a TLS
// connection only once the service said it closed (close_notify).
//
// The request goes out as the manager would write it (request_head.h), on the
// route the manager would take (route.h), and the body is decoded as the
// manager would decode it (content_decoder.h).
#pragma once

#include "frame/exchange.h"
#include "frame/route.h"

#include <QPointer>
#include <QTcpSocket>

QT_BEGIN_NAMESPACE
class QIODevice;
QT_END_NAMESPACE

#include <memory>

namespace norva {

class ConnectionPool;
class ReplyParser;
class ContentDecoder;

class SocketExchange final : public ExchangeInFlight
{
public:
    // Sends `outgoing` (its verb, URL, fields, and text body or form) on `route` once
    // start() is called, on a connection from `pool` if it has one (and gives
    // the connection back if the reply leaves it fit for another). `outgoing`
    // must outlive the exchange; its sink takes the body.
    SocketExchange(OutgoingRequest& outgoing, Route route, ConnectionPool* pool);
    ~SocketExchange() override;

    void start() override;
    // What came so far stays, and it is incomplete.
    void abort() override;
    bool isFinished() const override { return finishedAlready; }
    ReceivedReply takeReply() override;
    // At once only when no handler of its own is under way and its socket went
    // back to the pool: a socket that stayed may be inside one of its signals.
    bool deletableNow() const override { return handlersRunning == 0 && !socket; }

private:
    // Counts a handler of the exchange while it runs.
    struct Running {
        explicit Running(SocketExchange& exchange) : exchange(exchange) { ++exchange.handlersRunning; }
        ~Running() { --exchange.handlersRunning; }
        SocketExchange& exchange;
    };

    void openConnection(bool mayReuse);
    void wire();
    void send();
    void written(qint64 bytes);
    void readArrived();
    // Reads what is there; true once the reply is over.
    bool readAvailable();
    void closed();
    // Hands the parser what is buffered; false when the reply can't be read on.
    bool parse();
    void newParser();
    void headArrived();
    void body(const char* data, qint64 size);
    // Ends the exchange; its last act is onFinished, so callers touch nothing after.
    void finish();

    // Writes more of a form while little of it waits in the socket.
    void writeMoreOfForm();

    OutgoingRequest& outgoing;
    const Route route;
    const QPointer<ConnectionPool> pool;
    QByteArray requestBytes; // the head, and a text body
    qint64 headSize = 0;
    QIODevice* formDevice = nullptr; // an upload form's bytes (form_body.h)
    qint64 bodySize = 0;
    std::unique_ptr<QTcpSocket> socket; // TLS for "https" (transport.h)
    std::unique_ptr<ReplyParser> parser;
    std::unique_ptr<ContentDecoder> decoder;
    QByteArray unparsed;   // bytes the parser has not taken yet
    QByteArray decodedRun; // reused output room of the decoder
    qint64 writtenBytes = 0;
    int handlersRunning = 0;
    bool replyStarted = false;  // some byte of a reply came
    bool connectedThisAttempt = false;
    bool reusedThisAttempt = false; // the connection carried an exchange before
    bool headSeen = false;      // a final status and its fields came
    bool aborted = false;
    bool sinkAsked = false;
    bool bodyInSink = false;
    bool bodyValid = true;      // the coding, if any, decoded cleanly
    bool closedCleanly = false; // the service ended TLS with close_notify
    int attemptsLeft = 2;       // sends again when a connection closes unanswered, as Qt does
    bool finishedAlready = false;
    ReceivedReply reply;
};

} // namespace norva
