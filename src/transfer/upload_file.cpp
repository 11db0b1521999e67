// SPDX-License-Identifier: MIT
#include "transfer/upload_file.h"

#include "transfer/file_path.h"

#include <QFileInfo>

namespace norva::transfer {

namespace {

qint64 readableSize(const QString& path)
{
    const QFileInfo info(path);
    return info.isFile() && info.isReadable() ? info.size() : 0;
}

} // namespace

UploadFile::UploadFile(const QString& path, QObject* parent)
    : QIODevice(parent), file(fileOnDisk(path)), fileSize(readableSize(file.fileName())) // `file` is declared first
{
    // Unbuffered: the form asks for what it sends, and nothing is held twice.
    QIODevice::open(QIODevice::ReadOnly | QIODevice::Unbuffered);
}

bool UploadFile::seek(qint64 position)
{
    if (position < 0 || position > fileSize)
        return false;
    if (file.isOpen() && !file.seek(position))
        return false;
    return QIODevice::seek(position);
}

qint64 UploadFile::readData(char* data, qint64 maxSize)
{
    const qint64 position = pos();
    const qint64 wanted = qMin(maxSize, fileSize - position);
    if (wanted <= 0) {
        file.close();
        return 0;
    }
    if (!file.isOpen() && (!file.open(QIODevice::ReadOnly) || !file.seek(position)))
        return -1;
    const qint64 got = file.read(data, wanted);
    // A file that shrank since its size was taken would leave the form short
    // of its announced length: fail the upload rather than stall it.
    if (got <= 0)
        return -1;
    if (position + got >= fileSize)
        file.close();
    return got;
}

} // namespace norva::transfer
