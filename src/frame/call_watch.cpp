// SPDX-License-Identifier: MIT
#include "frame/call_watch.h"

namespace norva {

namespace {

constexpr int defaultIdleLimitMs = 120 * 1000;

struct ThreadState {
    NORVA::NORVA_API_QT::ProgressObserver observer;
    int idleLimitMs = defaultIdleLimitMs;
    const char* operation = "";
    ExchangeWatch* innermost = nullptr;
    NORVA::NORVA_API_QT::HeadObserver heads;
};

ThreadState& thisThread()
{
    thread_local ThreadState state;
    return state;
}

} // namespace

OperationScope::OperationScope(const char* name) : outer(thisThread().operation)
{
    thisThread().operation = name;
}

OperationScope::~OperationScope()
{
    thisThread().operation = outer;
}

ExchangeWatch::ExchangeWatch(std::function<void()> abort, qint64 bytesToSend)
    : abort(std::move(abort)), outer(thisThread().innermost)
{
    ThreadState& state = thisThread();
    state.innermost = this;
    if (state.observer)
        pacer.emplace(state.operation, bytesToSend, state.observer);
}

ExchangeWatch::~ExchangeWatch()
{
    if (onStack)
        thisThread().innermost = outer;
}

bool ExchangeWatch::observed()
{
    return bool(thisThread().observer);
}

void ExchangeWatch::sent(qint64 done, qint64 total)
{
    if (pacer)
        pacer->sent(done, total);
}

void ExchangeWatch::received(qint64 done, qint64 announced)
{
    if (pacer)
        pacer->received(done, announced);
}

void ExchangeWatch::finish()
{
    thisThread().innermost = outer;
    onStack = false;
    if (pacer)
        pacer->finish();
}

bool ExchangeWatch::cancelInnermost()
{
    ExchangeWatch* const watch = thisThread().innermost;
    if (!watch || watch->cancelRequested)
        return false;
    watch->cancelRequested = true;
    watch->abort();
    return true;
}

int idleLimitMs()
{
    return thisThread().idleLimitMs;
}

bool headsObserved()
{
    return bool(thisThread().heads);
}

void reportHead(const QByteArray& head, bool isRequest)
{
    // A copy: the observer may replace itself.
    const NORVA::NORVA_API_QT::HeadObserver observer = thisThread().heads;
    if (observer && !head.isEmpty())
        observer(head.toStdString(), isRequest);
}

} // namespace norva

namespace NORVA::NORVA_API_QT {

void setProgressObserver(ProgressObserver observer)
{
    norva::thisThread().observer = std::move(observer);
}

void clearProgressObserver()
{
    norva::thisThread().observer = nullptr;
}

bool cancelCall()
{
    return norva::ExchangeWatch::cancelInnermost();
}

void setIdleLimit(int milliseconds)
{
    norva::thisThread().idleLimitMs = qMax(1, milliseconds);
}

int idleLimit()
{
    return norva::thisThread().idleLimitMs;
}

void setHeadObserver(HeadObserver observer)
{
    norva::thisThread().heads = std::move(observer);
}

void clearHeadObserver()
{
    norva::thisThread().heads = nullptr;
}

} // namespace NORVA::NORVA_API_QT
