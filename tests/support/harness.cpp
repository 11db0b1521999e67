// SPDX-License-Identifier: MIT
#include "support/harness.h"

#include "norva_api_qt_async.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QDir>
#include <QDirIterator>
#include <QFile>

#include <iostream>
#include <memory>

namespace testing_support {

StdoutCapture::StdoutCapture() : previous(std::cout.rdbuf(captured.rdbuf())) {}

StdoutCapture::~StdoutCapture()
{
    std::cout.rdbuf(previous);
}

QStringList StdoutCapture::lines() const
{
    QStringList lines = QString::fromStdString(captured.str()).split(QLatin1Char('\n'));
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

QString substitute(QString text, const QString& address)
{
    if (text.contains(QStringLiteral("$REFUSED")))
        text.replace(QStringLiteral("$REFUSED"), refusedAddress());
    return text.replace(QStringLiteral("$ADDR"), address);
}

namespace {

thread_local Face face = Face::Blocking;

std::string callThroughClient(OperationFunction operation, const std::string& argument)
{
    std::string result = "finished at once"; // finished() never comes before call() returned
    {
        NORVA::NORVA_API_QT::Client client;
        const std::unique_ptr<NORVA::NORVA_API_QT::CallReply> reply(client.call(operation, argument));
        if (!reply->isFinished()) {
            QEventLoop loop;
            QObject::connect(reply.get(), &NORVA::NORVA_API_QT::CallReply::finished, &loop, &QEventLoop::quit);
            loop.exec();
            result = reply->result();
        }
    }
    // What the client let go of later goes now, before the next call counts objects.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return result;
}

} // namespace

Face currentFace()
{
    return face;
}

FaceScope::FaceScope(Face chosen) : outer(face)
{
    face = chosen;
}

FaceScope::~FaceScope()
{
    face = outer;
}

CallResult callOperation(OperationFunction operation, const QString& argument)
{
    StdoutCapture capture;
    CallResult call;
    call.applicationBefore = QCoreApplication::instance();
    call.result = QString::fromStdString(face == Face::Async ? callThroughClient(operation, argument.toStdString())
                                                             : operation(argument.toStdString()));
    call.lines = capture.lines();
    call.output = QByteArray::fromStdString(capture.text());
    call.applicationAfter = QCoreApplication::instance();
    return call;
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

QStringList filesBelow(const QString& root)
{
    QStringList files;
    QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << QDir(root).relativeFilePath(it.next());
    files.sort();
    return files;
}

QByteArray boardBytes(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char('a' + i % 26);
    return bytes;
}

} // namespace testing_support
