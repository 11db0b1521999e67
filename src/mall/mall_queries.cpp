// SPDX-License-Identifier: MIT
// Mall orders and mall files. No token: HTTP 402 is an ordinary failure here.
#include "frame/operation.h"

#include "norva_api_qt.h"

using namespace norva;

namespace {

// The POST queries pass "msg" on unchanged and return the request on failure.
OutcomeTable postOutcome(const char* success, const char* failure)
{
    return {
        {200, 200, success, {{"API_msg", From::ReplyMsgOrNull}, {"data", From::ReplyData}}},
        {otherwise, 400, failure, {{"API_msg", From::ReplyMsgOrNull}, {"data", From::SentText}}},
    };
}

constexpr bool withoutEcho = false;

} // namespace

std::string NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_select_boardid_by_order_num(std::string argument)
{
    static const Operation boardOfOrder{
        "/mall/order/selectBrdId",
        Access::Open,
        getQuery(contentType::json, {{"orderNum", "orderNum", Read::Text}}, "data"),
        getQueryOutcome("select board id by order num in mall table success",
                   "select board id by order num in mall table fail"),
        withoutEcho,
    };
    return boardOfOrder.call(std::move(argument));
}

std::string NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_select_order_by_page(std::string argument)
{
    static const Operation ordersByPage{
        "/mall/order/selectOrderByPage",
        Access::Open,
        jsonObject(KeyList{
                       {"userId", "userId", Read::OptionalRaw},
                       {"boardId", "boardId", Read::OptionalRaw},
                       {"orderNum", "orderNum", Read::OptionalRaw},
                   }
                   + pagedRaw()),
        postOutcome("select order table by page success", "select order table by page fail"),
    };
    return ordersByPage.call(std::move(argument));
}

std::string NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_select_orig_file_by_page(std::string argument)
{
    static const Operation filesByPage{
        "/mall/originalFile/selectOdbppOrigfilemanageByPage",
        Access::Open,
        jsonObject(KeyList{{"createuserid", "createUserId", Read::OptionalRaw}} + pagedRaw()),
        postOutcome("select original file manage table by page success",
                    "select original file manage table by page fail"),
        withoutEcho,
    };
    return filesByPage.call(std::move(argument));
}

std::string NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_get_bid_name_list_by_page(std::string argument)
{
    static const Operation boardNamesByPage{
        "/mall/originalFile/getFileName",
        Access::Open,
        getQuery(contentType::formText, pagedIntegers()),
        getQueryOutcome("select board ids and filenames by page success",
                   "select board ids and filenames by page fail"),
        withoutEcho,
    };
    return boardNamesByPage.call(std::move(argument));
}
