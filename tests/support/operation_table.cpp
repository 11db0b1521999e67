// SPDX-License-Identifier: MIT
#include "support/operation_table.h"

#include "norva_api_qt_progress.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

#include <atomic>

#ifdef Q_OS_LINUX
// Qt's hook table for debugging tools: entries 3 and 4 are called for every
// QObject made and destroyed.
extern quintptr Q_CORE_EXPORT qtHookData[];
#endif

namespace testing_support {

Wire post(const char* path, const QByteArray& body)
{
    return Wire{"POST", path, "application/json", body, "tk"};
}

Wire openPost(const char* path, const QByteArray& body)
{
    return Wire{"POST", path, "application/json", body, QByteArray()};
}

Wire formPost(const char* path, const QByteArray& text, bool withToken)
{
    return Wire{"POST", path, "application/x-www-form-urlencoded", text,
                withToken ? QByteArray("tk") : QByteArray()};
}

Wire openGet(const QByteArray& target, const char* contentType)
{
    return Wire{"GET", target, contentType, QByteArray(""), QByteArray()};
}

Wire nothingSent()
{
    return Wire{};
}

QString sent(const QByteArray& text)
{
    const QByteArray array = QJsonDocument(QJsonArray{QString::fromUtf8(text)}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.mid(1, array.size() - 2));
}

namespace {

QString completeArgument(const QString& argument)
{
    if (!argument.startsWith(QLatin1Char('{')) || argument.contains(QLatin1String("\"ipconfig\"")))
        return argument;
    const QString rest = argument.mid(1).trimmed();
    return QStringLiteral(R"({"ipconfig":"$ADDR","token":"tk")") + (rest == QLatin1String("}") ? "" : ",") + rest;
}

} // namespace

CaseList httpClassCases(const QString& name, OperationFunction operation, const QString& argument,
                        const Wire& wire, bool tokenExpiry, const QString& requestData)
{
    const QString unparseable =
        QStringLiteral(R"({"message":"request connection success,status code 200,error:response json str parse error",)")
        + (requestData.isNull() ? QString() : QStringLiteral(R"("request_data":)") + requestData + ",")
        + R"("status":400})";
    return {
        {name + " / HTTP 402", operation, argument, ScriptedReply::withStatus(402, R"({"code":200})"), wire,
         tokenExpiry ? R"({"message":"token expired","status":402})" : R"({"message":"request fail","status":400})", {}},
        {name + " / HTTP 500", operation, argument, ScriptedReply::json(R"({"code":200,"data":1})", 500), wire,
         R"({"message":"request fail","status":400})", {}},
        {name + " / empty 200 body", operation, argument, ScriptedReply::json(""), wire, unparseable, {}},
        {name + " / unreachable", operation, completeArgument(argument).replace(QLatin1String("$ADDR"), QLatin1String("$REFUSED")),
         ScriptedReply(), nothingSent(), R"({"message":"Server shuts down","status":400})", {}},
    };
}

CaseList argumentFailureCases(const QString& name, OperationFunction operation, const char* message)
{
    const QString result = QStringLiteral(R"({"message":"%1","status":400})").arg(QLatin1String(message));
    return {
        {name + " / empty argument", operation, QString(), ScriptedReply(), nothingSent(), result, {}},
        {name + " / argument is no JSON", operation, QStringLiteral("{\"a\":"), ScriptedReply(), nothingSent(), result, {}},
    };
}

std::vector<std::pair<QString, ScriptedReply>> cutShortReplies(int status, const QByteArray& headers)
{
    const QByteArray head = "HTTP/1.1 " + QByteArray::number(status) + " Status\r\n" + headers;
    const QByteArray length = head + "Content-Length: 40\r\n\r\n";
    const QByteArray chunked = head + "Transfer-Encoding: chunked\r\n\r\n";
    return {
        {"short by most", ScriptedReply::raw(length + R"({"code")")},
        {"short by all", ScriptedReply::raw(length)},
        {"chunked without its last chunk", ScriptedReply::raw(chunked + "7\r\n{\"code\"\r\n4\r\n:200\r\n")},
        {"chunked, cut inside a chunk", ScriptedReply::raw(chunked + "20\r\n{\"code\":200")},
    };
}

int runsOf(const ScriptedReply& reply)
{
    return reply.kind == ScriptedReply::Kind::Raw && !reply.stallAfterwards ? 50 : 1;
}

namespace {

void runOnce(TestService& service, const OperationCase& row)
{
    service.reset();
    service.script(row.reply);
    // Qt's HTTP layer sends a request again (up to three times) when a connection
    // breaks before a whole reply came: such a service answers every attempt alike.
    const bool resendable = row.reply.kind == ScriptedReply::Kind::Raw
                            || row.reply.kind == ScriptedReply::Kind::CloseWithoutAnswer;
    if (resendable)
        service.setDefaultReply(row.reply);
    const QString address = service.address();
    const QString expected = substitute(row.result, address);

    const CallResult call = callOperation(row.operation, substitute(completeArgument(row.argument), address));

    QCOMPARE(call.result, expected);
    QStringList lines;
    for (const QString& line : row.linesBefore)
        lines << substitute(line, address);
    // The asynchronous face writes nothing to standard output.
    QCOMPARE(call.lines, currentFace() == Face::Async ? QStringList() : lines << expected);
    QCOMPARE(call.applicationAfter, call.applicationBefore);

    if (row.wire.method.isEmpty()) {
        QCOMPARE(service.requestCount(), 0);
        return;
    }
    QVERIFY2(service.requestCount() == 1 || (resendable && service.requestCount() <= 4),
             qPrintable(QString::number(service.requestCount())));
    // A resent request is the same bytes, or a part of them when the call ended
    // while Qt was still sending it.
    // (A resend of an earlier call that Qt broke off may still arrive late: it
    // has another target or another form boundary.)
    const RecordedRequest request = service.fullestRequest();
    for (const RecordedRequest& resent : service.requests()) {
        if (resent.target == request.target && resent.header("Content-Type") == request.header("Content-Type"))
            QVERIFY(request.raw.startsWith(resent.raw));
    }
    QCOMPARE(request.method, row.wire.method);
    QCOMPARE(request.target, row.wire.target);
    if (row.wire.contentType.startsWith("multipart/")) {
        QVERIFY2(request.header("Content-Type").startsWith(row.wire.contentType), request.header("Content-Type"));
    } else {
        QCOMPARE(request.header("Content-Type"), row.wire.contentType);
        QCOMPARE(request.body, row.wire.body);
    }
    if (row.wire.method == "GET")
        QVERIFY(!request.hasHeader("Content-Length"));
    else
        QCOMPARE(request.header("Content-Length"), QByteArray::number(request.body.size()));
    QCOMPARE(request.hasHeader("token"), !row.wire.token.isNull());
    QCOMPARE(request.header("token"), row.wire.token.isNull() ? QByteArray() : row.wire.token);
}

#ifdef Q_OS_LINUX
std::atomic<long> liveObjects{0};
void objectAdded(QObject*) { ++liveObjects; }
void objectRemoved(QObject*) { --liveObjects; }

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System | QDir::NoDotAndDotDot).size();
}
#endif

} // namespace

void runCase(TestService& service)
{
    QFETCH(OperationCase, row);
    // Both faces, where the host has an application (the asynchronous one
    // needs its event loop): the same request, the same result.
    for (const Face face : {Face::Blocking, Face::Async}) {
        if (face == Face::Async && !QCoreApplication::instance())
            break;
        const FaceScope scope(face);
        for (int run = runsOf(row.reply); run > 0; --run) {
            runOnce(service, row);
            if (QTest::currentTestFailed())
                return;
        }
    }
#ifdef Q_OS_LINUX
    // The runs above made Qt's one-time allocations: the next one must leave no
    // descriptor and no QObject behind. (Counted on Linux only: under Wine the
    // descriptors of the process come and go with Wine's own work.)
    service.reset();
    const int descriptorsBefore = openDescriptors();
    const bool countObjects = qtHookData[2] == QT_VERSION;
    liveObjects = 0;
    if (countObjects) {
        qtHookData[3] = reinterpret_cast<quintptr>(&objectAdded);
        qtHookData[4] = reinterpret_cast<quintptr>(&objectRemoved);
    }
#endif
    // Once more with a progress observer: the same request and result, and the
    // observer hears of one operation, on this thread only, with figures that
    // only grow (a total not known yet is -1).
    QThread* const caller = QThread::currentThread();
    QSet<QByteArray> operations;
    bool elsewhere = false;
    bool onlyGrew = true;
    NORVA::NORVA_API_QT::CallProgress last{nullptr, 0, -1, 0, -1};
    NORVA::NORVA_API_QT::setProgressObserver([&](const NORVA::NORVA_API_QT::CallProgress& progress) {
        operations.insert(progress.operation);
        elsewhere = elsewhere || QThread::currentThread() != caller;
        onlyGrew = onlyGrew && progress.bytesSent >= last.bytesSent && progress.bytesReceived >= last.bytesReceived
                   && progress.bytesToSend >= last.bytesToSend && progress.bytesToReceive >= last.bytesToReceive;
        last = progress;
    });
    runOnce(service, row);
    NORVA::NORVA_API_QT::clearProgressObserver();
    if (QCoreApplication::instance())
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
#ifdef Q_OS_LINUX
    qtHookData[3] = qtHookData[4] = 0;
    QCOMPARE(liveObjects.load(), 0L);
    service.reset(); // the service's side of the connection is closed too
    // (Fewer is fine: a connection of an earlier row may close meanwhile.)
    QTRY_VERIFY2_WITH_TIMEOUT(openDescriptors() <= descriptorsBefore, "a descriptor was left open", 5000);
#endif
    QVERIFY(!elsewhere && onlyGrew);
    // Where no reply came, the reply's length was never known.
    if (row.result.contains(QLatin1String("Server shuts down")))
        QCOMPARE(last.bytesToReceive, qint64(-1));
    QVERIFY(operations.size() <= 1);
    if (!row.wire.method.isEmpty()) // a request went out: its end at least is reported
        QVERIFY(operations.size() == 1 && operations.begin()->startsWith("norva_"));
    // A whole answer: the last report shows both bodies whole.
    if (!row.wire.method.isEmpty() && row.reply.kind == ScriptedReply::Kind::Answer) {
        QCOMPARE(last.bytesSent, last.bytesToSend);
        QCOMPARE(last.bytesReceived, qint64(row.reply.body.size()));
        QCOMPARE(last.bytesToReceive, qint64(row.reply.body.size()));
    }
}

} // namespace testing_support
