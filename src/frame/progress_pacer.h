// SPDX-License-Identifier: MIT
// The figures of one exchange as a host sees them: paced, and never going
// backwards. Whatever reports them (a thread's observer, a reply's signal)
// gets the same reports.
#pragma once

#include "norva_api_qt_progress.h"

#include <QElapsedTimer>
#include <QTimer>

#include <functional>

namespace norva {

class ProgressPacer
{
public:
    using Report = std::function<void(const NORVA::NORVA_API_QT::CallProgress& progress)>;

    // `bytesToSend` is the body's size when known before sending, else -1.
    ProgressPacer(const char* operation, qint64 bytesToSend, Report report);
    ProgressPacer(const ProgressPacer&) = delete;
    ProgressPacer& operator=(const ProgressPacer&) = delete;

    // Request body bytes handed to the connection so far, of `total` (0 when
    // not known). A report that would take a figure back is no news: Qt
    // reports (0, 0) once more when an exchange ends, also one that sent
    // nothing, and starts from 0 again when it sends a request anew.
    void sent(qint64 done, qint64 total);
    // Reply body bytes received so far, and the length the reply announced
    // (-1 for none). Counted by the exchange itself as the bytes arrive: Qt
    // passes on at most one progress signal in 100 ms and drops the others.
    void received(qint64 done, qint64 announced);
    // The exchange is over: the last figures are reported now.
    void finish();

private:
    void schedule();
    void notify();

    const Report report;
    NORVA::NORVA_API_QT::CallProgress progress;
    bool changed = false;
    QElapsedTimer sinceReport;
    // Holds a report back until its interval is up, and then sends it with the
    // figures of that moment, whether or not anything is reported meanwhile.
    QTimer held;
};

} // namespace norva
