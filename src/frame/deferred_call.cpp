// SPDX-License-Identifier: MIT
#include "frame/deferred_call.h"

#include "frame/operation.h"

namespace norva {

namespace {

thread_local DeferredCall* capturing = nullptr;

} // namespace

DeferredCall::Capture::Capture(DeferredCall& call) : outer(capturing)
{
    capturing = &call;
}

DeferredCall::Capture::~Capture()
{
    capturing = outer;
}

DeferredCall* DeferredCall::current()
{
    return capturing;
}

void DeferredCall::keep(std::shared_ptr<const Arguments> keptArguments, std::shared_ptr<Call> keptCall,
                        const ShellOptions& keptOptions)
{
    arguments = std::move(keptArguments);
    call = std::move(keptCall);
    options = keptOptions;
}

void DeferredCall::defer(OutgoingRequest outgoing, const HttpClasses& classes, ReplyJudge judge)
{
    exchange.emplace(Exchange{std::move(outgoing), classes, std::move(judge)});
}

std::string DeferredCall::finish(ReceivedReply& reply)
{
    reply.sentText = &exchange->outgoing.sentText;
    const ConsoleSilence quiet;
    return guardedResult(options, [&] { return compactText(judgeExchange(reply, exchange->classes, exchange->judge)); });
}

void DeferredCall::discardUnstored()
{
    if (exchange && exchange->outgoing.bodySink)
        exchange->outgoing.bodySink->discard();
}

} // namespace norva
