// SPDX-License-Identifier: MIT
// The asynchronous face beyond what the operation tables show through it: many
// calls at once, cancelling, a client that goes first, names and threads.
#include "support/harness.h"

#include "norva_api_qt_async.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkProxy>
#include <QNetworkProxyFactory>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QtTest>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <thread>

using namespace NORVA::NORVA_API_QT;
using namespace testing_support;

namespace {

std::string shareQuery(const TestService& service, int user)
{
    return substitute(R"({"ipconfig":"$ADDR","token":"tk","currentUserId":)" + QString::number(user) + "}", service.address())
        .toStdString();
}

// Serves events until every reply finished, for at most 20 s.
void waitForAll(const std::vector<CallReply*>& replies)
{
    QEventLoop loop;
    QTimer check;
    QObject::connect(&check, &QTimer::timeout, &loop, [&] {
        if (std::all_of(replies.begin(), replies.end(), [](const CallReply* reply) { return reply->isFinished(); }))
            loop.quit();
    });
    check.start(5);
    QTimer::singleShot(20000, &loop, &QEventLoop::quit);
    loop.exec();
}

const std::string cancelled = R"({"message":"request cancelled","status":400})";

std::atomic<int> qtWarnings{0};

void countWarnings(QtMsgType type, const QMessageLogContext&, const QString&)
{
    if (type == QtWarningMsg)
        ++qtWarnings;
}

} // namespace

class AsyncTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { service.reset(); }
    void namesAndThreads();
    void credentialsInTheAddress();
    void everyCallTakesTheHostsProxy();
    void keptConnectionsCarryTheNextCalls();
    void manyInFlightEachReachTheirOwnCall();
    void cancelOrDeleteInFlightOrWaiting();
    void endedFromItsOwnProgressSlot();
    void deletedInItsOwnFinished();
    void aClientGoneFinishesItsCalls();
    void downloadsOfOneNameNeverMix();
    void callsFromAnotherThread();
    void cancellingEveryCallSendsNoMore();
    void aDownloadLeavesNoFileWhenItEnds();
    void aFailureSaysWhy();

private:
    TestService service;
};

// Any free operation by its name, with or without its prefix, gives what its
// blocking function gives; an unknown name and a call from another thread send
// nothing, and every reply finishes only after call() returned.
void AsyncTest::namesAndThreads()
{
    Client client;
    const std::string argument = shareQuery(service, 7);
    const struct {
        std::string name;
        OperationFunction blocking; // nullptr: nothing is sent
        std::string result;
    } rows[] = {
        {"select_share", norva_sdk_select_share, ""},
        {"norva_sdk_select_share", norva_sdk_select_share, ""},
        {"get_all_model_id", NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_get_all_model_id, ""},
        {"norva_tavlin_get_all_model_id", NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_get_all_model_id, ""},
        {"sdk_select_share", nullptr, R"({"message":"unknown operation","operation":"sdk_select_share","status":400})"},
    };
    for (const auto& row : rows) {
        service.reset();
        // A cookie the service sets is not sent back: a blocking call never
        // sends one, and a client's calls send what it would.
        ScriptedReply withCookie = ScriptedReply::json(R"({"code":200,"msg":"ok","data":null})");
        withCookie.headers.append(qMakePair(QByteArray("Set-Cookie"), QByteArray("SESSION=1; Path=/")));
        service.script(withCookie);
        const std::unique_ptr<CallReply> reply(client.call(row.name, argument));
        QVERIFY(!reply->isFinished());
        waitForAll({reply.get()});
        const std::string expected = row.blocking ? callOperation(row.blocking, QString::fromStdString(argument)).result.toStdString() : row.result;
        QCOMPARE(reply->result(), expected);
        QCOMPARE(service.requestCount(), row.blocking ? 2 : 0);
        // The same bytes: a client's later calls start from a head it made
        // ready while it waited.
        if (row.blocking)
            QCOMPARE(service.requests().at(0).raw, service.requests().at(1).raw);
    }

    // Cancelled before its answer at once came: finished() once, as cancelled.
    const std::unique_ptr<CallReply> unknown(client.call("sdk_select_share", argument));
    int finishedSignals = 0;
    QObject::connect(unknown.get(), &CallReply::finished, [&] { ++finishedSignals; });
    unknown->cancel();
    QCoreApplication::processEvents();
    QCOMPARE(finishedSignals, 1);
    QCOMPARE(unknown->result(), cancelled);

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    service.reset();
    QFuture<std::string> future = client.callFuture("select_share", argument);
    QTRY_VERIFY(future.isFinished());
    QCOMPARE(future.result(), callOperation(norva_sdk_select_share, QString::fromStdString(argument)).result.toStdString());
#endif

    // Moved to a worker's thread before its first call, as Qt's workers are,
    // a client makes its calls there: two, one after the other, so that the
    // second follows what the first left behind.
    const QtMessageHandler previousHandler = qInstallMessageHandler(countWarnings); // Qt's word on threads
    QThread worker;
    worker.start();
    auto* const moved = new Client;
    moved->moveToThread(&worker);
    std::vector<std::string> results; // the worker's until `done` is kept
    std::promise<void> done;
    std::function<void()> callNext = [&] {
        CallReply* const reply = moved->call("select_share", argument);
        QObject::connect(reply, &CallReply::finished, [&, reply] {
            results.push_back(reply->result());
            delete reply;
            if (results.size() < 2)
                callNext();
            else
                done.set_value();
        });
    };
    QMetaObject::invokeMethod(moved, callNext);
    QCOMPARE(done.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    QMetaObject::invokeMethod(moved, [moved] {
        delete moved;
        QThread::currentThread()->quit();
    });
    QVERIFY(worker.wait(20000));
    qInstallMessageHandler(previousHandler);
    QCOMPARE(qtWarnings.load(), 0);
    const std::string expected = callOperation(norva_sdk_select_share, QString::fromStdString(argument)).result.toStdString();
    QCOMPARE(results, std::vector<std::string>(2, expected));
}

// An address with credentials: the service challenges every call, and a
// client's second call answers the challenge as a blocking call does, rather
// than sending the credentials unasked.
// Every kind of call, through either face, goes the way Qt's manager would
// send it for the host's proxy settings, and never directly: the service's
// name does not resolve here, so only the proxy (this test's service) can
// have seen a request. An "http" service gets absolute-form requests, an
// "https" one a CONNECT to its port.
namespace {

// A SOCKS5 proxy that grants every tunnel and then plays the service at its
// end: for each tunnel it keeps the address asked for and the request's head.
class Socks5Recorder final : public QTcpServer
{
public:
    QList<QByteArray> seen; // "host:port POST /path HTTP/1.1..." for each tunnel

protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto* const socket = new QTcpSocket(this);
        socket->setSocketDescriptor(descriptor);
        auto buffer = std::make_shared<QByteArray>();
        auto target = std::make_shared<QByteArray>();
        connect(socket, &QTcpSocket::readyRead, socket, [this, socket, buffer, target] {
            QByteArray& b = *buffer;
            b += socket->readAll();
            if (target->isNull() && b.size() >= 2 && b.size() >= 2 + uchar(b.at(1)) && b.at(0) == 5) {
                b.remove(0, 2 + uchar(b.at(1))); // the greeting: no authentication, please
                socket->write(QByteArray("\x05\x00", 2));
                *target = "";
            }
            if (target->isEmpty() && b.size() >= 5 && b.at(3) == 3 && b.size() >= 7 + uchar(b.at(4))) {
                const int length = uchar(b.at(4)); // CONNECT to a name
                *target = b.mid(5, length) + ':' + QByteArray::number((uchar(b.at(5 + length)) << 8) | uchar(b.at(6 + length)));
                b.remove(0, 7 + length);
                socket->write(QByteArray("\x05\x00\x00\x01\x00\x00\x00\x00\x00\x00", 10));
            }
            if (!target->isEmpty() && b.contains("\r\n\r\n")) {
                seen << *target + ' ' + b.left(b.indexOf("\r\n\r\n"));
                b.clear();
                socket->write("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
                socket->disconnectFromHost();
            }
        });
    }
};

} // namespace

void AsyncTest::everyCallTakesTheHostsProxy()
{
    Socks5Recorder socks;
    QVERIFY(socks.listen(QHostAddress::LocalHost));
    struct ForRecords final : QNetworkProxyFactory {
        QNetworkProxy proxy;
        QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery& query) override
        {
            return {query.url().host() == "records.test" ? proxy : QNetworkProxy(QNetworkProxy::NoProxy)};
        }
    };
    const quint16 port = service.address().section(':', 1).toUShort();
    const QByteArray proxyUrl = "http://127.0.0.1:" + QByteArray::number(port);
    const bool systemProxies = QNetworkProxyFactory::usesSystemConfiguration();
    QTemporaryDir folder;
    const QString upload = folder.filePath("proxied.brd");
    writeFile(upload, boardBytes(2000));
    const struct {
        const char* name;
        std::function<void()> setUp; // undone by the test after each row
        QString service;
        QByteArray seen; // how every request the proxy saw starts, after the verb
    } setups[] = {
        {"application HTTP proxy", [port] { QNetworkProxy::setApplicationProxy({QNetworkProxy::HttpProxy, "127.0.0.1", port}); },
         "records.test:8080", " http://records.test:8080/"},
        {"application caching proxy",
         [port] { QNetworkProxy::setApplicationProxy({QNetworkProxy::HttpCachingProxy, "127.0.0.1", port}); },
         "records.test:8080", " http://records.test:8080/"},
        {"the host's URL factory",
         [port] {
             auto* const factory = new ForRecords;
             factory->proxy = {QNetworkProxy::HttpProxy, "127.0.0.1", port};
             QNetworkProxyFactory::setApplicationProxyFactory(factory);
         },
         "records.test", " http://records.test/"},
        // (Qt reads the environment's proxies when they are set at its start,
        // as the system's configuration; here they come later.)
        {"http_proxy",
         [proxyUrl] {
             qputenv("http_proxy", proxyUrl);
             QNetworkProxyFactory::setUseSystemConfiguration(true);
         },
         "records.test:8080", " http://records.test:8080/"},
        {"https_proxy, an https service",
         [proxyUrl] {
             qputenv("https_proxy", proxyUrl);
             QNetworkProxyFactory::setUseSystemConfiguration(true);
         },
         "https://records.test",
         "CONNECT records.test:443 HTTP/1.1\r\n"},
        {"application SOCKS5 proxy",
         [&socks] { QNetworkProxy::setApplicationProxy({QNetworkProxy::Socks5Proxy, "127.0.0.1", socks.serverPort()}); },
         "records.test:8080", "records.test:8080 "},
        {"HTTP proxy, an https service",
         [port] { QNetworkProxy::setApplicationProxy({QNetworkProxy::HttpProxy, "127.0.0.1", port}); }, "https://records.test:8443",
         "CONNECT records.test:8443 HTTP/1.1\r\n"},
    };
    struct Call {
        OperationFunction operation;
        QByteArray verb;
        QString extra;
    };
    const Call calls[] = {
        {norva_sdk_select_share, "POST", R"("currentUserId":1)"},
        {NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_get_all_model_id, "GET", ""},
        {norva_sdk_upload_file, "POST", R"("file_uploadpath":")" + upload + '"'},
        {norva_sdk_download_binary_file, "POST", R"("file_downloadpath":")" + folder.path() + R"(","data":{"id":1})"},
    };
    for (const auto& setup : setups) {
        setup.setUp();
        const QUrl serviceUrl(setup.service.contains("://") ? setup.service : "http://" + setup.service);
        const bool proxied = QNetworkProxyFactory::proxyForQuery(QNetworkProxyQuery(serviceUrl)).value(0).type()
                             != QNetworkProxy::NoProxy;
        // Only Linux's system settings are the environment's (Windows keeps its own).
        if (!proxied)
            qInfo("%s: the system's proxy settings do not read the environment here", setup.name);
        for (const auto& call : proxied ? std::vector<Call>(std::begin(calls), std::end(calls)) : std::vector<Call>()) {
            for (const Face face : {Face::Blocking, Face::Async}) {
                const FaceScope scope(face);
                service.reset();
                socks.seen.clear();
                QString argument = R"({"ipconfig":")" + setup.service + R"(","token":"tk")";
                if (!call.extra.isEmpty())
                    argument += ',' + call.extra;
                callOperation(call.operation, argument + '}');
                std::vector<RecordedRequest> seen = service.requests();
                for (const QByteArray& tunnelled : socks.seen)
                    seen.push_back({{}, {}, {}, {}, tunnelled});
                const QByteArray start = setup.seen.startsWith(' ')   ? call.verb + setup.seen
                                         : setup.seen.endsWith(' ') ? setup.seen + call.verb + " /"
                                                                    : setup.seen;
                const QString where = QString("%1, %2, %3").arg(setup.name, QString(call.verb),
                                                                face == Face::Async ? "async" : "blocking");
                QVERIFY2(!seen.empty(), qPrintable(where));
                for (const RecordedRequest& request : seen)
                    QVERIFY2(request.raw.startsWith(start), qPrintable(where + ": " + request.raw.left(80)));
            }
        }
        QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
        QNetworkProxyFactory::setApplicationProxyFactory(nullptr);
        QNetworkProxyFactory::setUseSystemConfiguration(systemProxies);
        qunsetenv("http_proxy");
        qunsetenv("https_proxy");
    }
}

// One connection carries a client's calls one after the other while the
// service keeps it; one the service closes while it lies unused costs the
// host nothing: the call that finds it closed goes again on a new one, the
// same result every time, whichever moment the close is seen.
void AsyncTest::keptConnectionsCarryTheNextCalls()
{
    const std::string argument = shareQuery(service, 7);
    const QByteArray body = R"({"code":200,"msg":"ok","data":[]})";
    const auto callOnce = [&argument](Client& client) {
        const std::unique_ptr<CallReply> reply(client.call("select_share", argument));
        waitForAll({reply.get()});
        return reply->result();
    };
    ScriptedReply kept = ScriptedReply::json(body);
    kept.keepConnection = true;
    {
        Client client;
        service.setDefaultReply(kept);
        const std::string first = callOnce(client);
        for (int call = 0; call < 4; ++call)
            QCOMPARE(callOnce(client), first);
        QCOMPARE(service.requestCount(), 5);
        QCOMPARE(service.connectionCount(), 1);
    }
    // Said to be kept, then closed unread.
    const QByteArray keptThenClosed = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: "
                                      + QByteArray::number(body.size()) + "\r\n\r\n" + body;
    for (int round = 0; round < 20; ++round) {
        service.reset();
        service.setDefaultReply(ScriptedReply::raw(keptThenClosed));
        Client client;
        const std::string first = callOnce(client);
        QVERIFY(first.find("\"status\":200") != std::string::npos);
        QCOMPARE(callOnce(client), first);
        QCOMPARE(service.requestCount(), 2);
    }
}

void AsyncTest::credentialsInTheAddress()
{
    const QString argument = substitute(R"({"ipconfig":"u:p@$ADDR","token":"tk","currentUserId":1})", service.address());
    ScriptedReply challenge = ScriptedReply::withStatus(401);
    challenge.headers.append(qMakePair(QByteArray("WWW-Authenticate"), QByteArray(R"(Basic realm="r")")));
    const auto script = [&] {
        service.reset();
        service.script(challenge);
        service.script(ScriptedReply::json(R"({"code":200,"data":[]})"));
    };
    Client client;
    for (int call = 0; call < 2; ++call) {
        script();
        const std::string blocking = callOperation(norva_sdk_select_share, argument).result.toStdString();
        const std::vector<RecordedRequest> sentByBlocking = service.requests();
        script();
        const std::unique_ptr<CallReply> reply(client.call("select_share", argument.toStdString()));
        waitForAll({reply.get()});
        QVERIFY(blocking.find(R"("status":200)") != std::string::npos);
        QCOMPARE(reply->result(), blocking);
        QCOMPARE(service.requestCount(), 2);
        for (int i = 0; i < 2; ++i)
            QCOMPARE(service.requests().at(i).raw, sentByBlocking.at(i).raw);
    }
}

// 200 calls at once against a service that answers in another order, each
// with its own request's body: every reply carries its own call's body. Calls
// made from the slots run without a nested event loop.
void AsyncTest::manyInFlightEachReachTheirOwnCall()
{
    service.setDefaultReply(ScriptedReply::echo(20));
    Client client;
    client.setMaxCallsInFlight(200);
    std::vector<std::unique_ptr<CallReply>> replies;
    std::vector<int> finishOrder;
    std::vector<int> loopLevels;
    std::function<void(int)> start;
    start = [&](int user) {
        replies.emplace_back(client.call(norva_sdk_select_share, shareQuery(service, user)));
        QObject::connect(replies.back().get(), &CallReply::finished, [&, user] {
            finishOrder.push_back(user);
            loopLevels.push_back(QThread::currentThread()->loopLevel());
            if (user < 20) // a call from a slot
                start(1000 + user);
        });
    };
    for (int user = 0; user < 200; ++user)
        start(user);
    QEventLoop loop;
    QTimer check;
    QObject::connect(&check, &QTimer::timeout, &loop, [&] {
        if (finishOrder.size() == 220)
            loop.quit();
    });
    check.start(5);
    QTimer::singleShot(30000, &loop, &QEventLoop::quit);
    loop.exec();

    QCOMPARE(int(finishOrder.size()), 220);
    QCOMPARE(loopLevels, std::vector<int>(220, 1));
    std::vector<int> sorted = finishOrder;
    std::sort(sorted.begin(), sorted.end());
    QVERIFY(sorted != finishOrder); // the service did answer out of order
    for (int user = 0; user < 200; ++user) {
        const QJsonObject result = QJsonDocument::fromJson(QByteArray::fromStdString(replies[user]->result())).object();
        const QJsonObject sent = QJsonDocument::fromJson(result.value("data").toString().toUtf8()).object();
        QCOMPARE(result.value("status").toInt(), 200);
        QCOMPARE(sent.value("currentUserId").toInt(), user);
    }
}

// With one call in flight and two waiting: a waiting call cancelled is never
// sent, a call deleted in flight lets the next one go, and a call cancelled
// in flight finishes as cancelled.
void AsyncTest::cancelOrDeleteInFlightOrWaiting()
{
    service.setDefaultReply(ScriptedReply::stall());
    Client client;
    client.setMaxCallsInFlight(1);
    auto first = std::make_unique<CallReply*>(client.call("select_share", shareQuery(service, 1)));
    const std::unique_ptr<CallReply> second(client.call("select_share", shareQuery(service, 2)));
    const std::unique_ptr<CallReply> third(client.call("select_share", shareQuery(service, 3)));
    int finishedSignals = 0;
    for (CallReply* reply : {*first, second.get(), third.get()})
        QObject::connect(reply, &CallReply::finished, [&] { ++finishedSignals; });
    QTRY_COMPARE(service.requestCount(), 1);

    second->cancel();
    QVERIFY(second->isFinished());
    QCOMPARE(second->result(), cancelled);
    delete *first; // in flight: no finished(), and the third goes
    QTRY_COMPARE(service.requestCount(), 2);
    QVERIFY(service.lastRequest().body.contains(R"("currentUserId":3,)"));
    third->cancel();
    waitForAll({third.get()});
    QCOMPARE(third->result(), cancelled);
    QCOMPARE(finishedSignals, 2);
}

// A call cancelled, or its reply deleted, from a slot of its own progress: the
// exchange's code is then under way beneath the slot and must outlive it (the
// sanitizer pass sees any use after it went). The call ends as cancelled, and
// the next one goes.
void AsyncTest::endedFromItsOwnProgressSlot()
{
    service.setDefaultReply(ScriptedReply::stall());
    for (const bool deleteIt : {false, true}) {
        const int sentBefore = service.requestCount();
        Client client;
        client.setMaxCallsInFlight(1);
        CallReply* const reply = client.call("select_share", shareQuery(service, 1));
        const std::unique_ptr<CallReply> next(client.call("select_share", shareQuery(service, 2)));
        int finishedSignals = 0;
        std::string resultInSlot;
        QObject::connect(reply, &CallReply::finished, [&] { ++finishedSignals; });
        QObject::connect(reply, &CallReply::progress, reply, [&, reply] {
            if (deleteIt) {
                delete reply;
                return;
            }
            reply->cancel();
            resultInSlot = reply->result();
        });
        QTRY_COMPARE(service.requestCount(), sentBefore + 2);
        // (The two connections are recorded by threads of their own, in either order.)
        const std::vector<RecordedRequest> sent = service.requests();
        QVERIFY(std::any_of(sent.begin() + sentBefore, sent.end(),
                            [](const RecordedRequest& r) { return r.body.contains(R"("currentUserId":2,)"); }));
        QCOMPARE(finishedSignals, deleteIt ? 0 : 1);
        if (!deleteIt) {
            QCOMPARE(resultInSlot, cancelled);
            delete reply;
        }
    }
}

// A reply deleted in a slot of its own finished(), whichever way its call
// ended, and by a host that first runs its own loop there (where what the call
// left is deleted): nothing of it is touched afterwards (the sanitizer pass
// would see it).
void AsyncTest::deletedInItsOwnFinished()
{
    enum Way { Answered, UnknownName, CancelledInFlight, CancelledWaiting, ClientGone, ClientGoneInSlot, LoopInSlot };
    for (const Way way :
         {Answered, UnknownName, CancelledInFlight, CancelledWaiting, ClientGone, ClientGoneInSlot, LoopInSlot}) {
        const bool answered = way == Answered || way == ClientGoneInSlot || way == LoopInSlot;
        service.setDefaultReply(answered ? ScriptedReply::json(R"({"code":200,"data":[]})") : ScriptedReply::stall());
        const int sentBefore = service.requestCount();
        auto client = std::make_unique<Client>();
        client->setMaxCallsInFlight(1);
        std::unique_ptr<CallReply> inFlightBefore;
        if (way == CancelledWaiting)
            inFlightBefore.reset(client->call("select_share", shareQuery(service, 0)));
        const QPointer<CallReply> reply =
            client->call(way == UnknownName ? "no_such_operation" : "select_share", shareQuery(service, 1));
        int finishedSignals = 0;
        std::string result;
        QObject::connect(reply, &CallReply::finished, [&, reply = reply.data()] {
            ++finishedSignals;
            result = reply->result();
            if (way == LoopInSlot) // the host's own loop: what the call left goes now
                QCoreApplication::processEvents();
            delete reply;
            if (way == ClientGoneInSlot) // a window that owned the client closes
                client.reset();
        });
        if (way == CancelledInFlight || way == CancelledWaiting || way == ClientGone)
            QTRY_COMPARE(service.requestCount(), sentBefore + 1);
        if (way == CancelledInFlight || way == CancelledWaiting)
            reply->cancel();
        if (way == ClientGone)
            client.reset();
        QTRY_VERIFY(reply.isNull());
        QCOMPARE(finishedSignals, 1);
        const bool cancelledWay = way == CancelledInFlight || way == CancelledWaiting || way == ClientGone;
        QCOMPARE(result == cancelled, cancelledWay);
        QCOMPARE(result.find("unknown operation") != std::string::npos, way == UnknownName);
    }
}

// A client destroyed with calls in flight and waiting: each finishes, once, as
// cancelled.
void AsyncTest::aClientGoneFinishesItsCalls()
{
    service.setDefaultReply(ScriptedReply::stall());
    auto client = std::make_unique<Client>();
    client->setMaxCallsInFlight(2);
    std::vector<std::unique_ptr<CallReply>> replies;
    int finishedSignals = 0;
    for (int user = 0; user < 3; ++user) {
        replies.emplace_back(client->call("select_share", shareQuery(service, user)));
        QObject::connect(replies.back().get(), &CallReply::finished, [&] { ++finishedSignals; });
    }
    QTRY_COMPARE(service.requestCount(), 2);
    client.reset();
    QCOMPARE(finishedSignals, 3);
    for (const auto& reply : replies)
        QCOMPARE(reply->result(), cancelled);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::processEvents();
    QCOMPARE(finishedSignals, 3);
}

// Eight downloads of one name at once: the file is one whole body, and nothing
// else is left in the folder.
void AsyncTest::downloadsOfOneNameNeverMix()
{
    QTemporaryDir folder;
    std::vector<QByteArray> bodies;
    for (int i = 0; i < 8; ++i) {
        bodies.push_back(QByteArray(256 * 1024, char('a' + i)));
        service.script(ScriptedReply::file(bodies.back(), "filename=board.gbr"));
    }
    Client client;
    client.setMaxCallsInFlight(8);
    const std::string argument =
        substitute(R"({"ipconfig":"$ADDR","token":"tk","file_downloadpath":")" + folder.path() + R"(","data":{"id":1}})",
                   service.address()).toStdString();
    std::vector<std::unique_ptr<CallReply>> replies;
    std::vector<CallProgress> last(8, CallProgress{nullptr, 0, -1, 0, -1});
    bool onlyGrew = true;
    for (int i = 0; i < 8; ++i) {
        replies.emplace_back(client.call("download_binary_file", argument));
        QObject::connect(replies.back().get(), &CallReply::progress, [&, i](const CallProgress& progress) {
            onlyGrew = onlyGrew && progress.bytesReceived >= last[i].bytesReceived && progress.bytesSent >= last[i].bytesSent;
            last[i] = progress;
        });
    }
    std::vector<CallReply*> waiting;
    for (const auto& reply : replies)
        waiting.push_back(reply.get());
    waitForAll(waiting);
    for (const auto& reply : replies)
        QCOMPARE(reply->result(), std::string(R"({"filename":"board.gbr","message":"download success","new_name":"","status":200})"));
    QCOMPARE(filesBelow(folder.path()), QStringList{"board.gbr"});
    // Each reply's progress, paced as the observer's, ends with its whole body.
    QVERIFY(onlyGrew);
    for (const CallProgress& progress : last) {
        QCOMPARE(QByteArray(progress.operation), QByteArray("norva_sdk_download_binary_file"));
        QCOMPARE(progress.bytesReceived, qint64(256 * 1024));
        QCOMPARE(progress.bytesToReceive, qint64(256 * 1024));
    }
    const QByteArray stored = readFile(folder.filePath("board.gbr"));
    QVERIFY(std::find(bodies.begin(), bodies.end(), stored) != bodies.end());
}

// A call from another thread sends nothing; its reply lives on the caller's
// thread. A caller that connects only after other work still hears finished()
// from its own loop; callers on four threads that delete their replies at any
// moment (before, while or after the finish is delivered) crash nothing, while
// the client's thread runs its loop.
void AsyncTest::callsFromAnotherThread()
{
    Client client;
    const std::string argument = shareQuery(service, 7);
    const std::string refused = R"({"message":"called from a thread other than the client's","status":400})";

    QThread caller;
    caller.start();
    QObject onCaller;
    onCaller.moveToThread(&caller);
    std::promise<std::string> heard;
    QMetaObject::invokeMethod(&onCaller, [&] {
        CallReply* const reply = client.call("select_share", argument);
        QThread::msleep(100); // other work first
        QObject::connect(reply, &CallReply::finished, [&heard, reply] {
            heard.set_value(reply->result());
            delete reply;
        });
    });
    std::future<std::string> result = heard.get_future();
    const bool ready = result.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    caller.quit();
    QVERIFY(caller.wait(10000));
    QVERIFY(ready);
    QCOMPARE(result.get(), refused);

    std::atomic<int> running{4};
    std::atomic<int> heardRefused{0};
    std::atomic<int> delivered{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&, t] {
            for (int i = 0; i < 30000; ++i) {
                CallReply* const reply = client.call("select_share", argument);
                QObject::connect(reply, &CallReply::finished, [&, reply] { heardRefused += reply->result() == refused; });
                switch ((i + t) % 4) {
                case 0: break; // deleted at once
                case 1: std::this_thread::yield(); break;
                case 2: for (volatile int spin = 0; spin < i % 500; ++spin) {} break;
                case 3: // after finished() was delivered
                    QCoreApplication::sendPostedEvents(reply);
                    delivered += reply->isFinished();
                    break;
                }
                delete reply;
            }
            --running;
        });
    }
    QEventLoop clientLoop; // the client's thread turns meanwhile
    QTimer check;
    QObject::connect(&check, &QTimer::timeout, &clientLoop, [&] {
        if (running == 0)
            clientLoop.quit();
    });
    check.start(5);
    clientLoop.exec();
    for (std::thread& thread : callers)
        thread.join();
    QCOMPARE(delivered.load(), 30000);
    QCOMPARE(heardRefused.load(), 30000);
    QCOMPARE(service.requestCount(), 0);
}

// Every reply of a client cancelled (or deleted) in one loop while six are in
// flight and more wait: the service gets the six and nothing more, in every
// round. A QFuture cancelled, waiting or in flight, ends as cancelled, and the
// one that waited is never sent.
void AsyncTest::cancellingEveryCallSendsNoMore()
{
    service.setDefaultReply(ScriptedReply::stall());
    for (int round = 0; round < 16; ++round) {
        const bool deleteThem = round % 2;
        service.reset();
        service.setDefaultReply(ScriptedReply::stall());
        Client client;
        std::vector<CallReply*> replies;
        std::vector<std::string> results;
        for (int user = 0; user < 40; ++user) {
            replies.push_back(client.call("select_share", shareQuery(service, user)));
            QObject::connect(replies.back(), &CallReply::finished, [&, reply = replies.back()] { results.push_back(reply->result()); });
        }
        QTRY_COMPARE(service.requestCount(), 6);
        for (CallReply* reply : replies) {
            if (deleteThem)
                delete reply;
            else
                reply->cancel();
        }
        QTest::qWait(100);
        QCOMPARE(service.requestCount(), 6);
        QCOMPARE(results, std::vector<std::string>(deleteThem ? 0 : 40, cancelled));
        if (!deleteThem)
            qDeleteAll(replies);
    }

#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    service.reset();
    service.setDefaultReply(ScriptedReply::stall());
    Client client;
    client.setMaxCallsInFlight(1);
    QFuture<std::string> inFlight = client.callFuture("select_share", shareQuery(service, 1));
    QFuture<std::string> waiting = client.callFuture("select_share", shareQuery(service, 2));
    bool onCanceledRan = false;
    inFlight.onCanceled([&] {
        onCanceledRan = true;
        return std::string();
    });
    QTRY_COMPARE(service.requestCount(), 1);
    waiting.cancel();
    QTRY_VERIFY(waiting.isFinished());
    QVERIFY(waiting.isCanceled());
    inFlight.cancel();
    QTRY_VERIFY(inFlight.isFinished());
    QVERIFY(inFlight.isCanceled());
    QTRY_VERIFY(onCanceledRan);
    QTest::qWait(100);
    QCOMPARE(service.requestCount(), 1);
#endif
}

// A download that fails, is cancelled or is deleted half way has removed its
// temporary file by the time its host hears of it, so a host that ends at once
// leaves nothing behind.
void AsyncTest::aDownloadLeavesNoFileWhenItEnds()
{
    enum Ending { CutShort, Cancelled, Deleted };
    const QByteArray head = "HTTP/1.1 200 OK\r\nContent-Disposition: attachment; filename=board.gbr\r\n"
                            "Content-Length: 400000\r\n\r\n";
    for (const Ending ending : {CutShort, Cancelled, Deleted}) {
        QTemporaryDir folder;
        service.reset();
        const QByteArray part = head + QByteArray(200000, 'b');
        service.script(ending == CutShort ? ScriptedReply::raw(part) : ScriptedReply::rawThenSilent(part));
        Client client;
        const std::string argument = substitute(R"({"ipconfig":"$ADDR","token":"tk","file_downloadpath":")" + folder.path()
                                                    + R"(","data":{"id":1}})", service.address()).toStdString();
        CallReply* const reply = client.call("download_binary_file", argument);
        QStringList leftAtTheEnd{"<not ended>"};
        std::string result;
        QObject::connect(reply, &CallReply::finished, [&] {
            result = reply->result();
            leftAtTheEnd = filesBelow(folder.path());
        });
        bool acted = false;
        QObject::connect(reply, &CallReply::progress, [&](const CallProgress& progress) {
            if (progress.bytesReceived < 100000 || ending == CutShort || acted)
                return;
            acted = true;
            QCOMPARE(filesBelow(folder.path()).size(), 1); // the file it takes the body in
            if (ending == Cancelled) {
                reply->cancel();
                return;
            }
            delete reply;
            leftAtTheEnd = filesBelow(folder.path());
        });
        QTRY_VERIFY(leftAtTheEnd != QStringList{"<not ended>"});
        QCOMPARE(leftAtTheEnd, QStringList());
        if (ending != Deleted) {
            QCOMPARE(result, std::string(ending == Cancelled ? cancelled : R"({"message":"download fail","status":400})"));
            delete reply;
        }
    }
}

// Why a call got no reply, from a reply and from the blocking function of the
// same call (its thread's last call): the cause, and a line naming the address.
void AsyncTest::aFailureSaysWhy()
{
    const QString refused = refusedAddress();
    const struct {
        const char* name;
        QString ipconfig;
        ScriptedReply reply;
        CallFailure cause;
        QString text; // what the line starts with; $ADDR and $REFUSED stand for the addresses
    } rows[] = {
        {"answered", "$ADDR", ScriptedReply::json(R"({"code":411})"), CallFailure::None, ""},
        {"refused", refused, ScriptedReply::stall(), CallFailure::ConnectionRefused, "Connection refused (http://$REFUSED)"},
        {"unknown host", "nosuch.invalid:80", ScriptedReply::stall(), CallFailure::HostNotFound,
         "Host nosuch.invalid not found (http://nosuch.invalid:80)"},
        {"no address", "", ScriptedReply::stall(), CallFailure::HostNotFound, "No service address"},
        {"closed early", "$ADDR", ScriptedReply::closeWithoutAnswer(), CallFailure::ClosedEarly,
         "http://$ADDR closed the connection before a reply came"},
        {"silent past the idle limit", "$ADDR", ScriptedReply::stall(), CallFailure::IdleLimit,
         "No byte from http://$ADDR for the whole idle limit"},
        {"TLS to a plain port", "https://$ADDR", ScriptedReply::stall(), CallFailure::TlsHandshakeFailed,
         "TLS handshake with https://$ADDR failed"},
    };
    for (const auto& row : rows) {
        const QString argument = R"({"ipconfig":")" + row.ipconfig + R"(","token":"tk","currentUserId":1})";
        const QString expected = QString(row.text).replace("$ADDR", service.address()).replace("$REFUSED", refused);
        for (const bool async : {true, false}) {
            service.reset();
            service.setDefaultReply(row.reply);
            CallFailure cause = CallFailure::None;
            QString text;
            if (async) {
                Client client;
                client.setIdleLimit(300);
                const std::unique_ptr<CallReply> reply(client.call("select_share", substitute(argument, service.address()).toStdString()));
                QVERIFY(reply->failure() == CallFailure::None); // not before it finished
                waitForAll({reply.get()});
                cause = reply->failure();
                text = QString::fromStdString(reply->failureText());
            } else {
                NORVA::NORVA_API_QT::setIdleLimit(300);
                callOperation(norva_sdk_select_share, substitute(argument, service.address()));
                NORVA::NORVA_API_QT::setIdleLimit(120 * 1000);
                cause = lastCallFailure();
                text = QString::fromStdString(lastCallFailureText());
            }
            QVERIFY2(cause == row.cause, row.name);
            QVERIFY2(row.text.isEmpty() ? text.isEmpty() : text.startsWith(expected), qPrintable(row.name + (": " + text)));
        }
    }

    // The face's own refusals, and a cancel.
    service.setDefaultReply(ScriptedReply::stall());
    Client client;
    const std::unique_ptr<CallReply> unknown(client.call("no_such_operation", "{}"));
    const std::unique_ptr<CallReply> cancelledCall(client.call("select_share", shareQuery(service, 1)));
    cancelledCall->cancel();
    CallReply* fromElsewhere = nullptr;
    std::thread([&] {
        fromElsewhere = client.call("select_share", "{}");
        QCoreApplication::sendPostedEvents(fromElsewhere);
    }).join();
    const std::unique_ptr<CallReply> owned(fromElsewhere);
    waitForAll({unknown.get()});
    QVERIFY(unknown->failure() == CallFailure::UnknownOperation);
    QCOMPARE(unknown->failureText(), std::string("No operation named no_such_operation"));
    QVERIFY(cancelledCall->failure() == CallFailure::Cancelled);
    QVERIFY(fromElsewhere->failure() == CallFailure::WrongThread);
}

QTEST_GUILESS_MAIN(AsyncTest)
#include "test_async.moc"
