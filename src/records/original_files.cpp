// SPDX-License-Identifier: MIT
// Original file records: listing with a twelve-key filter, changing fields, and
// setting the delete flag.
#include "frame/operation.h"

#include "norva_api_qt.h"

using namespace norva;

namespace {

// Most argument keys differ from the service's; "file_update_uerid" is spelled so.
KeyList originalFileFilter()
{
    return {
        {"createuserid", "userid", Read::OptionalRaw},
        {"origfilename", "origfilename", Read::OptionalRaw},
        {"id", "board_id", Read::OptionalRaw},
        {"origfileguid", "origfileguid", Read::OptionalRaw},
        {"mongogridfsid", "mongofs_id", Read::OptionalRaw},
        {"origfilesuffix", "file_suffix", Read::OptionalRaw},
        {"zkcompanycode", "company_code", Read::OptionalRaw},
        {"fileupdateuserid", "file_update_uerid", Read::OptionalRaw},
        {"parentid", "parent_id", Read::OptionalRaw},
        {"type", "type", Read::OptionalRaw},
        {"source", "source", Read::OptionalRaw},
        {"isError", "iserror", Read::OptionalRaw},
    };
}

} // namespace

std::string NORVA::NORVA_API_QT::norva_sdk_select_origfiles_manage(std::string argument)
{
    static const Operation select{
        "/kvr/originalFile/selectOdbppOrigfilemanage",
        Access::Token,
        jsonObject(originalFileFilter()),
        selectOutcome("select origfile manage table success", "select origfile manage table fail"),
    };
    return select.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_select_origfiles_manage_by_page(std::string argument)
{
    static const Operation selectByPage{
        "/kvr/originalFile/selectOdbppOrigfilemanageByPage",
        Access::Token,
        jsonObject(originalFileFilter() + pagedRaw()),
        selectOutcome("select origfile manage table by page success",
                      "select origfile manage table by page fail"),
    };
    return selectByPage.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_update_origfiles_manage(std::string argument)
{
    // "userid" goes out twice: as the file's and as the record's updater.
    static const Operation update{
        "/kvr/originalFile/updateOdbppOrigfilemanage",
        Access::Token,
        jsonObject({
            {"id", "origfile_id", Read::Raw},
            {"fileupdateuserid", "userid", Read::Raw},
            {"updateuserid", "userid", Read::Raw},
            {"origfilename", "origfilename", Read::OptionalRaw},
            {"mongogridfsid", "mongogridfsid", Read::OptionalRaw},
            {"origfilesuffix", "origfilesuffix", Read::OptionalRaw},
            {"zkcompanycode", "companycode", Read::OptionalRaw},
            {"parentid", "parentid", Read::OptionalRaw},
            {"type", "type", Read::OptionalRaw},
            {"source", "source", Read::OptionalRaw},
            {"isError", "isError", Read::OptionalRaw},
        }),
        selectOutcome("update origfile manage table success", "update origfile manage table fail"),
    };
    return update.call(std::move(argument));
}

std::string NORVA::NORVA_API_QT::norva_sdk_updel_origfiles_manage(std::string argument)
{
    static const std::vector<ResultKey> replyKeys{{"data", From::ReplyDataOrNull},
                                                  {"msg", From::ReplyMsgOrNull}};
    static const Operation setDeleteFlag{
        "/kvr/originalFile/deleteOrigfile",
        Access::Token,
        formText("data", {{"id", "id", Read::Integer}, {"userId", "userId", Read::Integer}}),
        {
            {200, 200, "update delflag of this origfile manage table record success", replyKeys},
            {otherwise, 400, "update delflag of this origfile manage table record fail", replyKeys},
        },
    };
    return setDeleteFlag.call(std::move(argument));
}
