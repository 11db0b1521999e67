// SPDX-License-Identifier: MIT
// Listing users, whole or by page. A filter left out goes to the service as null.
#include "frame/operation.h"

#include "norva_api_qt.h"

using namespace norva;

namespace {

KeyList userFilter()
{
    return {
        {"id", "user_id", Read::OptionalRaw},
        {"userName", "userName", Read::OptionalRaw},
        {"userRealname", "userRealname", Read::OptionalRaw},
    };
}

} // namespace

std::string NORVA::NORVA_API_QT::norva_sdk_get_user_info_list(std::string argument)
{
    static const Operation selectUsers{
        "/kvr/authority/selectUser",
        Access::Token,
        jsonObject(userFilter()),
        plainOutcome("user table info search success", "user table info search fail"),
    };
    return selectUsers.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_get_user_info_list_by_page(std::string argument)
{
    static const Operation selectUsersByPage{
        "/kvr/authority/selectUserByPage",
        Access::Token,
        jsonObject(userFilter() + pagedRaw()),
        plainOutcome("user table info by page search success", "user table info by page search fail"),
    };
    return selectUsersByPage.call(std::move(argument));
}
