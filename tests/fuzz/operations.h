// Every operation, for the fuzz targets.
#pragma once

#include "norva_api_qt.h"

#include <iostream>
#include <streambuf>
#include <string>

namespace fuzzing {

// Standard output goes nowhere while fuzzing: every call echoes its result.
inline void silenceStandardOutput()
{
    struct Discard : std::streambuf {
        int overflow(int c) override { return c; }
        std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
    };
    static Discard discard;
    std::cout.rdbuf(&discard);
}

using Operation = std::string (*)(std::string);

inline std::string memberLogin(std::string argument)
{
    NORVA::NORVA_API_QT::NORVA_HTTP_API api;
    return api.norva_sdk_login(std::move(argument));
}

inline std::string memberDownload(std::string argument)
{
    NORVA::NORVA_API_QT::NORVA_HTTP_API api;
    return api.norva_sdk_download_binary_file(std::move(argument));
}

using namespace NORVA::NORVA_API_QT;
using namespace NORVA::TAVLIN_KVRAPI_QT;

inline constexpr Operation operations[] = {
    norva_sdk_login, norva_sdk_logout, norva_sdk_update_password, norva_sdk_get_user_info_list,
    norva_sdk_get_user_info_list_by_page, norva_sdk_upload_file, norva_sdk_upload_file2share, norva_sdk_upload_files,
    norva_sdk_upload_files2share, norva_sdk_download_binary_file, norva_sdk_add2share, norva_sdk_add2share_batch,
    norva_sdk_select_share, norva_sdk_select_share_by_page, norva_sdk_delete_share, norva_sdk_add2favorite,
    norva_sdk_add2favorite_batch, norva_sdk_select_favorite, norva_sdk_select_favorite_by_page,
    norva_sdk_delete_favorite, norva_sdk_select_origfiles_manage, norva_sdk_select_origfiles_manage_by_page,
    norva_sdk_update_origfiles_manage, norva_sdk_updel_origfiles_manage, norva_sdk_insert_error_library,
    norva_sdk_update_error_library, norva_sdk_delete_error_library, norva_sdk_select_error_library,
    norva_sdk_select_error_library_by_page, norva_sdk_insert_error_msg, norva_sdk_update_error_msg,
    norva_sdk_delete_error_msg, norva_sdk_select_error_msg, norva_sdk_select_error_msg_by_page,
    norva_tavlin_download_binaryfile, norva_tavlin_select_boardid_by_order_num, norva_tavlin_select_order_by_page,
    norva_tavlin_select_orig_file_by_page, norva_tavlin_get_bid_name_list_by_page, norva_tavlin_get_all_model_id,
    norva_tavlin_get_latest_model_id, norva_tavlin_get_process_parameters, memberLogin, memberDownload,
};

inline constexpr int operationCount = int(sizeof operations / sizeof operations[0]);

} // namespace fuzzing
