// SPDX-License-Identifier: MIT
// What a host can see of a call while it waits, and how it stops one: the
// calling thread's progress observer, its idle limit, and its stack of
// exchanges under way (the innermost one is what cancelCall() ends).
#pragma once

#include "frame/progress_pacer.h"
#include "norva_api_qt_progress.h"

#include <functional>
#include <optional>

namespace norva {

// Names the operation that runs on this thread for as long as it lives, so
// that the observer can be told which one it hears of. Calls nest.
class OperationScope
{
public:
    explicit OperationScope(const char* name);
    ~OperationScope();
    OperationScope(const OperationScope&) = delete;
    OperationScope& operator=(const OperationScope&) = delete;

private:
    const char* const outer;
};

// One exchange under way on the calling thread, from the moment its request
// goes out until the wait is over.
class ExchangeWatch
{
public:
    // `abort` ends the exchange at once. `bytesToSend` is the body's size when
    // known before sending, else -1.
    ExchangeWatch(std::function<void()> abort, qint64 bytesToSend);
    ~ExchangeWatch();
    ExchangeWatch(const ExchangeWatch&) = delete;
    ExchangeWatch& operator=(const ExchangeWatch&) = delete;

    // Whether the thread's observer hears of this exchange.
    static bool observed();
    // What the exchange has moved so far; see ProgressPacer.
    void sent(qint64 done, qint64 total);
    void received(qint64 done, qint64 announced);

    // The wait is over: the exchange leaves the stack (a cancel now reaches the
    // call around it, if any), and the observer hears the last figures.
    void finish();
    bool cancelled() const { return cancelRequested; }

    // Ends the innermost exchange of this thread; false when there is none.
    static bool cancelInnermost();

private:
    const std::function<void()> abort;
    ExchangeWatch* const outer;
    bool onStack = true;
    bool cancelRequested = false;
    // Only when the thread has an observer, which it reports to (a copy: an
    // observer may replace itself).
    std::optional<ProgressPacer> pacer;
};

// The calling thread's idle limit in milliseconds.
int idleLimitMs();

// Whether the calling thread has a head observer, and what it hears.
bool headsObserved();
void reportHead(const QByteArray& head, bool isRequest);

} // namespace norva
