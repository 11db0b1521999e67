// SPDX-License-Identifier: MIT
// A call for the asynchronous face. The operation's own function runs as for a
// blocking call, on the caller's thread, up to its exchange; the exchange is
// not made but kept here, with what the operation would do with its reply. The
// face makes the exchange on its client's manager and hands the reply back to
// finish(), which gives the very result text the blocking call would have.
#pragma once

#include "frame/exchange.h"
#include "frame/request.h"
#include "frame/result.h"
#include "frame/shell.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace norva {

class DeferredCall
{
public:
    DeferredCall() = default;
    DeferredCall(const DeferredCall&) = delete;
    DeferredCall& operator=(const DeferredCall&) = delete;

    // While it lives, an operation called on this thread defers its exchange
    // to `call`, and writes nothing to standard output.
    class Capture
    {
    public:
        explicit Capture(DeferredCall& call);
        ~Capture();
        Capture(const Capture&) = delete;
        Capture& operator=(const Capture&) = delete;

    private:
        DeferredCall* const outer;
        const ConsoleSilence silence;
    };

    // The one capturing on this thread, if any.
    static DeferredCall* current();

    // Whether the operation left an exchange to make (else its result came at
    // once: a refused argument, say).
    bool hasExchange() const { return exchange.has_value(); }
    OutgoingRequest& outgoing() { return exchange->outgoing; }
    // The operation's public name, for the progress figures.
    const char* operationName() const { return options.operation; }
    // The result text for the exchange's reply, written nowhere.
    std::string finish(ReceivedReply& reply);
    // Whatever a body sink took and the call did not store goes now, before
    // the host hears that the call ended.
    void discardUnstored();

    // For the shell and the frame: what the operation keeps until its reply.
    void keep(std::shared_ptr<const Arguments> arguments, std::shared_ptr<Call> call, const ShellOptions& options);
    void defer(OutgoingRequest outgoing, const HttpClasses& classes, ReplyJudge judge);

private:
    struct Exchange {
        OutgoingRequest outgoing;
        HttpClasses classes;
        ReplyJudge judge;
    };

    std::shared_ptr<const Arguments> arguments;
    std::shared_ptr<Call> call;
    ShellOptions options;
    std::optional<Exchange> exchange;
};

} // namespace norva
