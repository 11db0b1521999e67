// SPDX-License-Identifier: MIT
// Calling an operation the way a host does, and seeing what it printed.
#pragma once

#include "support/test_service.h"

#include <QString>
#include <QStringList>
#include <QtTest>

#include <sstream>
#include <string>
#include <vector>

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

// Through the face in use on this thread: the blocking function, or the
// asynchronous face (a client of its own, waited for here) while a FaceScope
// of Face::Async lives.
CallResult callOperation(OperationFunction operation, const QString& argument);

enum class Face { Blocking, Async };
Face currentFace();
class FaceScope
{
public:
    explicit FaceScope(Face face);
    ~FaceScope();
    FaceScope(const FaceScope&) = delete;
    FaceScope& operator=(const FaceScope&) = delete;

private:
    const Face outer;
};

// Files: `writeFile` makes the folder too and fails the test when it can't write;
// `readFile` gives "<missing>" for a file it can't read; `filesBelow` lists every
// file below `root` (hidden ones too) as sorted relative paths.
void writeFile(const QString& path, const QByteArray& bytes);
QByteArray readFile(const QString& path);
QStringList filesBelow(const QString& root);
// `size` bytes of a recognisable pattern.
QByteArray boardBytes(int size);

// A table of plain rows in one column "row", each row named by its `name`.
template <typename Row>
void addRows(const std::vector<Row>& rows)
{
    QTest::addColumn<Row>("row");
    for (const Row& row : rows)
        QTest::newRow(QString(row.name).toUtf8().constData()) << row;
}

} // namespace testing_support
