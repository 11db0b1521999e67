// SPDX-License-Identifier: MIT
// The error library: the service's table of error types. The insert sends only
// the fields given; the update and the selects send every field, null when absent.
#include "frame/operation.h"

#include "norva_api_qt.h"

using namespace norva;

namespace {

KeyList entryFields(Read mode)
{
    return {
        {"source", "source", mode},
        {"layer", "layer", mode},
        {"errorMessage", "errorMessage", mode},
    };
}

} // namespace

std::string NORVA::NORVA_API_QT::norva_sdk_insert_error_library(std::string argument)
{
    static const Operation insert{
        "/kvr/errorLibrary/insertErrorLibrary",
        Access::Token,
        jsonObject(entryFields(Read::Raw)),
        plainOutcome("insert error library table success", "insert error library table fail"),
    };
    return insert.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_update_error_library(std::string argument)
{
    static const Operation update{
        "/kvr/errorLibrary/updateErrorLibrary",
        Access::Token,
        jsonObject(KeyList{{"id", "id", Read::Raw}} + entryFields(Read::OptionalRaw)),
        plainOutcome("update error library table success", "update error library table fail"),
    };
    return update.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_delete_error_library(std::string argument)
{
    static const Operation remove{
        "/kvr/errorLibrary/deleteErrorLibrary",
        Access::Token,
        formText("data", {{"id", "id", Read::Integer}}),
        deleteOutcome("real delete error library table success", "real delete error library table fail"),
    };
    return remove.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_select_error_library(std::string argument)
{
    static const Operation select{
        "/kvr/errorLibrary/selectErrorLibrary",
        Access::Token,
        jsonObject(KeyList{{"id", "id", Read::OptionalRaw}} + entryFields(Read::OptionalRaw)),
        selectOutcome("select error library table success", "select error library table fail"),
    };
    return select.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_select_error_library_by_page(std::string argument)
{
    static const Operation selectByPage{
        "/kvr/errorLibrary/selectErrorLibraryByPage",
        Access::Token,
        jsonObject(KeyList{{"id", "id", Read::OptionalRaw}} + entryFields(Read::OptionalRaw) + pagedRaw()),
        selectOutcome("select error library table by page success", "select error library table by page fail"),
    };
    return selectByPage.call(std::move(argument));
}
