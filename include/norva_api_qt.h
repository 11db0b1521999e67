// SPDX-License-Identifier: MIT
/// \file
/// norva-api-qt: a blocking client for the board records service, built for Qt
/// 5.15 (library NORVA_API_QT) or Qt 6 (library NORVA_API_QT6) from this header.
///
/// Every operation takes one JSON object as text (the argument document) and
/// returns one JSON object as text (the result document). Each call performs one
/// HTTP exchange with the service at "http://" + ipconfig (or an "https://" one,
/// see below) and blocks until it is over; while it waits it serves the calling
/// thread's Qt events, so a host's timers and queued signals keep running and
/// operations may nest.
///
///  * The caller passes "ipconfig" ("host:port", or "https://host:port" for TLS)
///    in every call, and "token" (from its own earlier login) in every operation
///    that needs one. Nothing is kept between calls.
///  * Every result document has an integer "status": 200 success, 206 partly done,
///    400 any failure without a value of its own, 402 token expired, 410 no such
///    user, 411 wrong password, 412 login refused. A fixed English "message" says
///    what happened; failures inside the library carry "error_message" instead.
///  * The returned text is also written to standard output as one line.
///  * Nothing is thrown across this interface.
///  * Once an HTTP status has arrived, it decides: 402 is "token expired" where
///    the operation sends a token, any other status but 200 "request fail", and
///    200 judges the body bytes that arrived, even when the body broke off. Only
///    an exchange without any status is "Server shuts down" (status 400).
///    Redirects are not followed: a redirect status is "request fail".
///  * Without a QCoreApplication of the host's own, each call makes a temporary
///    one for its duration; such calls must then come one at a time. With a host
///    application, any thread that can run a QEventLoop may call.
///
/// Where this library goes its own way, on purpose:
///  * Idle limit: a service that sends nothing, nor takes anything, for 120 s
///    (or what setIdleLimit() set) ends the exchange as if no reply had come
///    ("Server shuts down").
///  * Downloads store whole files only. A body that breaks off (fewer bytes than
///    its Content-Length, a chunked body without its last chunk, a compressed
///    body whose coding does not end, a transfer error after the status) is not
///    stored: {"message":"download fail","status":400}. The bytes go, as they
///    arrive, to a hidden file ".norva-download-<random>" in the download folder
///    (in memory only where no such file can be made), which takes the target's
///    place only when all are written: a large file is never held in memory, and
///    a write that fails (disk full, size limit) also says "download fail",
///    leaves no partial file and leaves an earlier file of that name as it was.
///    (A download's reply is read by the library itself rather than by Qt's
///    network manager, which can't tell a chunked body cut off by a closed
///    connection from a whole one; the request bytes are the manager's own.)
///  * Download names cannot leave their folder: a name that is "." or "..", or
///    holds a "/" or a NUL byte (a NUL ends the name), and a name that stands for
///    something other than a regular file (a folder, a link, a device), is handled
///    as a file that can't be opened: "download fail" with "error".
///  * Objects keep their keys ascending by UTF-16 code unit everywhere, also
///    those parsed from the caller's text or the service's reply.
///  * HTTPS: an "ipconfig" may name its scheme, "https://host:port" (or
///    "http://host:port"); one without a scheme is reached over plain HTTP, as
///    "http://" + ipconfig. The service's certificate is checked against Qt's
///    default TLS configuration: the system's trusted roots, plus what the host
///    added with QSslConfiguration::setDefaultConfiguration() (how a Qt host
///    trusts its own certificate authority). A certificate that does not check
///    out (unknown authority, expired, another host's name), and a service that
///    does not speak TLS, end the call as a service that never answered does,
///    with that operation's no-reply result; nothing of the request is sent.
///    A Qt built without TLS gives the no-reply result for every "https" call,
///    writes a line on standard error that says why, and sends nothing.
///
/// Qt 5 and Qt 6 builds behave alike (redirects are not followed on either), with
/// two differences: a whole number beyond 2^53 passed through unconverted stays
/// exact on Qt 6, while Qt 5 rounds it to the nearest double; and Qt 6 offers the
/// service "zstd, br, gzip, deflate" in Accept-Encoding where Qt 5 offers
/// "gzip, deflate" (Qt decodes what it offered).
///
/// norva_api_qt_progress.h, beside this header, lets a host watch a call's
/// progress, cancel it, and set the idle limit, each for the calling thread.
///
/// Unknown or mistyped argument keys are not errors: a missing key goes out with
/// its default (empty text, 0, null, or no key at all, as each operation reads it)
/// and the service judges.
#ifndef NORVA_API_QT_H
#define NORVA_API_QT_H

#include <QtCore/QObject>
#include <QtCore/qglobal.h>

#include <string>

#if defined(NORVA_API_QT_BUILD)
#  define NORVA_API_QT_EXPORT Q_DECL_EXPORT
#elif defined(NORVA_API_QT_STATIC)
#  define NORVA_API_QT_EXPORT
#else
#  define NORVA_API_QT_EXPORT Q_DECL_IMPORT
#endif

QT_BEGIN_NAMESPACE
class QNetworkReply;
QT_END_NAMESPACE

namespace NORVA {
namespace NORVA_API_QT {

// ---- Accounts ---------------------------------------------------------------

/// {"ipconfig","username","password"} -> "data" holds the service's answer (its token).
/// status 410 "User does not exist", 411 "Wrong password", 412/400 "login fail".
NORVA_API_QT_EXPORT std::string norva_sdk_login(std::string argument);
/// {"ipconfig","id"}; no token. A refusal carries "error_msg" and "logoutdata".
NORVA_API_QT_EXPORT std::string norva_sdk_logout(std::string argument);
/// {"ipconfig","token","userid","new_pwd"}
NORVA_API_QT_EXPORT std::string norva_sdk_update_password(std::string argument);
/// {"ipconfig","token","user_id","userName","userRealname"}; a filter left out is null.
NORVA_API_QT_EXPORT std::string norva_sdk_get_user_info_list(std::string argument);
/// The same, and "which_page", "data_num_in_each_page" passed on unconverted.
NORVA_API_QT_EXPORT std::string norva_sdk_get_user_info_list_by_page(std::string argument);

// ---- File transfer ----------------------------------------------------------

/// {"ipconfig","token","file_uploadpath","data":{"fileInfo":{...},"errorInfo":{...}}}
/// Sends the file and its record in one multipart form; "Board_Id" on success.
/// "errorInfo" goes out only when fileInfo.isError is the number 1.
NORVA_API_QT_EXPORT std::string norva_sdk_upload_file(std::string argument);
/// As norva_sdk_upload_file, with fileInfo.acsTypeId and fileInfo.acsType for a share.
NORVA_API_QT_EXPORT std::string norva_sdk_upload_file2share(std::string argument);
/// {"ipconfig","token","file_uploadpath" (a folder),"data":{flat record}}: every file
/// directly in the folder, one "file path:" line on standard output for each
/// (folder + separator + name: "/" on Linux, a backslash on Windows, where the line
/// is in the system code page and a folder of any name is found).
NORVA_API_QT_EXPORT std::string norva_sdk_upload_files(std::string argument);
/// As norva_sdk_upload_files, with data.acsTypeId and data.acsType for shares.
NORVA_API_QT_EXPORT std::string norva_sdk_upload_files2share(std::string argument);
/// {"ipconfig","token","file_downloadpath","data":{"id","userId"},"isTimeStamp","reName"}
/// Stores the file as file_downloadpath + separator ("/", on Windows a backslash)
/// + name, the name taken from the
/// reply's Content-Disposition (behind its last "="), renamed when "reName" is a
/// non-empty text, else stamped "_yyyyMMddhhmmss" when "isTimeStamp" is true. An
/// existing file is overwritten; folders are not created. A name that can't be
/// stored in the folder gives status 400 "download fail" with "error":
/// "File:<path>open failed"; see the departures above.
NORVA_API_QT_EXPORT std::string norva_sdk_download_binary_file(std::string argument);

// ---- Shares -----------------------------------------------------------------

/// {"ipconfig","token","userid","boardid","sharewith_id","sharetype"}
NORVA_API_QT_EXPORT std::string norva_sdk_add2share(std::string argument);
/// {"ipconfig","token","data":[records as above]}; 206 names repeated boards.
NORVA_API_QT_EXPORT std::string norva_sdk_add2share_batch(std::string argument);
/// {"ipconfig","token","currentUserId","userid","boardname","start_time","end_time"}
NORVA_API_QT_EXPORT std::string norva_sdk_select_share(std::string argument);
/// The same, and "which_page", "data_num_in_each_page" as integers.
NORVA_API_QT_EXPORT std::string norva_sdk_select_share_by_page(std::string argument);
/// {"ipconfig","token","data":{"id","userId"}}
NORVA_API_QT_EXPORT std::string norva_sdk_delete_share(std::string argument);

// ---- Favourites -------------------------------------------------------------

/// {"ipconfig","token","userid","boardid","boardname"}
NORVA_API_QT_EXPORT std::string norva_sdk_add2favorite(std::string argument);
/// {"ipconfig","token","data":[records as above]}; 206 names repeated boards.
NORVA_API_QT_EXPORT std::string norva_sdk_add2favorite_batch(std::string argument);
/// {"ipconfig","token","userid","boardname","start_time","end_time"}
NORVA_API_QT_EXPORT std::string norva_sdk_select_favorite(std::string argument);
/// The same, and "which_page", "data_num_in_each_page" passed on unconverted.
NORVA_API_QT_EXPORT std::string norva_sdk_select_favorite_by_page(std::string argument);
/// {"ipconfig","token","data":{"id","userId"}}
NORVA_API_QT_EXPORT std::string norva_sdk_delete_favorite(std::string argument);

// ---- Original file records --------------------------------------------------

/// {"ipconfig","token", filters: "userid","origfilename","board_id","origfileguid",
///  "mongofs_id","file_suffix","company_code","file_update_uerid","parent_id",
///  "type","source","iserror"}; a filter left out is null.
NORVA_API_QT_EXPORT std::string norva_sdk_select_origfiles_manage(std::string argument);
/// The same, and "which_page", "data_num_in_each_page" passed on unconverted.
NORVA_API_QT_EXPORT std::string norva_sdk_select_origfiles_manage_by_page(std::string argument);
/// {"ipconfig","token","origfile_id","userid","origfilename","mongogridfsid",
///  "origfilesuffix","companycode","parentid","type","source","isError"}
NORVA_API_QT_EXPORT std::string norva_sdk_update_origfiles_manage(std::string argument);
/// {"ipconfig","token","data":{"id","userId"}}: sets the record's delete flag.
NORVA_API_QT_EXPORT std::string norva_sdk_updel_origfiles_manage(std::string argument);

// ---- Error library ----------------------------------------------------------

/// {"ipconfig","token","source","layer","errorMessage"}
NORVA_API_QT_EXPORT std::string norva_sdk_insert_error_library(std::string argument);
/// {"ipconfig","token","id","source","layer","errorMessage"}
NORVA_API_QT_EXPORT std::string norva_sdk_update_error_library(std::string argument);
/// {"ipconfig","token","data":{"id"}}
NORVA_API_QT_EXPORT std::string norva_sdk_delete_error_library(std::string argument);
/// {"ipconfig","token","id","source","layer","errorMessage"}; a filter left out is null.
NORVA_API_QT_EXPORT std::string norva_sdk_select_error_library(std::string argument);
/// The same, and "which_page", "data_num_in_each_page" passed on unconverted.
NORVA_API_QT_EXPORT std::string norva_sdk_select_error_library_by_page(std::string argument);

// ---- Error messages on boards -----------------------------------------------

/// {"ipconfig","token","boardId","isReappear","reMark","gridX","gridY","source",
///  "layer","priority","library_id","errorMessage"}
NORVA_API_QT_EXPORT std::string norva_sdk_insert_error_msg(std::string argument);
/// The same keys and "id".
NORVA_API_QT_EXPORT std::string norva_sdk_update_error_msg(std::string argument);
/// {"ipconfig","token","data":{"id"}}
NORVA_API_QT_EXPORT std::string norva_sdk_delete_error_msg(std::string argument);
/// The insert keys as filters; a filter left out is null.
NORVA_API_QT_EXPORT std::string norva_sdk_select_error_msg(std::string argument);
/// The same, and "which_page", "data_num_in_each_page" passed on unconverted.
NORVA_API_QT_EXPORT std::string norva_sdk_select_error_msg_by_page(std::string argument);

// ---- The object interface ---------------------------------------------------

/// A QObject with its own login and download, for hosts that have a
/// QCoreApplication (it never makes one; called without one, both members answer
/// status 400 "request fail" at once). It holds nothing between calls.
class NORVA_API_QT_EXPORT NORVA_HTTP_API : public QObject
{
    Q_OBJECT

public:
    /// The parent is not used: the object never has one, and the caller owns it.
    explicit NORVA_HTTP_API(QObject* parent = nullptr);
    /// Nothing of a call outlives it.
    ~NORVA_HTTP_API() override;

    /// Login with the keys of the free norva_sdk_login. A network error is first
    /// written as `{"error":<number>,"message":<text>,"status":400}`; then HTTP 402
    /// gives "token expired" and any other status but 200 "request fail". There is
    /// no "Server shuts down": an unreachable service is "request fail" too.
    /// On HTTP 200 without a network error the reply is judged as the free
    /// norva_sdk_login judges it, so the same success and refusal documents come
    /// back (this object's choice where the bare contract would return nothing).
    std::string norva_sdk_login(std::string argument);

    /// The free norva_sdk_download_binary_file, with these differences: on HTTP 200
    /// the reply's byte size is written as a line first, the stamp is "yyyyMMdd",
    /// and an unreachable service is "request fail".
    std::string norva_sdk_download_binary_file(std::string argument);

public Q_SLOTS:
    /// Connect any reply's finished() here: a reply with an error is written as one
    /// line {"error","message","message2","status":400} and its bytes go to the debug
    /// log. The reply is neither deleted nor otherwise touched.
    void requestFinished(QNetworkReply* reply);
};

} // namespace NORVA_API_QT

namespace TAVLIN_KVRAPI_QT {

// ---- Mall and planner (no token; HTTP 402 is "request fail") ------------------

/// {"ipconfig","file_downloadpath","data":{"id"},"isTimeStamp","reName"}; HTTP 204
/// is "Can not find this file" with "BoardId". Names are kept inside the folder as
/// in norva_sdk_download_binary_file.
NORVA_API_QT_EXPORT std::string norva_tavlin_download_binaryfile(std::string argument);
/// {"ipconfig","data":{"orderNum"}}
NORVA_API_QT_EXPORT std::string norva_tavlin_select_boardid_by_order_num(std::string argument);
/// {"ipconfig","which_page","data_num_in_each_page","userId","boardId","orderNum"}
NORVA_API_QT_EXPORT std::string norva_tavlin_select_order_by_page(std::string argument);
/// {"ipconfig","which_page","data_num_in_each_page","createUserId"}
NORVA_API_QT_EXPORT std::string norva_tavlin_select_orig_file_by_page(std::string argument);
/// {"ipconfig","which_page","data_num_in_each_page"} as integers, sent as a query.
NORVA_API_QT_EXPORT std::string norva_tavlin_get_bid_name_list_by_page(std::string argument);
/// {"ipconfig"}
NORVA_API_QT_EXPORT std::string norva_tavlin_get_all_model_id(std::string argument);
/// {"ipconfig"}
NORVA_API_QT_EXPORT std::string norva_tavlin_get_latest_model_id(std::string argument);
/// {"ipconfig","data":{"modelId"}}
NORVA_API_QT_EXPORT std::string norva_tavlin_get_process_parameters(std::string argument);

} // namespace TAVLIN_KVRAPI_QT
} // namespace NORVA

#endif // NORVA_API_QT_H
