// SPDX-License-Identifier: MIT
// Services that misbehave: every case ends in one of the frame's documents, the
// same one on every run.
#include "support/operation_table.h"

#include "norva_api_qt.h"

using namespace testing_support;
using namespace NORVA::NORVA_API_QT;

CaseList familyCases()
{
    const Wire login = openPost("/kvr/authority/login", R"({"userName":"a"})");
    const QString loginArgument = R"({"username":"a"})";
    const QString noReply = R"({"message":"Server shuts down","status":400})";
    const QString unparseable =
        R"({"message":"request connection success,status code 200,error:response json str parse error","request_data":"{\"userName\":\"a\"}","status":400})";
    const QByteArray emptyFilter =
        R"({"brdName":null,"currentUserId":0,"endTime":null,"startTime":null,"userId":null})";

    const QByteArray big(50 << 20, 'x');
    const QByteArray deep = QByteArray(10000, '[') + QByteArray(10000, ']');

    CaseList cases{
        {"a 200 body cut short is judged on what arrived", norva_sdk_login, loginArgument,
         ScriptedReply::raw("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"code\":200}"), login,
         R"({"message":"login success","status":200})", {}},
        {"a chunked reply is read whole", norva_sdk_login, loginArgument,
         ScriptedReply::raw("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n6\r\n{\"code\r\n9\r\n\":200,\"da\r\n8\r\nta\":\"t\"}\r\n0\r\n\r\n"),
         login, R"({"data":"t","message":"login success","status":200})", {}},
        // Qt reads an unreadable chunk size as the last chunk: an empty body.
        {"an unreadable chunk size ends the body", norva_sdk_login, loginArgument,
         ScriptedReply::raw("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n{}\r\n"), login, unparseable, {}},
        {"a reply that is not HTTP at all", norva_sdk_login, loginArgument, ScriptedReply::raw("SSH-2.0-OpenSSH\r\n\r\n"),
         login, noReply, {}},
        {"50 MiB of JSON passes through", norva_sdk_select_share, "{}",
         ScriptedReply::json(R"({"code":200,"data":")" + big + R"("})"), post("/kvr/share/selectShare", emptyFilter),
         QStringLiteral(R"({"data":")") + QString::fromLatin1(big) + R"(","message":"select share table success","status":200})", {}},
        {"JSON nested 10,000 deep is unparseable", norva_sdk_login, loginArgument,
         ScriptedReply::json(R"({"code":200,"data":)" + deep + "}"), login, unparseable, {}},
        {"invalid UTF-8 inside a JSON string is unparseable", norva_sdk_login, loginArgument,
         ScriptedReply::json("{\"code\":200,\"data\":\"\xff\xfe\xc3\"}"), login, unparseable, {}},
        {"NUL bytes in the body are unparseable", norva_sdk_login, loginArgument,
         ScriptedReply::json(QByteArray("{\"code\":200}\0\0", 14)), login, unparseable, {}},
        {"an argument nested 10,000 deep is a parse failure", norva_sdk_login, QString::fromLatin1(deep), ScriptedReply(),
         nothingSent(), R"({"message":"json str parse error","status":400})", {}},
    };

    // Keys in QJsonObject's order (UTF-16 code units), also where Qt's parser
    // put them in code point order: in the body sent and in the result.
    const QString keysAsGiven = QStringLiteral(u"{\"B\":1,\"a\":2,\"\u00e9\":3,\"\U0001F600\":4,\"\uFF01\":5,\"\U0001D11E\":6,\"\uFFFD\":7}");
    const QString keysInOrder = QStringLiteral(u"{\"B\":1,\"a\":2,\"\u00e9\":3,\"\U0001D11E\":6,\"\U0001F600\":4,\"\uFF01\":5,\"\uFFFD\":7}");
    cases.push_back({"keys beyond U+FFFF in UTF-16 order", norva_sdk_login, R"({"username":)" + keysAsGiven + "}",
                     ScriptedReply::json(R"({"code":200,"data":)" + keysAsGiven.toUtf8() + "}"),
                     openPost("/kvr/authority/login", R"({"userName":)" + keysInOrder.toUtf8() + "}"),
                     R"({"data":)" + keysInOrder + R"(,"message":"login success","status":200})", {}});

    // Once a status has arrived it decides, however the body breaks off.
    const Wire password = post("/kvr/authority/updateUser", R"({"id":0,"userPwd":""})");
    const Wire upload{"POST", "/kvr/originalFile/uploadFile", "multipart/form-data", {}, "tk"};
    const QString unparseablePrefix =
        R"({"message":"request connection success,status code 200,error:response json str parse error","request_data":)";
    const QString byStatus[][2] = {
        {"402", R"({"message":"token expired","status":402})"},
        {"500", R"({"message":"request fail","status":400})"},
    };
    for (const auto& [cut, reply] : cutShortReplies(200)) {
        cases.push_back({"update_password, 200 " + cut, norva_sdk_update_password, "{}", reply, password,
                         unparseablePrefix + sent(R"({"id":0,"userPwd":""})") + R"(,"status":400})", {}});
        cases.push_back({"upload_file, 200 " + cut, norva_sdk_upload_file, "{}", reply, upload,
                         unparseablePrefix
                             + sent(R"({"fileInfo":{"createuserid":0,"isError":0,"parentid":0,"source":0,"type":0,"zkcompanycode":""}})")
                             + R"(,"status":400})", {}});
    }
    for (const auto& [status, result] : byStatus) {
        for (const auto& [cut, reply] : cutShortReplies(status.toInt())) {
            cases.push_back({"update_password, " + status + " " + cut, norva_sdk_update_password, "{}", reply, password, result, {}});
            cases.push_back({"upload_file, " + status + " " + cut, norva_sdk_upload_file, "{}", reply, upload, result, {}});
        }
    }
    return cases;
}
