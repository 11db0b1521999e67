// SPDX-License-Identifier: MIT
#include "accounts/login.h"

#include "norva_api_qt.h"

namespace norva::accounts {

const Operation& loginOperation()
{
    // 410 and 411 hand back what was sent (so the caller sees which name and
    // password were refused); 412 and the rest carry the service's own words.
    static const std::vector<ResultKey> refusal{{"Error_info", From::ReplyMsgOrNull},
                                                {"data", From::ReplyData}};
    static const Operation login{
        "/kvr/authority/login",
        Access::Open,
        jsonObject({{"userName", "username", Read::Raw}, {"userPwd", "password", Read::Raw}}),
        {
            {200, 200, "login success", {{"data", From::ReplyData}}},
            {410, 410, "User does not exist", {{"data", From::SentText}}},
            {411, 411, "Wrong password", {{"data", From::SentText}}},
            {412, 412, "login fail", refusal},
            {otherwise, 400, "login fail", refusal},
        },
    };
    return login;
}

} // namespace norva::accounts

std::string NORVA::NORVA_API_QT::norva_sdk_login(std::string argument)
{
    return norva::accounts::loginOperation().call(std::move(argument));
}
