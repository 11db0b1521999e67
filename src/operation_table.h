// SPDX-License-Identifier: MIT
// Every free operation of the library, once: its name, its function (whose
// namespace its prefix says), a summary, the argument keys it reads, and the
// key that names the calling user. The library's lookup by name (the
// asynchronous face) and the norva command (--list, OP --help, the key check,
// the session's user id, shell completion) all read this one table.
#pragma once

#include "norva_api_qt.h"

#include <string>

namespace norva {

struct OperationInfo {
    const char* name;
    std::string (*function)(std::string);
    const char* summary;
    // The argument keys, blank-separated, in the order the operation reads
    // them: "data.id" is "id" inside the object "data". A key whose inner
    // keys are not listed ("data" of a batch) takes any object or array.
    const char* keys;
    // The key that names the calling user, where a command may fill in the
    // logged-in user's id; empty where none does (a filter is no such key).
    const char* userKey;
};

// In the order of the public header. (Not constexpr: on Windows the address
// of a function from a DLL is only known once the DLL is loaded.)
inline const OperationInfo operationTable[] = {
    {"norva_sdk_login", NORVA::NORVA_API_QT::norva_sdk_login,
     "log in (--save keeps the session)",
     "ipconfig username password",
     ""},
    {"norva_sdk_logout", NORVA::NORVA_API_QT::norva_sdk_logout,
     "log out (and forget the saved session)",
     "ipconfig id",
     "id"},
    {"norva_sdk_update_password", NORVA::NORVA_API_QT::norva_sdk_update_password,
     "set a password",
     "ipconfig token userid new_pwd",
     "userid"},
    {"norva_sdk_get_user_info_list", NORVA::NORVA_API_QT::norva_sdk_get_user_info_list,
     "list users",
     "ipconfig token user_id userName userRealname",
     ""},
    {"norva_sdk_get_user_info_list_by_page", NORVA::NORVA_API_QT::norva_sdk_get_user_info_list_by_page,
     "one page of users",
     "ipconfig token user_id userName userRealname which_page data_num_in_each_page",
     ""},
    {"norva_sdk_upload_file", NORVA::NORVA_API_QT::norva_sdk_upload_file,
     "upload a file and its record",
     "ipconfig token file_uploadpath data.fileInfo.zkcompanycode "
         "data.fileInfo.createuserid data.fileInfo.parentid data.fileInfo.type "
         "data.fileInfo.source data.fileInfo.isError data.errorInfo.source "
         "data.errorInfo.isReappear data.errorInfo.remark data.errorInfo.gridX "
         "data.errorInfo.gridY data.errorInfo.priority data.errorInfo.layer "
         "data.errorInfo.libraryId data.errorInfo.errorMessage",
     "data.fileInfo.createuserid"},
    {"norva_sdk_upload_file2share", NORVA::NORVA_API_QT::norva_sdk_upload_file2share,
     "upload a file and share it",
     "ipconfig token file_uploadpath data.fileInfo.zkcompanycode "
         "data.fileInfo.createuserid data.fileInfo.parentid data.fileInfo.type "
         "data.fileInfo.source data.fileInfo.isError data.fileInfo.acsTypeId "
         "data.fileInfo.acsType data.errorInfo.source data.errorInfo.isReappear "
         "data.errorInfo.remark data.errorInfo.gridX data.errorInfo.gridY "
         "data.errorInfo.priority data.errorInfo.layer data.errorInfo.libraryId "
         "data.errorInfo.errorMessage",
     "data.fileInfo.createuserid"},
    {"norva_sdk_upload_files", NORVA::NORVA_API_QT::norva_sdk_upload_files,
     "upload every file directly in a folder",
     "ipconfig token file_uploadpath data.zkcompanycode data.createuserid "
         "data.parentid data.type data.source",
     "data.createuserid"},
    {"norva_sdk_upload_files2share", NORVA::NORVA_API_QT::norva_sdk_upload_files2share,
     "upload a folder and share its files",
     "ipconfig token file_uploadpath data.zkcompanycode data.createuserid "
         "data.parentid data.type data.source data.acsTypeId data.acsType",
     "data.createuserid"},
    {"norva_sdk_download_binary_file", NORVA::NORVA_API_QT::norva_sdk_download_binary_file,
     "download a board file into a folder",
     "ipconfig token file_downloadpath data.id data.userId isTimeStamp reName",
     "data.userId"},
    {"norva_sdk_add2share", NORVA::NORVA_API_QT::norva_sdk_add2share,
     "share a board",
     "ipconfig token userid boardid sharewith_id sharetype",
     "userid"},
    {"norva_sdk_add2share_batch", NORVA::NORVA_API_QT::norva_sdk_add2share_batch,
     "share several boards; data: an array of records with the keys of add2share",
     "ipconfig token data",
     ""},
    {"norva_sdk_select_share", NORVA::NORVA_API_QT::norva_sdk_select_share,
     "list shares",
     "ipconfig token currentUserId userid boardname start_time end_time",
     "currentUserId"},
    {"norva_sdk_select_share_by_page", NORVA::NORVA_API_QT::norva_sdk_select_share_by_page,
     "one page of shares",
     "ipconfig token currentUserId userid boardname start_time end_time which_page "
         "data_num_in_each_page",
     "currentUserId"},
    {"norva_sdk_delete_share", NORVA::NORVA_API_QT::norva_sdk_delete_share,
     "remove a share",
     "ipconfig token data.id data.userId",
     "data.userId"},
    {"norva_sdk_add2favorite", NORVA::NORVA_API_QT::norva_sdk_add2favorite,
     "mark a favourite",
     "ipconfig token userid boardid boardname",
     "userid"},
    {"norva_sdk_add2favorite_batch", NORVA::NORVA_API_QT::norva_sdk_add2favorite_batch,
     "mark several favourites; data: an array of records with the keys of add2favorite",
     "ipconfig token data",
     ""},
    {"norva_sdk_select_favorite", NORVA::NORVA_API_QT::norva_sdk_select_favorite,
     "list favourites",
     "ipconfig token userid boardname start_time end_time",
     ""},
    {"norva_sdk_select_favorite_by_page", NORVA::NORVA_API_QT::norva_sdk_select_favorite_by_page,
     "one page of favourites",
     "ipconfig token userid boardname start_time end_time which_page "
         "data_num_in_each_page",
     ""},
    {"norva_sdk_delete_favorite", NORVA::NORVA_API_QT::norva_sdk_delete_favorite,
     "remove a favourite",
     "ipconfig token data.id data.userId",
     "data.userId"},
    {"norva_sdk_select_origfiles_manage", NORVA::NORVA_API_QT::norva_sdk_select_origfiles_manage,
     "list original file records",
     "ipconfig token userid origfilename board_id origfileguid mongofs_id "
         "file_suffix company_code file_update_uerid parent_id type source iserror",
     ""},
    {"norva_sdk_select_origfiles_manage_by_page", NORVA::NORVA_API_QT::norva_sdk_select_origfiles_manage_by_page,
     "one page of original file records",
     "ipconfig token userid origfilename board_id origfileguid mongofs_id "
         "file_suffix company_code file_update_uerid parent_id type source iserror "
         "which_page data_num_in_each_page",
     ""},
    {"norva_sdk_update_origfiles_manage", NORVA::NORVA_API_QT::norva_sdk_update_origfiles_manage,
     "change an original file record",
     "ipconfig token origfile_id userid origfilename mongogridfsid origfilesuffix "
         "companycode parentid type source isError",
     ""},
    {"norva_sdk_updel_origfiles_manage", NORVA::NORVA_API_QT::norva_sdk_updel_origfiles_manage,
     "flag an original file as deleted",
     "ipconfig token data.id data.userId",
     "data.userId"},
    {"norva_sdk_insert_error_library", NORVA::NORVA_API_QT::norva_sdk_insert_error_library,
     "add an error type",
     "ipconfig token source layer errorMessage",
     ""},
    {"norva_sdk_update_error_library", NORVA::NORVA_API_QT::norva_sdk_update_error_library,
     "change an error type",
     "ipconfig token id source layer errorMessage",
     ""},
    {"norva_sdk_delete_error_library", NORVA::NORVA_API_QT::norva_sdk_delete_error_library,
     "remove an error type",
     "ipconfig token data.id",
     ""},
    {"norva_sdk_select_error_library", NORVA::NORVA_API_QT::norva_sdk_select_error_library,
     "list error types",
     "ipconfig token id source layer errorMessage",
     ""},
    {"norva_sdk_select_error_library_by_page", NORVA::NORVA_API_QT::norva_sdk_select_error_library_by_page,
     "one page of error types",
     "ipconfig token id source layer errorMessage which_page data_num_in_each_page",
     ""},
    {"norva_sdk_insert_error_msg", NORVA::NORVA_API_QT::norva_sdk_insert_error_msg,
     "place an error on a board",
     "ipconfig token boardId isReappear reMark gridX gridY source layer priority "
         "library_id errorMessage",
     ""},
    {"norva_sdk_update_error_msg", NORVA::NORVA_API_QT::norva_sdk_update_error_msg,
     "change an error message",
     "ipconfig token id boardId isReappear reMark gridX gridY source layer priority "
         "library_id errorMessage",
     ""},
    {"norva_sdk_delete_error_msg", NORVA::NORVA_API_QT::norva_sdk_delete_error_msg,
     "remove an error message",
     "ipconfig token data.id",
     ""},
    {"norva_sdk_select_error_msg", NORVA::NORVA_API_QT::norva_sdk_select_error_msg,
     "list error messages",
     "ipconfig token boardId isReappear reMark gridX gridY source layer priority "
         "library_id errorMessage",
     ""},
    {"norva_sdk_select_error_msg_by_page", NORVA::NORVA_API_QT::norva_sdk_select_error_msg_by_page,
     "one page of error messages",
     "ipconfig token boardId isReappear reMark gridX gridY source layer priority "
         "library_id errorMessage which_page data_num_in_each_page",
     ""},
    {"norva_tavlin_download_binaryfile", NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_download_binaryfile,
     "download a mall file into a folder",
     "ipconfig file_downloadpath data.id isTimeStamp reName",
     ""},
    {"norva_tavlin_select_boardid_by_order_num", NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_select_boardid_by_order_num,
     "the board of an order",
     "ipconfig data.orderNum",
     ""},
    {"norva_tavlin_select_order_by_page", NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_select_order_by_page,
     "one page of orders",
     "ipconfig userId boardId orderNum which_page data_num_in_each_page",
     ""},
    {"norva_tavlin_select_orig_file_by_page", NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_select_orig_file_by_page,
     "one page of mall files",
     "ipconfig createUserId which_page data_num_in_each_page",
     ""},
    {"norva_tavlin_get_bid_name_list_by_page", NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_get_bid_name_list_by_page,
     "one page of board ids and names",
     "ipconfig which_page data_num_in_each_page",
     ""},
    {"norva_tavlin_get_all_model_id", NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_get_all_model_id,
     "all planner models",
     "ipconfig",
     ""},
    {"norva_tavlin_get_latest_model_id", NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_get_latest_model_id,
     "the latest planner model",
     "ipconfig",
     ""},
    {"norva_tavlin_get_process_parameters", NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_get_process_parameters,
     "a model's process parameters",
     "ipconfig data.modelId",
     ""},
};

} // namespace norva
