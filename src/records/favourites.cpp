// SPDX-License-Identifier: MIT
// Favourite records: a user marks a board. The exported names say "favorite",
// the service's paths "favourite".
#include "frame/operation.h"

#include "norva_api_qt.h"

using namespace norva;

namespace {

KeyList favouriteRecord()
{
    return {
        {"userId", "userid", Read::Integer},
        {"boardId", "boardid", Read::Integer},
        {"boardName", "boardname", Read::Raw},
    };
}

KeyList favouriteFilter()
{
    return {
        {"userId", "userid", Read::OptionalRaw},
        {"boardName", "boardname", Read::OptionalRaw},
        {"startTime", "start_time", Read::OptionalRaw},
        {"endTime", "end_time", Read::OptionalRaw},
    };
}

} // namespace

std::string NORVA::NORVA_API_QT::norva_sdk_add2favorite(std::string argument)
{
    static const Operation add{
        "/kvr/favourite/insertFavourite",
        Access::Token,
        jsonObject(favouriteRecord()),
        {
            {200, 200, "add 2 favorite table success", {}},
            {otherwise, 400, "add 2 favorite table fail",
             {{"API_msg", From::ReplyMsgOrEmpty}, {"data", From::SentText}}},
        },
    };
    return add.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_add2favorite_batch(std::string argument)
{
    static const Operation addBatch{
        "/kvr/favourite/insertMultipleFavourite",
        Access::Token,
        jsonArrayOfRecords("data", favouriteRecord()),
        {
            {200, 200, "batch add 2 favorite table success", {}},
            {206, 206, "batch add 2 favorite table partly success",
             {{"API_msg", From::ReplyMsgOrNull}, {"Repeted_BoardIds", From::ReplyDataOrNull}}},
            {otherwise, 400, "batch add 2 favorite table fail",
             {{"API_msg", From::ReplyMsgOrNull}, {"data", From::SentText}}},
        },
    };
    return addBatch.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_select_favorite(std::string argument)
{
    static const Operation select{
        "/kvr/favourite/selectFavourite",
        Access::Token,
        jsonObject(favouriteFilter()),
        selectOutcome("select favorite table success", "select favorite table fail"),
    };
    return select.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_select_favorite_by_page(std::string argument)
{
    static const Operation selectByPage{
        "/kvr/favourite/selectFavouriteByPage",
        Access::Token,
        jsonObject(favouriteFilter() + pagedRaw()),
        selectOutcome("select favorite table by page success", "select favorite table by page fail"),
    };
    return selectByPage.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_delete_favorite(std::string argument)
{
    static const Operation remove{
        "/kvr/favourite/deleteFavourite",
        Access::Token,
        formText("data", {{"id", "id", Read::Integer}, {"userId", "userId", Read::Integer}}),
        deleteOutcome("real delete favorite table success", "real delete favorite table fail"),
    };
    return remove.call(std::move(argument));
}
