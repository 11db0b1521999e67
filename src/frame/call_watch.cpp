#include "frame/call_watch.h"

#include <QNetworkReply>

namespace norva {

namespace {

// Often enough for a progress bar to move smoothly, rarely enough that a GUI
// repainting on each report does not slow a fast transfer down.
constexpr qint64 reportIntervalMs = 33;

constexpr int defaultIdleLimitMs = 120 * 1000;

struct ThreadState {
    NORVA::NORVA_API_QT::ProgressObserver observer;
    int idleLimitMs = defaultIdleLimitMs;
    const char* operation = "";
    ExchangeWatch* innermost = nullptr;
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

ExchangeWatch::ExchangeWatch(QNetworkReply& reply, qint64 bytesToSend)
    : reply(reply), outer(thisThread().innermost)
{
    ThreadState& state = thisThread();
    state.innermost = this;
    if (!state.observer)
        return;
    observer = state.observer;
    progress = {state.operation, 0, bytesToSend, 0, -1};
    heldReport.emplace();
    heldReport->setSingleShot(true);
    QObject::connect(&*heldReport, &QTimer::timeout, &*heldReport, [this] { notify(); });
    QObject::connect(&reply, &QNetworkReply::uploadProgress, &*heldReport,
                     [this](qint64 done, qint64 total) { sent(done, total); });
    QObject::connect(&reply, &QNetworkReply::downloadProgress, &*heldReport,
                     [this](qint64 done, qint64 total) { received(done, total); });
}

ExchangeWatch::~ExchangeWatch()
{
    if (onStack)
        thisThread().innermost = outer;
}

void ExchangeWatch::finish()
{
    thisThread().innermost = outer;
    onStack = false;
    if (!observer)
        return;
    heldReport->stop();
    QObject::disconnect(&reply, nullptr, &*heldReport, nullptr);
    notify();
}

bool ExchangeWatch::cancelInnermost()
{
    ExchangeWatch* const watch = thisThread().innermost;
    if (!watch || watch->cancelRequested)
        return false;
    watch->cancelRequested = true;
    watch->reply.abort();
    return true;
}

void ExchangeWatch::sent(qint64 done, qint64 total)
{
    // Qt reports (0, 0) once more when the reply finishes; that is no news.
    if (done == 0 && total == 0 && progress.bytesSent > 0)
        return;
    progress.bytesSent = done;
    progress.bytesToSend = total;
    report();
}

void ExchangeWatch::received(qint64 done, qint64 total)
{
    progress.bytesReceived = done;
    progress.bytesToReceive = total;
    report();
}

// Reports at once when the last report is old enough, else once the interval
// is up, with the figures of that moment: every progress shows, but a burst of
// small steps becomes one report.
void ExchangeWatch::report()
{
    if (heldReport->isActive())
        return;
    const qint64 since = sinceReport.isValid() ? sinceReport.elapsed() : reportIntervalMs;
    if (since >= reportIntervalMs)
        notify();
    else
        heldReport->start(int(reportIntervalMs - since));
}

void ExchangeWatch::notify()
{
    sinceReport.start();
    try {
        observer(progress);
    } catch (...) {
        // An observer's failure is not the call's: the call goes on.
    }
}

int idleLimitMs()
{
    return thisThread().idleLimitMs;
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

} // namespace NORVA::NORVA_API_QT
