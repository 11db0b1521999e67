// Calling an operation the way a host does, and seeing what it printed.
#pragma once

#include "support/test_service.h"

#include <QString>
#include <QStringList>

#include <sstream>
#include <string>

namespace testing_support {

using OperationFunction = std::string (*)(std::string);

// Redirects std::cout for its lifetime.
class StdoutCapture
{
public:
    StdoutCapture();
    ~StdoutCapture();
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;

    QStringList lines() const; // each line without its line end
    std::string text() const { return captured.str(); }

private:
    std::ostringstream captured;
    std::streambuf* previous;
};

// Sends std::cout nowhere for its lifetime (for long runs whose lines don't matter).
class StdoutDiscard
{
public:
    StdoutDiscard();
    ~StdoutDiscard();
    StdoutDiscard(const StdoutDiscard&) = delete;
    StdoutDiscard& operator=(const StdoutDiscard&) = delete;

private:
    struct Sink : std::streambuf {
        int overflow(int c) override { return c; }
        std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
    } sink;
    std::streambuf* previous;
};

struct CallResult {
    QString result;     // the returned text
    QStringList lines;  // what went to standard output meanwhile, as UTF-8
    QByteArray output;  // the same bytes as they were written
    // QCoreApplication::instance() before and after: a call leaves the host's
    // application (or the absence of one) as it found it.
    const void* applicationBefore = nullptr;
    const void* applicationAfter = nullptr;
};

// "$ADDR" in a text stands for the test service's address, "$REFUSED" for a
// loopback port where nothing listens.
QString substitute(QString text, const QString& address);

CallResult callOperation(OperationFunction operation, const QString& argument);

} // namespace testing_support
