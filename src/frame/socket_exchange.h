// SPDX-License-Identifier: MIT
// An HTTP/1.1 exchange on a socket of its own, for replies whose end must be
// known for certain. Qt's network manager, when a connection closes in the
// middle of a chunked body, at some moments ends that body as if the close had
// been its end; a download would then store a cut-short file as whole. Here the
// reply goes through Boost.Beast's parser, which knows the framing of every
// body: a chunked one is whole only once its last chunk came.
//
// The request goes out as the manager would write it (request_head.h), and the
// body is decoded as the manager would decode it (content_decoder.h).
#pragma once

#include "frame/exchange.h"

#include <QTcpSocket>

#include <memory>

namespace norva {

class ReplyParser;
class ContentDecoder;

class SocketExchange final : public ExchangeInFlight
{
public:
    // Sends `outgoing` (its verb, URL, fields and text body) once start() is
    // called. `outgoing` must outlive the exchange; its sink takes the body.
    explicit SocketExchange(OutgoingRequest& outgoing);
    ~SocketExchange() override;

    void start() override;
    // What came so far stays, and it is incomplete.
    void abort() override;
    bool isFinished() const override { return finishedAlready; }
    ReceivedReply takeReply() override;

private:
    void connectSocket();
    void written(qint64 bytes);
    void readArrived();
    void closed();
    // Hands the parser what is buffered; false when the reply can't be read on.
    bool parse();
    void newParser();
    void headArrived();
    void body(const char* data, qint64 size);
    void finish();

    OutgoingRequest& outgoing;
    const QByteArray requestBytes;
    const qint64 headSize;
    const std::unique_ptr<QTcpSocket> socket; // TLS for "https" (transport.h)
    std::unique_ptr<ReplyParser> parser;
    std::unique_ptr<ContentDecoder> decoder;
    QByteArray unparsed;   // bytes the parser has not taken yet
    QByteArray decodedRun; // reused output room of the decoder
    qint64 writtenBytes = 0;
    bool replyStarted = false;  // some byte of a reply came
    bool connectedThisAttempt = false;
    bool headSeen = false;      // a final status and its fields came
    bool aborted = false;
    bool sinkAsked = false;
    bool bodyInSink = false;
    bool bodyValid = true;      // the coding, if any, decoded cleanly
    int attemptsLeft = 2;       // sends again when a connection closes unanswered, as Qt does
    bool finishedAlready = false;
    ReceivedReply reply;
};

} // namespace norva
