// SPDX-License-Identifier: MIT
// Why an exchange got no reply: the cause a host can act on, and a line that
// says it, kept per thread for the blocking functions.
#pragma once

#include "frame/exchange.h"
#include "norva_api_qt_progress.h"

#include <QString>
#include <QUrl>

namespace norva {

struct FailureReport {
    NORVA::NORVA_API_QT::CallFailure cause = NORVA::NORVA_API_QT::CallFailure::None;
    QString text; // empty for None
};

// What ended the exchange of `url` that gave `reply`; None once a status came.
FailureReport describeFailure(const ReceivedReply& reply, const QUrl& url);

// This thread's last blocking call (lastCallFailure()).
void noteLastFailure(FailureReport report);

} // namespace norva
