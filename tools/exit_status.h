// SPDX-License-Identifier: MIT
// How a call of the norva command ended, as its exit status says it.
#pragma once

#include "norva_api_qt_progress.h"

#include <QJsonObject>

#include <string>

namespace norva::command {

enum Exit { Success = 0, ServiceSaidNo = 1, Usage = 2, NoReply = 3, TokenRefused = 4, Cancelled = 130 };

// The result's status is 200 or 206.
bool succeeded(const QJsonObject& result);

// The exit status of one call's result document and failure. A call that got
// no reply says why on standard error, as does a refused token; `where`
// (a batch's "line 3: ") goes before it.
Exit exitStatus(const QJsonObject& result, NORVA::NORVA_API_QT::CallFailure failure, const std::string& failureText,
                const std::string& where = std::string());

// Of a batch's statuses, the one it exits with: no reply first, then a
// refused token, then any other failure.
Exit worse(Exit a, Exit b);

} // namespace norva::command
