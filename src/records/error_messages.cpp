// SPDX-License-Identifier: MIT
// Error messages placed on boards. Three argument keys are renamed on the way:
// boardId -> brdId, reMark -> remark, library_id -> libraryId. The selects have
// no id filter.
#include "frame/operation.h"

#include "norva_api_qt.h"

using namespace norva;

namespace {

KeyList messageFields(Read mode)
{
    return {
        {"brdId", "boardId", mode},
        {"isReappear", "isReappear", mode},
        {"remark", "reMark", mode},
        {"gridX", "gridX", mode},
        {"gridY", "gridY", mode},
        {"source", "source", mode},
        {"layer", "layer", mode},
        {"priority", "priority", mode},
        {"libraryId", "library_id", mode},
        {"errorMessage", "errorMessage", mode},
    };
}

} // namespace

std::string NORVA::NORVA_API_QT::norva_sdk_insert_error_msg(std::string argument)
{
    static const Operation insert{
        "/kvr/errorMessage/insertErrorMessage",
        Access::Token,
        jsonObject(messageFields(Read::Raw)),
        plainOutcome("insert error msg table success", "insert error msg table fail"),
    };
    return insert.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_update_error_msg(std::string argument)
{
    static const Operation update{
        "/kvr/errorMessage/updateErrorMessage",
        Access::Token,
        jsonObject(KeyList{{"id", "id", Read::Raw}} + messageFields(Read::OptionalRaw)),
        plainOutcome("update error msg table success", "update error msg table fail"),
    };
    return update.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_delete_error_msg(std::string argument)
{
    static const Operation remove{
        "/kvr/errorMessage/deleteErrorMessage",
        Access::Token,
        formText("data", {{"id", "id", Read::Integer}}),
        deleteOutcome("real delete error msg table success", "real delete error msg table fail"),
    };
    return remove.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_select_error_msg(std::string argument)
{
    static const Operation select{
        "/kvr/errorMessage/selectErrorMessage",
        Access::Token,
        jsonObject(messageFields(Read::OptionalRaw)),
        selectOutcome("select error msg table success", "select error msg table fail"),
    };
    return select.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_select_error_msg_by_page(std::string argument)
{
    static const Operation selectByPage{
        "/kvr/errorMessage/selectErrorMessageByPage",
        Access::Token,
        jsonObject(messageFields(Read::OptionalRaw) + pagedRaw()),
        selectOutcome("select error msg table by page success", "select error msg table by page fail"),
    };
    return selectByPage.call(std::move(argument));
}
