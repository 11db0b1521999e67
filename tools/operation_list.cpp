#include "operation_list.h"

#include "norva_api_qt.h"

#include <iterator>

namespace norva::command {

namespace {

using namespace NORVA::NORVA_API_QT;
using namespace NORVA::TAVLIN_KVRAPI_QT;

#define PAGED " which_page data_num_in_each_page"

const OperationEntry operations[] = {
    {"norva_sdk_login", norva_sdk_login, "log in (--save keeps the session)", "ipconfig username password"},
    {"norva_sdk_logout", norva_sdk_logout, "log out (and forget the saved session)", "ipconfig id"},
    {"norva_sdk_update_password", norva_sdk_update_password, "set a password", "ipconfig token userid new_pwd"},
    {"norva_sdk_get_user_info_list", norva_sdk_get_user_info_list, "list users",
     "ipconfig token user_id userName userRealname"},
    {"norva_sdk_get_user_info_list_by_page", norva_sdk_get_user_info_list_by_page, "one page of users",
     "ipconfig token user_id userName userRealname" PAGED},
    {"norva_sdk_upload_file", norva_sdk_upload_file, "upload a file and its record",
     "ipconfig token file_uploadpath data.fileInfo data.errorInfo"},
    {"norva_sdk_upload_file2share", norva_sdk_upload_file2share, "upload a file and share it",
     "ipconfig token file_uploadpath data.fileInfo data.fileInfo.acsTypeId data.fileInfo.acsType data.errorInfo"},
    {"norva_sdk_upload_files", norva_sdk_upload_files, "upload every file directly in a folder",
     "ipconfig token file_uploadpath data"},
    {"norva_sdk_upload_files2share", norva_sdk_upload_files2share, "upload a folder and share its files",
     "ipconfig token file_uploadpath data data.acsTypeId data.acsType"},
    {"norva_sdk_download_binary_file", norva_sdk_download_binary_file, "download a board file into a folder",
     "ipconfig token file_downloadpath data.id data.userId isTimeStamp reName"},
    {"norva_sdk_add2share", norva_sdk_add2share, "share a board", "ipconfig token userid boardid sharewith_id sharetype"},
    {"norva_sdk_add2share_batch", norva_sdk_add2share_batch, "share several boards",
     "ipconfig token data (an array of records with the keys of add2share)"},
    {"norva_sdk_select_share", norva_sdk_select_share, "list shares",
     "ipconfig token currentUserId userid boardname start_time end_time"},
    {"norva_sdk_select_share_by_page", norva_sdk_select_share_by_page, "one page of shares",
     "ipconfig token currentUserId userid boardname start_time end_time" PAGED},
    {"norva_sdk_delete_share", norva_sdk_delete_share, "remove a share", "ipconfig token data.id data.userId"},
    {"norva_sdk_add2favorite", norva_sdk_add2favorite, "mark a favourite", "ipconfig token userid boardid boardname"},
    {"norva_sdk_add2favorite_batch", norva_sdk_add2favorite_batch, "mark several favourites",
     "ipconfig token data (an array of records with the keys of add2favorite)"},
    {"norva_sdk_select_favorite", norva_sdk_select_favorite, "list favourites",
     "ipconfig token userid boardname start_time end_time"},
    {"norva_sdk_select_favorite_by_page", norva_sdk_select_favorite_by_page, "one page of favourites",
     "ipconfig token userid boardname start_time end_time" PAGED},
    {"norva_sdk_delete_favorite", norva_sdk_delete_favorite, "remove a favourite", "ipconfig token data.id data.userId"},
    {"norva_sdk_select_origfiles_manage", norva_sdk_select_origfiles_manage, "list original file records",
     "ipconfig token userid origfilename board_id origfileguid mongofs_id file_suffix company_code "
     "file_update_uerid parent_id type source iserror"},
    {"norva_sdk_select_origfiles_manage_by_page", norva_sdk_select_origfiles_manage_by_page,
     "one page of original file records",
     "ipconfig token userid origfilename board_id origfileguid mongofs_id file_suffix company_code "
     "file_update_uerid parent_id type source iserror" PAGED},
    {"norva_sdk_update_origfiles_manage", norva_sdk_update_origfiles_manage, "change an original file record",
     "ipconfig token origfile_id userid origfilename mongogridfsid origfilesuffix companycode parentid type "
     "source isError"},
    {"norva_sdk_updel_origfiles_manage", norva_sdk_updel_origfiles_manage, "flag an original file as deleted",
     "ipconfig token data.id data.userId"},
    {"norva_sdk_insert_error_library", norva_sdk_insert_error_library, "add an error type",
     "ipconfig token source layer errorMessage"},
    {"norva_sdk_update_error_library", norva_sdk_update_error_library, "change an error type",
     "ipconfig token id source layer errorMessage"},
    {"norva_sdk_delete_error_library", norva_sdk_delete_error_library, "remove an error type", "ipconfig token data.id"},
    {"norva_sdk_select_error_library", norva_sdk_select_error_library, "list error types",
     "ipconfig token id source layer errorMessage"},
    {"norva_sdk_select_error_library_by_page", norva_sdk_select_error_library_by_page, "one page of error types",
     "ipconfig token id source layer errorMessage" PAGED},
    {"norva_sdk_insert_error_msg", norva_sdk_insert_error_msg, "place an error on a board",
     "ipconfig token boardId isReappear reMark gridX gridY source layer priority library_id errorMessage"},
    {"norva_sdk_update_error_msg", norva_sdk_update_error_msg, "change an error message",
     "ipconfig token id boardId isReappear reMark gridX gridY source layer priority library_id errorMessage"},
    {"norva_sdk_delete_error_msg", norva_sdk_delete_error_msg, "remove an error message", "ipconfig token data.id"},
    {"norva_sdk_select_error_msg", norva_sdk_select_error_msg, "list error messages",
     "ipconfig token boardId isReappear reMark gridX gridY source layer priority library_id errorMessage"},
    {"norva_sdk_select_error_msg_by_page", norva_sdk_select_error_msg_by_page, "one page of error messages",
     "ipconfig token boardId isReappear reMark gridX gridY source layer priority library_id errorMessage" PAGED},
    {"norva_tavlin_download_binaryfile", norva_tavlin_download_binaryfile, "download a mall file into a folder",
     "ipconfig file_downloadpath data.id isTimeStamp reName"},
    {"norva_tavlin_select_boardid_by_order_num", norva_tavlin_select_boardid_by_order_num, "the board of an order",
     "ipconfig data.orderNum"},
    {"norva_tavlin_select_order_by_page", norva_tavlin_select_order_by_page, "one page of orders",
     "ipconfig userId boardId orderNum" PAGED},
    {"norva_tavlin_select_orig_file_by_page", norva_tavlin_select_orig_file_by_page, "one page of mall files",
     "ipconfig createUserId" PAGED},
    {"norva_tavlin_get_bid_name_list_by_page", norva_tavlin_get_bid_name_list_by_page,
     "one page of board ids and names", "ipconfig" PAGED},
    {"norva_tavlin_get_all_model_id", norva_tavlin_get_all_model_id, "all planner models", "ipconfig"},
    {"norva_tavlin_get_latest_model_id", norva_tavlin_get_latest_model_id, "the latest planner model", "ipconfig"},
    {"norva_tavlin_get_process_parameters", norva_tavlin_get_process_parameters, "a model's process parameters",
     "ipconfig data.modelId"},
};

#undef PAGED

} // namespace

const OperationEntry* operationsBegin()
{
    return std::begin(operations);
}

const OperationEntry* operationsEnd()
{
    return std::end(operations);
}

const OperationEntry* findOperation(const std::string& name)
{
    for (const OperationEntry& entry : operations) {
        const std::string full = entry.name;
        if (full == name || full == "norva_" + name || full == "norva_sdk_" + name || full == "norva_tavlin_" + name)
            return &entry;
    }
    return nullptr;
}

} // namespace norva::command
