// norva: calls any operation of the library by name from a shell.
//
//   norva <operation> '<argument document>'
//   norva <operation> -          (the document on standard input)
//   norva --list | --help
//
// The result document is the library's own console line. Exit status 0 when its
// "status" is 200 or 206, 1 otherwise, 2 for a usage error.
#include "norva_api_qt.h"

#include <cstdio>
#include <cstring>
#include <iostream>
#include <iterator>
#include <regex>
#include <string>

namespace {

using Operation = std::string (*)(std::string);

struct Entry {
    const char* name;
    Operation operation;
    const char* summary;
};

using namespace NORVA::NORVA_API_QT;
using namespace NORVA::TAVLIN_KVRAPI_QT;

const Entry operations[] = {
    {"norva_sdk_login", norva_sdk_login, "log in: ipconfig, username, password"},
    {"norva_sdk_logout", norva_sdk_logout, "log out: ipconfig, id"},
    {"norva_sdk_update_password", norva_sdk_update_password, "set a password: ipconfig, token, userid, new_pwd"},
    {"norva_sdk_get_user_info_list", norva_sdk_get_user_info_list, "list users: user_id, userName, userRealname"},
    {"norva_sdk_get_user_info_list_by_page", norva_sdk_get_user_info_list_by_page, "one page of users"},
    {"norva_sdk_upload_file", norva_sdk_upload_file, "upload a file: file_uploadpath, data.fileInfo, data.errorInfo"},
    {"norva_sdk_upload_file2share", norva_sdk_upload_file2share, "upload a file and share it"},
    {"norva_sdk_upload_files", norva_sdk_upload_files, "upload every file directly in a folder: file_uploadpath, data"},
    {"norva_sdk_upload_files2share", norva_sdk_upload_files2share, "upload a folder and share its files"},
    {"norva_sdk_download_binary_file", norva_sdk_download_binary_file,
     "download a board file: file_downloadpath, data.id, data.userId, isTimeStamp, reName"},
    {"norva_sdk_add2share", norva_sdk_add2share, "share a board: userid, boardid, sharewith_id, sharetype"},
    {"norva_sdk_add2share_batch", norva_sdk_add2share_batch, "share several boards: data [...]"},
    {"norva_sdk_select_share", norva_sdk_select_share, "list shares: userid, boardname, currentUserId, start_time, end_time"},
    {"norva_sdk_select_share_by_page", norva_sdk_select_share_by_page, "one page of shares"},
    {"norva_sdk_delete_share", norva_sdk_delete_share, "remove a share: data.id, data.userId"},
    {"norva_sdk_add2favorite", norva_sdk_add2favorite, "mark a favourite: userid, boardid, boardname"},
    {"norva_sdk_add2favorite_batch", norva_sdk_add2favorite_batch, "mark several favourites: data [...]"},
    {"norva_sdk_select_favorite", norva_sdk_select_favorite, "list favourites: userid, boardname, start_time, end_time"},
    {"norva_sdk_select_favorite_by_page", norva_sdk_select_favorite_by_page, "one page of favourites"},
    {"norva_sdk_delete_favorite", norva_sdk_delete_favorite, "remove a favourite: data.id, data.userId"},
    {"norva_sdk_select_origfiles_manage", norva_sdk_select_origfiles_manage, "list original file records (12 filters)"},
    {"norva_sdk_select_origfiles_manage_by_page", norva_sdk_select_origfiles_manage_by_page,
     "one page of original file records"},
    {"norva_sdk_update_origfiles_manage", norva_sdk_update_origfiles_manage, "change an original file record: origfile_id, ..."},
    {"norva_sdk_updel_origfiles_manage", norva_sdk_updel_origfiles_manage, "flag an original file as deleted: data.id, data.userId"},
    {"norva_sdk_insert_error_library", norva_sdk_insert_error_library, "add an error type: source, layer, errorMessage"},
    {"norva_sdk_update_error_library", norva_sdk_update_error_library, "change an error type: id, source, layer, errorMessage"},
    {"norva_sdk_delete_error_library", norva_sdk_delete_error_library, "remove an error type: data.id"},
    {"norva_sdk_select_error_library", norva_sdk_select_error_library, "list error types"},
    {"norva_sdk_select_error_library_by_page", norva_sdk_select_error_library_by_page, "one page of error types"},
    {"norva_sdk_insert_error_msg", norva_sdk_insert_error_msg, "place an error on a board: boardId, gridX, gridY, ..."},
    {"norva_sdk_update_error_msg", norva_sdk_update_error_msg, "change an error message: id, ..."},
    {"norva_sdk_delete_error_msg", norva_sdk_delete_error_msg, "remove an error message: data.id"},
    {"norva_sdk_select_error_msg", norva_sdk_select_error_msg, "list error messages"},
    {"norva_sdk_select_error_msg_by_page", norva_sdk_select_error_msg_by_page, "one page of error messages"},
    {"norva_tavlin_download_binaryfile", norva_tavlin_download_binaryfile,
     "download a mall file: file_downloadpath, data.id, isTimeStamp, reName"},
    {"norva_tavlin_select_boardid_by_order_num", norva_tavlin_select_boardid_by_order_num, "board of an order: data.orderNum"},
    {"norva_tavlin_select_order_by_page", norva_tavlin_select_order_by_page, "one page of orders: userId, boardId, orderNum"},
    {"norva_tavlin_select_orig_file_by_page", norva_tavlin_select_orig_file_by_page, "one page of mall files: createUserId"},
    {"norva_tavlin_get_bid_name_list_by_page", norva_tavlin_get_bid_name_list_by_page, "one page of board ids and names"},
    {"norva_tavlin_get_all_model_id", norva_tavlin_get_all_model_id, "all planner models"},
    {"norva_tavlin_get_latest_model_id", norva_tavlin_get_latest_model_id, "the latest planner model"},
    {"norva_tavlin_get_process_parameters", norva_tavlin_get_process_parameters, "a model's process parameters: data.modelId"},
};

void help()
{
    std::printf("usage: norva <operation> '<argument document>'\n"
                "       norva <operation> -        read the argument document from standard input\n"
                "       norva --list               list the operations\n\n"
                "Calls one operation of norva-api-qt and prints its result document (one line).\n"
                "The \"norva_sdk_\" or \"norva_tavlin_\" prefix may be left out. Exit status: 0 when the\n"
                "result's status is 200 or 206, 1 otherwise, 2 for a usage error.\n\n"
                "example: norva login '{\"ipconfig\":\"127.0.0.1:8765\",\"username\":\"norva\",\"password\":\"norva\"}'\n");
}

const Entry* find(const std::string& name)
{
    for (const Entry& entry : operations) {
        const std::string full = entry.name;
        if (full == name || full == "norva_" + name || full == "norva_sdk_" + name || full == "norva_tavlin_" + name)
            return &entry;
    }
    return nullptr;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        help();
        return 0;
    }
    if (argc == 2 && std::strcmp(argv[1], "--list") == 0) {
        for (const Entry& entry : operations)
            std::printf("%-42s %s\n", entry.name, entry.summary);
        return 0;
    }
    if (argc != 3) {
        help();
        return 2;
    }
    const Entry* entry = find(argv[1]);
    if (!entry) {
        std::fprintf(stderr, "norva: no operation named %s (see norva --list)\n", argv[1]);
        return 2;
    }
    std::string argument = argv[2];
    if (argument == "-")
        argument.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    // The library writes the result line itself.
    const std::string result = entry->operation(argument);
    static const std::regex success(R"("status":(200|206)[,}])");
    return std::regex_search(result, success) ? 0 : 1;
}
