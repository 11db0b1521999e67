// SPDX-License-Identifier: MIT
// A file as the body of an upload part.
#pragma once

#include <QFile>
#include <QIODevice>
#include <QString>

namespace norva::transfer {

// Streams one file into an upload form, holding the file open only while the
// form reads it: a folder of any size costs one open file at a time, and no
// file is read into memory.
//
// The size is taken when the part is made. A file that is missing or can't be
// read counts as empty, so its part holds just its header and the form still
// goes out, as with an empty file.
class UploadFile : public QIODevice
{
public:
    explicit UploadFile(const QString& path, QObject* parent = nullptr);

    bool isSequential() const override { return false; }
    qint64 size() const override { return fileSize; }
    bool seek(qint64 position) override;

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char*, qint64) override { return -1; }

private:
    QFile file;
    const qint64 fileSize;
};

} // namespace norva::transfer
