// SPDX-License-Identifier: MIT
#include "frame/progress_pacer.h"

#include <algorithm>

namespace norva {

namespace {

// Often enough for a progress bar to move smoothly, rarely enough that a GUI
// repainting on each report does not slow a fast transfer down.
constexpr qint64 reportIntervalMs = 33;

} // namespace

ProgressPacer::ProgressPacer(const char* operation, qint64 bytesToSend, Report report)
    : report(std::move(report)), progress{operation, 0, bytesToSend, 0, -1}
{
    held.setSingleShot(true);
    QObject::connect(&held, &QTimer::timeout, &held, [this] { notify(); });
}

void ProgressPacer::sent(qint64 done, qint64 total)
{
    if (total > 0 && progress.bytesToSend != total) {
        progress.bytesToSend = total;
        changed = true;
    }
    if (done > progress.bytesSent) {
        progress.bytesSent = done;
        changed = true;
    }
    schedule();
}

void ProgressPacer::received(qint64 done, qint64 announced)
{
    if (announced >= 0 && progress.bytesToReceive != announced) {
        progress.bytesToReceive = announced;
        changed = true;
    }
    if (done > progress.bytesReceived) {
        progress.bytesReceived = done;
        changed = true;
    }
    schedule();
}

void ProgressPacer::finish()
{
    held.stop();
    notify();
}

// Reports at once when the last report is old enough, else once the interval
// is up: every progress shows, but a burst of small steps becomes one report.
void ProgressPacer::schedule()
{
    if (!changed || held.isActive())
        return;
    const qint64 since = sinceReport.isValid() ? sinceReport.elapsed() : reportIntervalMs;
    if (since >= reportIntervalMs)
        notify();
    else
        held.start(int(reportIntervalMs - since));
}

void ProgressPacer::notify()
{
    sinceReport.start();
    changed = false;
    try {
        report(progress);
    } catch (...) {
        // A reporter's failure is not the call's: the call goes on.
    }
}

} // namespace norva
