// Long runs: thousands of calls leave nothing behind, and a folder with more
// files than the process may open at once uploads whole.
#include "support/harness.h"
#include "support/multipart.h"
#include "support/test_main.h"

#include "norva_api_qt.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/resource.h>

#include <atomic>
#include <fstream>

// Qt's hook table for debugging tools: entries 3 and 4 are called for every
// QObject made and destroyed.
extern quintptr Q_CORE_EXPORT qtHookData[];

using namespace testing_support;
using namespace NORVA::NORVA_API_QT;

namespace {

std::atomic<long> liveObjects{0};
void objectAdded(QObject*) { ++liveObjects; }
void objectRemoved(QObject*) { --liveObjects; }

int openDescriptors()
{
    return int(QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System | QDir::NoDotAndDotDot).size());
}

long residentKiB()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

void settle()
{
    if (QCoreApplication::instance()) {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
    }
}

} // namespace

class EnduranceTest : public QObject
{
    Q_OBJECT

private slots:
    void thousandsOfCallsLeaveNothingBehind();
    void aFolderLargerThanTheDescriptorLimitUploadsWhole();

private:
    TestService service;
    QTemporaryDir folder;
};

void EnduranceTest::thousandsOfCallsLeaveNothingBehind()
{
    if (qtHookData[2] != QT_VERSION)
        QSKIP("this Qt's hook table has another layout");
    const int calls = qEnvironmentVariableIsSet("NORVA_SOAK_CALLS") ? qEnvironmentVariableIntValue("NORVA_SOAK_CALLS") : 10000;

    service.setKeepingRequests(false);
    service.setDefaultReply(ScriptedReply::json(R"({"code":200,"msg":"ok","data":[1,2,3]})"));
    service.setReplyForPath("/kvr/originalFile/downloadFile", ScriptedReply::file(QByteArray(4096, 'd'), "filename=soak.gbr"));
    const QString upload = folder.filePath("soak.brd");
    {
        QFile file(upload);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(8192, 'u'));
    }
    const QString at = service.address();
    const std::string arguments[] = {
        QStringLiteral(R"({"ipconfig":"%1","username":"a","password":"b"})").arg(at).toStdString(),
        QStringLiteral(R"({"ipconfig":"%1","token":"t","boardname":"x"})").arg(at).toStdString(),
        QStringLiteral(R"({"ipconfig":"%1","token":"t","file_uploadpath":"%2"})").arg(at, upload).toStdString(),
        QStringLiteral(R"({"ipconfig":"%1","token":"t","file_downloadpath":"%2"})").arg(at, folder.path()).toStdString(),
        QStringLiteral(R"({"ipconfig":"%1"})").arg(at).toStdString(),
        QStringLiteral(R"({"ipconfig":"%1","username":"a"})").arg(refusedAddress()).toStdString(),
    };
    using Operation = std::string (*)(std::string);
    const Operation operations[] = {norva_sdk_login, norva_sdk_select_share, norva_sdk_upload_file,
                                    norva_sdk_download_binary_file, NORVA::TAVLIN_KVRAPI_QT::norva_tavlin_get_all_model_id,
                                    norva_sdk_login};
    const auto run = [&](int count) {
        StdoutDiscard quiet;
        int failures = 0;
        for (int i = 0; i < count; ++i) {
            const int which = i % 6;
            const std::string result = operations[which](arguments[which]);
            const bool expected = which == 5 ? result.find("Server shuts down") != std::string::npos
                                             : result.find("\"status\":200") != std::string::npos;
            failures += expected ? 0 : 1;
        }
        settle();
        return failures;
    };

    QCOMPARE(run(120), 0); // warm-up: Qt's own one-time allocations
    qtHookData[3] = reinterpret_cast<quintptr>(&objectAdded);
    qtHookData[4] = reinterpret_cast<quintptr>(&objectRemoved);
    const int descriptorsBefore = openDescriptors();
    const long residentBefore = residentKiB();

    const int failures = run(calls);

    qtHookData[3] = 0;
    qtHookData[4] = 0;
    const long residentAfter = residentKiB();
    qInfo("%d calls: descriptors %d -> %d, resident %ld -> %ld KiB, QObjects left %ld", calls, descriptorsBefore,
          openDescriptors(), residentBefore, residentAfter, liveObjects.load());
    QCOMPARE(failures, 0);
    QCOMPARE(openDescriptors(), descriptorsBefore);
    QCOMPARE(liveObjects.load(), 0L);
#if defined(__SANITIZE_ADDRESS__) || (defined(__has_feature) && __has_feature(address_sanitizer))
    // AddressSanitizer keeps freed memory in quarantine: resident size says nothing
    // here, and its leak checker reports what is lost at exit.
#else
    QVERIFY2(residentAfter - residentBefore < 16 * 1024, "resident memory grew by 16 MiB or more");
#endif
}

void EnduranceTest::aFolderLargerThanTheDescriptorLimitUploadsWhole()
{
    service.reset();
    const QString many = folder.filePath("many");
    QDir().mkpath(many);
    const int files = 2000;
    for (int i = 0; i < files; ++i) {
        QFile file(QStringLiteral("%1/board-%2.gbr").arg(many).arg(i));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QStringLiteral("G04 board %1*\n").arg(i).toUtf8().repeated(1 + i % 7));
    }

    rlimit original{};
    QCOMPARE(::getrlimit(RLIMIT_NOFILE, &original), 0);
    rlimit limited = original;
    limited.rlim_cur = 256;
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &limited), 0);
    QString result;
    {
        StdoutDiscard quiet;
        result = QString::fromStdString(norva_sdk_upload_files(
            QStringLiteral(R"({"ipconfig":"%1","token":"t","file_uploadpath":"%2"})").arg(service.address(), many).toStdString()));
    }
    ::setrlimit(RLIMIT_NOFILE, &original);
    QCOMPARE(result, QStringLiteral(R"({"message":"import files success","status":200})"));

    const RecordedRequest request = service.lastRequest();
    QList<FormPart> parts;
    QVERIFY(parseMultipart(request.body, boundaryOf(request.header("Content-Type")), parts));
    QCOMPARE(parts.size(), files + 1);
    for (int p = 0; p < files; ++p) {
        const QByteArray disposition = parts[p].headers.value(0).second;
        const int i = disposition.mid(disposition.indexOf("board-") + 6).split('.').first().toInt();
        QCOMPARE(parts[p].body, QStringLiteral("G04 board %1*\n").arg(i).toUtf8().repeated(1 + i % 7));
    }
}

NORVA_TEST_MAIN(EnduranceTest)
#include "test_endurance.moc"
