#include "support/harness.h"

#include <QCoreApplication>

#include <iostream>

namespace testing_support {

StdoutCapture::StdoutCapture() : previous(std::cout.rdbuf(captured.rdbuf())) {}

StdoutCapture::~StdoutCapture()
{
    std::cout.rdbuf(previous);
}

StdoutDiscard::StdoutDiscard() : previous(std::cout.rdbuf(&sink)) {}

StdoutDiscard::~StdoutDiscard()
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

} // namespace testing_support
