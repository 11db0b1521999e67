// SPDX-License-Identifier: MIT
#include "exit_status.h"

#include <cstdio>

namespace norva::command {

using NORVA::NORVA_API_QT::CallFailure;

bool succeeded(const QJsonObject& result)
{
    const int status = result.value(QStringLiteral("status")).toInt();
    return status == 200 || status == 206;
}

Exit exitStatus(const QJsonObject& result, CallFailure failure, const std::string& failureText, const std::string& where)
{
    if (failure == CallFailure::Cancelled)
        return Cancelled;
    const bool noReply = failure != CallFailure::None && failure != CallFailure::UnknownOperation
                         && failure != CallFailure::WrongThread;
    if (noReply) {
        std::fprintf(stderr, "norva: %s%s\n", where.c_str(), failureText.c_str());
        return NoReply;
    }
    if (succeeded(result))
        return Success;
    if (result.value(QStringLiteral("status")).toInt() == 402) {
        std::fprintf(stderr, "norva: %sthe token expired or was refused (402): log in again\n", where.c_str());
        return TokenRefused;
    }
    return ServiceSaidNo;
}

Exit worse(Exit a, Exit b)
{
    for (const Exit first : {Usage, NoReply, TokenRefused, Cancelled, ServiceSaidNo}) {
        if (a == first || b == first)
            return first;
    }
    return Success;
}

} // namespace norva::command
