// Services that misbehave: every case ends in one of the frame's documents.
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

    return {
        {"a body cut short of its Content-Length counts as no reply", norva_sdk_login, loginArgument,
         ScriptedReply::raw("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"code\":200}"), login, noReply, {}},
        {"a chunked reply is read whole", norva_sdk_login, loginArgument,
         ScriptedReply::raw("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n6\r\n{\"code\r\n9\r\n\":200,\"da\r\n8\r\nta\":\"t\"}\r\n0\r\n\r\n"),
         login, R"({"data":"t","message":"login success","status":200})", {}},
        // Qt reads an unreadable chunk size as the last chunk: an empty body.
        {"an unreadable chunk size ends the body", norva_sdk_login, loginArgument,
         ScriptedReply::raw("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n{}\r\n"), login, unparseable, {}},
        {"a reply that is not HTTP at all", norva_sdk_login, loginArgument, ScriptedReply::raw("SSH-2.0-OpenSSH\r\n\r\n"),
         login, noReply, {}},
        {"301 is not followed", norva_sdk_select_share, "{}",
         [] { auto r = ScriptedReply::withStatus(301); r.headers = {{"Location", "http://127.0.0.1:1/x"}}; return r; }(),
         post("/kvr/share/selectShare", emptyFilter), R"({"message":"request fail","status":400})", {}},
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
}
