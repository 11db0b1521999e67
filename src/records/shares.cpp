// SPDX-License-Identifier: MIT
// Share records: a user shares a board with a party in some way.
#include "frame/operation.h"

#include "norva_api_qt.h"

using namespace norva;

namespace {

KeyList shareRecord()
{
    return {
        {"userId", "userid", Read::Integer},
        {"brdId", "boardid", Read::Integer},
        {"acsTypeId", "sharewith_id", Read::Integer},
        {"acsType", "sharetype", Read::Integer},
    };
}

KeyList shareFilter()
{
    return {
        {"userId", "userid", Read::OptionalRaw},
        {"brdName", "boardname", Read::OptionalRaw},
        {"currentUserId", "currentUserId", Read::Integer},
        {"startTime", "start_time", Read::OptionalRaw},
        {"endTime", "end_time", Read::OptionalRaw},
    };
}

} // namespace

std::string NORVA::NORVA_API_QT::norva_sdk_add2share(std::string argument)
{
    static const Operation add{
        "/kvr/share/insertShare",
        Access::Token,
        jsonObject(shareRecord()),
        {
            {200, 200, "add to share table success", {}},
            {otherwise, 400, "add to share table fail",
             {{"error_msg", From::ReplyMsgOrEmpty}, {"data", From::SentText}}},
        },
    };
    return add.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_add2share_batch(std::string argument)
{
    static const Operation addBatch{
        "/kvr/share/insertMultipleShare",
        Access::Token,
        jsonArrayOfRecords("data", shareRecord()),
        {
            {200, 200, "batch insert to share table success", {}},
            {206, 206, "batch insert to share table partly success",
             {{"error_msg", From::ReplyMsgOrNull}, {"Repeated_share_boardIds", From::ReplyDataOrNull}}},
            {otherwise, 400, "batch insert to share table fail",
             {{"error_msg", From::ReplyMsgOrNull}, {"data", From::SentText}}},
        },
    };
    return addBatch.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_select_share(std::string argument)
{
    static const Operation select{
        "/kvr/share/selectShare",
        Access::Token,
        jsonObject(shareFilter()),
        selectOutcome("select share table success", "select share table fail"),
    };
    return select.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_select_share_by_page(std::string argument)
{
    static const Operation selectByPage{
        "/kvr/share/selectShareByPage",
        Access::Token,
        jsonObject(shareFilter() + pagedIntegers()),
        selectOutcome("select share table by page success", "select share table by page fail"),
    };
    return selectByPage.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_delete_share(std::string argument)
{
    static const Operation remove{
        "/kvr/share/deleteShare",
        Access::Token,
        formText("data", {{"id", "id", Read::Integer}, {"userId", "userId", Read::Integer}}),
        deleteOutcome("real delete share table success", "real delete share table fail"),
    };
    return remove.call(std::move(argument));
}
