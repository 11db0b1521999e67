// Login over the wire: every row of its result table, the exact request, and
// the arguments a host can get wrong.
#include "support/harness.h"
#include "support/test_main.h"

#include "norva_api_qt.h"

#include <QtTest>

using namespace testing_support;

Q_DECLARE_METATYPE(testing_support::ScriptedReply)

class LoginTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { service.reset(); }

    void resultTable_data();
    void resultTable();
    void callsInARowEachWaitForTheirOwnReply();

private:
    TestService service;
};

void LoginTest::resultTable_data()
{
    QTest::addColumn<QString>("argument");
    QTest::addColumn<ScriptedReply>("reply");
    QTest::addColumn<QByteArray>("sentBody"); // null: nothing reaches the service
    QTest::addColumn<QString>("expected");

    const QString adaArgument = R"({"ipconfig":"$ADDR","username":"ada","password":"pw"})";
    const QByteArray adaBody = R"({"userName":"ada","userPwd":"pw"})";
    const QString adaSent = R"("{\"userName\":\"ada\",\"userPwd\":\"pw\"}")";

    QTest::newRow("code 200 hands back data")
        << adaArgument << ScriptedReply::json(R"({"code":200,"msg":"hi","data":{"token":"t1"}})")
        << adaBody << R"({"data":{"token":"t1"},"message":"login success","status":200})";
    QTest::newRow("code 200 without data")
        << adaArgument << ScriptedReply::json(R"({"code":200})") << adaBody
        << R"({"message":"login success","status":200})";
    QTest::newRow("410 returns the sent text, not the reply's data")
        << adaArgument << ScriptedReply::json(R"({"code":410,"msg":"no","data":"x"})") << adaBody
        << R"({"data":)" + adaSent + R"(,"message":"User does not exist","status":410})";
    QTest::newRow("411 returns the sent text")
        << adaArgument << ScriptedReply::json(R"({"code":411})") << adaBody
        << R"({"data":)" + adaSent + R"(,"message":"Wrong password","status":411})";
    QTest::newRow("412 carries msg and data")
        << adaArgument << ScriptedReply::json(R"({"code":412,"msg":"locked","data":[1]})") << adaBody
        << R"({"Error_info":"locked","data":[1],"message":"login fail","status":412})";
    QTest::newRow("412 without msg or data")
        << adaArgument << ScriptedReply::json(R"({"code":412})") << adaBody
        << R"({"Error_info":null,"message":"login fail","status":412})";
    QTest::newRow("412 keeps a numeric msg as a number")
        << adaArgument << ScriptedReply::json(R"({"code":412,"msg":7})") << adaBody
        << R"({"Error_info":7,"message":"login fail","status":412})";
    QTest::newRow("other code")
        << adaArgument << ScriptedReply::json(R"({"code":500,"msg":"boom","data":null})") << adaBody
        << R"({"Error_info":"boom","data":null,"message":"login fail","status":400})";
    QTest::newRow("code as the text 200 counts as 0")
        << adaArgument << ScriptedReply::json(R"({"code":"200","data":1})") << adaBody
        << R"({"Error_info":null,"data":1,"message":"login fail","status":400})";
    QTest::newRow("a JSON array reply has code 0")
        << adaArgument << ScriptedReply::json("[]") << adaBody
        << R"({"Error_info":null,"message":"login fail","status":400})";
    QTest::newRow("empty 200 body is unparseable")
        << adaArgument << ScriptedReply::json("") << adaBody
        << R"({"message":"request connection success,status code 200,error:response json str parse error","request_data":)"
               + adaSent + R"(,"status":400})";
    QTest::newRow("HTTP 402 is an ordinary failure for login")
        << adaArgument << ScriptedReply::withStatus(402, R"({"code":200})") << adaBody
        << R"({"message":"request fail","status":400})";
    QTest::newRow("HTTP 500 drops its JSON body")
        << adaArgument << ScriptedReply::json(R"({"code":200,"data":1})", 500) << adaBody
        << R"({"message":"request fail","status":400})";
    QTest::newRow("a redirect is not followed")
        << adaArgument << [] { auto r = ScriptedReply::withStatus(302); r.headers = {{"Location", "/elsewhere"}}; return r; }()
        << adaBody << R"({"message":"request fail","status":400})";
    QTest::newRow("peer closes without answering")
        << adaArgument << ScriptedReply::closeWithoutAnswer() << adaBody
        << R"({"message":"Server shuts down","status":400})";
    QTest::newRow("nothing listens")
        << R"({"ipconfig":"$REFUSED","username":"ada"})" << ScriptedReply() << QByteArray()
        << R"({"message":"Server shuts down","status":400})";

    QTest::newRow("missing password leaves the key out")
        << R"({"ipconfig":"$ADDR","username":"ada"})" << ScriptedReply::json(R"({"code":411})")
        << QByteArray(R"({"userName":"ada"})")
        << R"({"data":"{\"userName\":\"ada\"}","message":"Wrong password","status":411})";
    QTest::newRow("neither name nor password sends {}")
        << R"({"ipconfig":"$ADDR"})" << ScriptedReply::json(R"({"code":410})") << QByteArray("{}")
        << R"({"data":"{}","message":"User does not exist","status":410})";
    QTest::newRow("a numeric password goes out as a number")
        << R"({"ipconfig":"$ADDR","username":"ada","password":1234})"
        << ScriptedReply::json(R"({"code":200,"data":"t"})")
        << QByteArray(R"({"userName":"ada","userPwd":1234})")
        << R"({"data":"t","message":"login success","status":200})";
    QTest::newRow("non-ASCII text travels as UTF-8 both ways")
        << QString::fromUtf8(R"({"ipconfig":"$ADDR","username":"Zoë 测试","password":"pw"})")
        << ScriptedReply::json(QString::fromUtf8(R"({"code":200,"data":"Zoë 测试"})").toUtf8())
        << QString::fromUtf8(R"({"userName":"Zoë 测试","userPwd":"pw"})").toUtf8()
        << QString::fromUtf8(R"({"data":"Zoë 测试","message":"login success","status":200})");

    QTest::newRow("empty argument") << "" << ScriptedReply() << QByteArray()
                                    << R"({"message":"json str parse error","status":400})";
    QTest::newRow("argument is no JSON") << "{user" << ScriptedReply() << QByteArray()
                                         << R"({"message":"json str parse error","status":400})";
    QTest::newRow("a top-level array has no keys, so no address")
        << "[]" << ScriptedReply() << QByteArray() << R"({"message":"Server shuts down","status":400})";
}

void LoginTest::resultTable()
{
    QFETCH(QString, argument);
    QFETCH(ScriptedReply, reply);
    QFETCH(QByteArray, sentBody);
    QFETCH(QString, expected);
    service.script(reply);
    // Qt reconnects once when a peer closes before answering; let every attempt close.
    if (reply.kind == ScriptedReply::Kind::CloseWithoutAnswer)
        service.setDefaultReply(reply);

    const CallResult call = callOperation(NORVA::NORVA_API_QT::norva_sdk_login,
                                          substitute(argument, service.address()));

    QCOMPARE(call.result, expected);
    QCOMPARE(call.lines, QStringList{expected});
    QCOMPARE(call.applicationAfter, call.applicationBefore);
    if (sentBody.isNull()) {
        QCOMPARE(service.requestCount(), 0);
        return;
    }
    // Qt's HTTP layer sends the same request once more after a peer closed
    // without a byte of reply; nothing else is ever repeated.
    const int attempts = reply.kind == ScriptedReply::Kind::CloseWithoutAnswer ? 2 : 1;
    QCOMPARE(service.requestCount(), attempts);
    QCOMPARE(service.requests().front().raw, service.lastRequest().raw);
    const RecordedRequest request = service.lastRequest();
    QCOMPARE(request.method, QByteArray("POST"));
    QCOMPARE(request.target, QByteArray("/kvr/authority/login"));
    QCOMPARE(request.body, sentBody);
    QCOMPARE(request.header("Content-Type"), QByteArray("application/json"));
    QCOMPARE(request.header("Content-Length"), QByteArray::number(sentBody.size()));
    QVERIFY(!request.hasHeader("token"));
}

void LoginTest::callsInARowEachWaitForTheirOwnReply()
{
    // Without a host application each call builds and ends its own; with one,
    // the calls share it. Either way each call gets the answer meant for it.
    const int calls = 50;
    for (int i = 0; i < calls; ++i)
        service.script(ScriptedReply::json(QByteArray(R"({"code":200,"data":)") + QByteArray::number(i) + "}"));
    const QString argument = substitute(R"({"ipconfig":"$ADDR","username":"ada","password":"pw"})", service.address());
    for (int i = 0; i < calls; ++i) {
        const CallResult call = callOperation(NORVA::NORVA_API_QT::norva_sdk_login, argument);
        QCOMPARE(call.result, QStringLiteral(R"({"data":%1,"message":"login success","status":200})").arg(i));
        QCOMPARE(call.applicationAfter, call.applicationBefore);
    }
    QCOMPARE(service.requestCount(), calls);
}

NORVA_TEST_MAIN(LoginTest)
#include "test_login.moc"
