#include "async/operation_names.h"

#include "norva_api_qt.h"

#include <algorithm>
#include <iterator>

namespace norva::async {

namespace {

using namespace NORVA::NORVA_API_QT;
using namespace NORVA::TAVLIN_KVRAPI_QT;

const NamedOperation operations[] = {
    {"norva_sdk_login", norva_sdk_login},
    {"norva_sdk_logout", norva_sdk_logout},
    {"norva_sdk_update_password", norva_sdk_update_password},
    {"norva_sdk_get_user_info_list", norva_sdk_get_user_info_list},
    {"norva_sdk_get_user_info_list_by_page", norva_sdk_get_user_info_list_by_page},
    {"norva_sdk_upload_file", norva_sdk_upload_file},
    {"norva_sdk_upload_file2share", norva_sdk_upload_file2share},
    {"norva_sdk_upload_files", norva_sdk_upload_files},
    {"norva_sdk_upload_files2share", norva_sdk_upload_files2share},
    {"norva_sdk_download_binary_file", norva_sdk_download_binary_file},
    {"norva_sdk_add2share", norva_sdk_add2share},
    {"norva_sdk_add2share_batch", norva_sdk_add2share_batch},
    {"norva_sdk_select_share", norva_sdk_select_share},
    {"norva_sdk_select_share_by_page", norva_sdk_select_share_by_page},
    {"norva_sdk_delete_share", norva_sdk_delete_share},
    {"norva_sdk_add2favorite", norva_sdk_add2favorite},
    {"norva_sdk_add2favorite_batch", norva_sdk_add2favorite_batch},
    {"norva_sdk_select_favorite", norva_sdk_select_favorite},
    {"norva_sdk_select_favorite_by_page", norva_sdk_select_favorite_by_page},
    {"norva_sdk_delete_favorite", norva_sdk_delete_favorite},
    {"norva_sdk_select_origfiles_manage", norva_sdk_select_origfiles_manage},
    {"norva_sdk_select_origfiles_manage_by_page", norva_sdk_select_origfiles_manage_by_page},
    {"norva_sdk_update_origfiles_manage", norva_sdk_update_origfiles_manage},
    {"norva_sdk_updel_origfiles_manage", norva_sdk_updel_origfiles_manage},
    {"norva_sdk_insert_error_library", norva_sdk_insert_error_library},
    {"norva_sdk_update_error_library", norva_sdk_update_error_library},
    {"norva_sdk_delete_error_library", norva_sdk_delete_error_library},
    {"norva_sdk_select_error_library", norva_sdk_select_error_library},
    {"norva_sdk_select_error_library_by_page", norva_sdk_select_error_library_by_page},
    {"norva_sdk_insert_error_msg", norva_sdk_insert_error_msg},
    {"norva_sdk_update_error_msg", norva_sdk_update_error_msg},
    {"norva_sdk_delete_error_msg", norva_sdk_delete_error_msg},
    {"norva_sdk_select_error_msg", norva_sdk_select_error_msg},
    {"norva_sdk_select_error_msg_by_page", norva_sdk_select_error_msg_by_page},
    {"norva_tavlin_download_binaryfile", norva_tavlin_download_binaryfile},
    {"norva_tavlin_select_boardid_by_order_num", norva_tavlin_select_boardid_by_order_num},
    {"norva_tavlin_select_order_by_page", norva_tavlin_select_order_by_page},
    {"norva_tavlin_select_orig_file_by_page", norva_tavlin_select_orig_file_by_page},
    {"norva_tavlin_get_bid_name_list_by_page", norva_tavlin_get_bid_name_list_by_page},
    {"norva_tavlin_get_all_model_id", norva_tavlin_get_all_model_id},
    {"norva_tavlin_get_latest_model_id", norva_tavlin_get_latest_model_id},
    {"norva_tavlin_get_process_parameters", norva_tavlin_get_process_parameters},
};

} // namespace

const NamedOperation* namedOperationsBegin()
{
    return std::begin(operations);
}

const NamedOperation* namedOperationsEnd()
{
    return std::end(operations);
}

OperationFunction findOperation(const std::string& name)
{
    for (const NamedOperation& operation : operations) {
        const std::string full = operation.name;
        for (const char* prefix : {"norva_sdk_", "norva_tavlin_"}) {
            const std::string start = prefix;
            if (name == full || (full.compare(0, start.size(), start) == 0 && name == full.substr(start.size())))
                return operation.function;
        }
    }
    return nullptr;
}

bool isNamedOperation(OperationFunction function)
{
    return std::any_of(std::begin(operations), std::end(operations),
                       [function](const NamedOperation& operation) { return operation.function == function; });
}

} // namespace norva::async
