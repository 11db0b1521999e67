// The frame's own pieces, without the public header's view: reading modes,
// and the catch clauses reached through the internal fault seam.
#include "support/harness.h"

#include "frame/json_text.h"
#include "frame/reading.h"
#include "frame/seams.h"
#include "norva_api_qt_progress.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QtTest>

#include <new>
#include <stdexcept>

using namespace testing_support;
using norva::Read;

Q_DECLARE_METATYPE(norva::Read)
Q_DECLARE_METATYPE(norva::seam::FaultPoint)

namespace {

// What the fault hook throws, chosen by the test before each call.
enum class Throw { ParseError, Text, BadAlloc, Runtime };
Throw nextThrow = Throw::Runtime;
norva::seam::FaultPoint throwAt = norva::seam::FaultPoint::ArgumentsParsed;

void throwingHook(norva::seam::FaultPoint point)
{
    if (point != throwAt)
        return;
    switch (nextThrow) {
    case Throw::ParseError: {
        QJsonParseError error;
        error.error = QJsonParseError::UnterminatedObject;
        throw error;
    }
    case Throw::Text:
        throw std::string("disk on fire");
    case Throw::BadAlloc:
        throw std::bad_alloc();
    case Throw::Runtime:
        throw std::runtime_error("runtime trouble");
    }
}

} // namespace

Q_DECLARE_METATYPE(Throw)

class FrameTest : public QObject
{
    Q_OBJECT

private slots:
    void readingModes_data();
    void readingModes();
    void catchClauses_data();
    void catchClauses();
    void mallAndPlannerCatchClauses_data();
    void mallAndPlannerCatchClauses();
    void repeatedKeysAreRemovedBeforeParsing_data();
    void repeatedKeysAreRemovedBeforeParsing();
    void membersWithoutAnApplicationAnswerAtOnce();
    void idleServiceEndsTheWait_data();
    void idleServiceEndsTheWait();
    void cleanup() { norva::seam::setFaultHook(nullptr); }
};

void FrameTest::readingModes_data()
{
    QTest::addColumn<QByteArray>("value"); // the value of key "k"; empty: no key
    QTest::addColumn<Read>("mode");
    QTest::addColumn<QByteArray>("expected"); // {"v":...}; {} when no key results

    const struct {
        const char* value;
        Read mode;
        const char* expected;
    } rows[] = {
        {"", Read::Text, R"({"v":""})"},           {"5", Read::Text, R"({"v":""})"},
        {R"("t")", Read::Text, R"({"v":"t"})"},    {"", Read::Integer, R"({"v":0})"},
        {"7", Read::Integer, R"({"v":7})"},        {"1.0", Read::Integer, R"({"v":1})"},
        {"2.5", Read::Integer, R"({"v":0})"},      {R"("5")", Read::Integer, R"({"v":0})"},
        {"true", Read::Integer, R"({"v":0})"},     {"", Read::Raw, "{}"},
        {"null", Read::Raw, R"({"v":null})"},      {"[1]", Read::Raw, R"({"v":[1]})"},
        {"", Read::OptionalRaw, R"({"v":null})"},  {"false", Read::OptionalRaw, R"({"v":false})"},
        {"", Read::OptionalText, R"({"v":""})"},   {"3", Read::OptionalText, R"({"v":""})"},
        {"", Read::OptionalMessage, R"({"v":null})"}, {"3", Read::OptionalMessage, R"({"v":""})"},
        {R"("m")", Read::OptionalMessage, R"({"v":"m"})"},
    };
    for (const auto& row : rows)
        QTest::addRow("%s as mode %d", *row.value ? row.value : "missing", int(row.mode))
            << QByteArray(row.value) << row.mode << QByteArray(row.expected);
}

void FrameTest::readingModes()
{
    QFETCH(QByteArray, value);
    QFETCH(Read, mode);
    QFETCH(QByteArray, expected);
    const QJsonObject from =
        QJsonDocument::fromJson(value.isEmpty() ? QByteArray("{}") : "{\"k\":" + value + "}").object();
    const QJsonObject built = norva::mapKeys(from, {{"v", "k", mode}});
    QCOMPARE(QJsonDocument(built).toJson(QJsonDocument::Compact), expected);
}

void FrameTest::catchClauses_data()
{
    QTest::addColumn<Throw>("kind");
    QTest::addColumn<norva::seam::FaultPoint>("point");
    QTest::addColumn<bool>("echoes");
    QTest::addColumn<QString>("errorText");

    using norva::seam::FaultPoint;
    const QString parseErrorText = QJsonParseError{0, QJsonParseError::UnterminatedObject}.errorString();
    for (const auto point : {FaultPoint::ArgumentsParsed, FaultPoint::ApplicationStarted}) {
        const char* where = point == FaultPoint::ArgumentsParsed ? "before the application" : "after the application";
        for (const bool echoes : {true, false}) {
            const char* how = echoes ? "with echo" : "without echo";
            QTest::addRow("QJsonParseError %s %s", where, how) << Throw::ParseError << point << echoes << parseErrorText;
            QTest::addRow("std::string %s %s", where, how) << Throw::Text << point << echoes << "disk on fire";
            QTest::addRow("std::bad_alloc %s %s", where, how)
                << Throw::BadAlloc << point << echoes << QString::fromLatin1(std::bad_alloc().what());
            QTest::addRow("std::runtime_error %s %s", where, how) << Throw::Runtime << point << echoes << "runtime trouble";
        }
    }
}

void FrameTest::catchClauses()
{
    QFETCH(Throw, kind);
    QFETCH(norva::seam::FaultPoint, point);
    QFETCH(bool, echoes);
    QFETCH(QString, errorText);
    nextThrow = kind;
    throwAt = point;
    norva::seam::setFaultHook(throwingHook);

    TestService service;
    // select_order_by_page keeps the echo; get_all_model_id is one of those without.
    const OperationFunction operation = echoes ? NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_select_order_by_page
                                               : NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_get_all_model_id;
    const CallResult call = callOperation(operation, substitute(R"({"ipconfig":"$ADDR"})", service.address()));

    QJsonObject expectedDocument{{"status", 400}, {"error_message", errorText}};
    const QString expected = QString::fromUtf8(QJsonDocument(expectedDocument).toJson(QJsonDocument::Compact));
    QCOMPARE(call.result, expected);
    QVERIFY(!call.result.contains(QLatin1String("\"message\"")));
    QStringList lines{errorText};
    if (echoes)
        lines << expected;
    QCOMPARE(call.lines, lines);
    QCOMPARE(service.requestCount(), 0);
    // Unwinding ended the temporary application, if one was built.
    QCOMPARE(QCoreApplication::instance(), nullptr);
}

Q_DECLARE_METATYPE(testing_support::ScriptedReply)

void FrameTest::mallAndPlannerCatchClauses_data()
{
    QTest::addColumn<void*>("operation");
    QTest::addColumn<bool>("echoes");
    using namespace NORVA::TAVLIN_KVRAPI_QT;
    const struct {
        const char* name;
        OperationFunction operation;
        bool echoes;
    } rows[] = {
        {"select_order_by_page", norva_tavlin_select_order_by_page, true},
        {"select_boardid_by_order_num", norva_tavlin_select_boardid_by_order_num, false},
        {"select_orig_file_by_page", norva_tavlin_select_orig_file_by_page, false},
        {"get_bid_name_list_by_page", norva_tavlin_get_bid_name_list_by_page, false},
        {"get_all_model_id", norva_tavlin_get_all_model_id, false},
        {"get_latest_model_id", norva_tavlin_get_latest_model_id, false},
        {"get_process_parameters", norva_tavlin_get_process_parameters, false},
        {"download_binaryfile", norva_tavlin_download_binaryfile, true},
    };
    for (const auto& row : rows)
        QTest::newRow(row.name) << reinterpret_cast<void*>(row.operation) << row.echoes;
}

void FrameTest::mallAndPlannerCatchClauses()
{
    QFETCH(void*, operation);
    QFETCH(bool, echoes);
    nextThrow = Throw::Runtime;
    throwAt = norva::seam::FaultPoint::ArgumentsParsed;
    norva::seam::setFaultHook(throwingHook);
    const CallResult call = callOperation(reinterpret_cast<OperationFunction>(operation), R"({"ipconfig":"127.0.0.1:1"})");
    const QString document = R"({"error_message":"runtime trouble","status":400})";
    QCOMPARE(call.result, document);
    const QStringList lines = echoes ? QStringList{"runtime trouble", document} : QStringList{"runtime trouble"};
    QCOMPARE(call.lines, lines);
}

void FrameTest::repeatedKeysAreRemovedBeforeParsing_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("no repeats: untouched") << QByteArray(R"({"a":[1],"b":{"a":2}})") << QByteArray(R"({"a":[1],"b":{"a":2}})");
    QTest::newRow("the last member wins") << QByteArray(R"({"a":[1],"a":[2]})") << QByteArray(R"({"a":[2]})");
    QTest::newRow("other members stay") << QByteArray(R"({"a":{"x":0},"b":1,"a":{"y":1}})")
                                        << QByteArray(R"({"b":1,"a":{"y":1}})");
    QTest::newRow("repeats inside a dropped member")
        << QByteArray(R"({"o":{"k":[1],"k":[2]},"o":{"k":3}})") << QByteArray(R"({"o":{"k":3}})");
    QTest::newRow("repeats inside a kept member") << QByteArray(R"([{"k":[1],"k":[2]}])") << QByteArray(R"([{"k":[2]}])");
    QTest::newRow("keys compare decoded") << QByteArray(R"({"\u0061":[1],"a":[2]})") << QByteArray(R"({"a":[2]})");
    QTest::newRow("three of a key, escaped and not") << QByteArray("{\"\xc3\xa9\":[1],\"b\":0,\"\\u00e9\":[2],\"\xc3\xa9\":[3],\"e\":[4]}")
                                                     << QByteArray("{\"b\":0,\"\xc3\xa9\":[3],\"e\":[4]}");
    QTest::newRow("white space") << QByteArray("{ \"a\" : [1] ,\n \"a\" : 2 }") << QByteArray("{ \"a\" : 2 }");
    QTest::newRow("braces and quotes inside strings") << QByteArray(R"({"s":"}\"{","a":[1],"a":[2]})")
                                                      << QByteArray(R"({"s":"}\"{","a":[2]})");
    QTest::newRow("garbage behind the document: still cleaned")
        << QByteArray(R"({"a":[1],"a":[2]}})") << QByteArray(R"({"a":[2]}})");
    QTest::newRow("a member Qt would refuse is never removed") << QByteArray(R"({"a":tru,"a":[1]})")
                                                               << QByteArray(R"({"a":tru,"a":[1]})");
    QTest::newRow("invalid UTF-8 stays for Qt to refuse") << QByteArray("{\"a\":\"\xff\",\"a\":[1]}")
                                                          << QByteArray("{\"a\":\"\xff\",\"a\":[1]}");
    QTest::newRow("no JSON: untouched for Qt to refuse") << QByteArray(R"({"a":[1],"a":)") << QByteArray(R"({"a":[1],"a":)");
}

void FrameTest::repeatedKeysAreRemovedBeforeParsing()
{
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, expected);
    // (Qt's parser is not asked to read `text` itself: with repeated keys that is
    // the leak this avoids.)
    QCOMPARE(norva::withoutRepeatedKeys(text), expected);
}

void FrameTest::membersWithoutAnApplicationAnswerAtOnce()
{
    QVERIFY(!QCoreApplication::instance());
    TestService service;
    NORVA::NORVA_API_QT::NORVA_HTTP_API api;
    StdoutCapture quiet;
    const QString argument = substitute(R"({"ipconfig":"$ADDR","username":"a","file_downloadpath":"/tmp"})", service.address());
    const std::string request = argument.toStdString();
    QCOMPARE(QString::fromStdString(api.norva_sdk_login(request)), QStringLiteral(R"({"message":"request fail","status":400})"));
    QCOMPARE(QString::fromStdString(api.norva_sdk_download_binary_file(request)),
             QStringLiteral(R"({"message":"request fail","status":400})"));
    QCOMPARE(service.requestCount(), 0);
}

void FrameTest::idleServiceEndsTheWait_data()
{
    QTest::addColumn<ScriptedReply>("reply");
    const auto silentAfter = [](const QByteArray& bytes) {
        ScriptedReply reply = ScriptedReply::raw(bytes);
        reply.stallAfterwards = true;
        return reply;
    };
    QTest::newRow("silent from the start") << ScriptedReply::stall();
    QTest::newRow("silent after the headers") << silentAfter("HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\n");
    QTest::newRow("silent in the middle of the body") << silentAfter("HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\n{\"code\":");
    QTest::newRow("silent inside a chunk")
        << silentAfter("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n9\r\n{\"code\":2");
}

void FrameTest::idleServiceEndsTheWait()
{
    QFETCH(ScriptedReply, reply);
    TestService service;
    service.script(reply);
    NORVA::NORVA_API_QT::setIdleLimit(300);
    QElapsedTimer clock;
    clock.start();
    const CallResult call = callOperation(NORVA::NORVA_API_QT::norva_sdk_login,
                                          substitute(R"({"ipconfig":"$ADDR","username":"a"})", service.address()));
    NORVA::NORVA_API_QT::setIdleLimit(120 * 1000);
    QCOMPARE(call.result, QStringLiteral(R"({"message":"Server shuts down","status":400})"));
    QVERIFY2(clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));
}

QTEST_APPLESS_MAIN(FrameTest)
#include "test_frame.moc"
