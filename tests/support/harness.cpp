#include "support/harness.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>

#include <iostream>

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

CallResult callOperation(OperationFunction operation, const QString& argument)
{
    StdoutCapture capture;
    CallResult call;
    call.applicationBefore = QCoreApplication::instance();
    call.result = QString::fromStdString(operation(argument.toStdString()));
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
