// SPDX-License-Identifier: MIT
// Logging out and changing the password.
#include "frame/operation.h"

#include "norva_api_qt.h"

using namespace norva;

std::string NORVA::NORVA_API_QT::norva_sdk_logout(std::string argument)
{
    static const Operation logout{
        "/kvr/authority/logOut",
        Access::Open,
        jsonObject({{"id", "id", Read::Integer}}),
        {
            {200, 200, "log out success", {{"data", From::ReplyData}}},
            {otherwise, 400, "log out fail",
             {{"error_msg", From::ReplyMsgOrNull}, {"logoutdata", From::ReplyData}}},
        },
    };
    return logout.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_update_password(std::string argument)
{
    static const Operation updatePassword{
        "/kvr/authority/updateUser",
        Access::Token,
        jsonObject({{"id", "userid", Read::Integer}, {"userPwd", "new_pwd", Read::Text}}),
        plainOutcome("update pwd success", "update pwd fail"),
    };
    return updatePassword.call(std::move(argument));
}
