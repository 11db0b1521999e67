// SPDX-License-Identifier: MIT
// Downloads: naming the stored file after the reply's Content-Disposition, and
// saving the reply's bytes in the caller's folder.
#pragma once

#include "frame/exchange.h"
#include "frame/result.h"

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QString>
#include <QFile>

#include <string>

namespace norva::transfer {

struct DownloadName {
    QString filename; // the name from the reply, stamped when asked
    QString newName;  // reName + "." + extension, or empty
    QString stored;   // what the file is stored under
};

// The name behind the last "=" of the percent-decoded header; `reName` (when not
// empty) wins over `timeStamp`, which inserts "_" + the time in `stampFormat`
// between the part before the first "." and the part behind the last ".".
DownloadName deriveDownloadName(const QByteArray& contentDisposition, const QString& reName,
                                bool timeStamp, const QDateTime& now, const QString& stampFormat);

// Whether a stored name stays directly inside the download folder.
bool staysInFolder(const QString& storedName);

// How the "error" text of an unopenable file is spelled.
enum class OpenFailureText { Compact, Spaced };

// Takes a 200 reply's body as it arrives into a hidden temporary file in the
// download folder, so that a large file is never held in memory. The file takes
// the stored name only once the whole body is in; otherwise it goes away with
// the spool. Where no such file can be made the body stays in memory.
class DownloadSpool final : public BodySink
{
public:
    explicit DownloadSpool(const QString& folder);
    ~DownloadSpool() override; // removes the file unless it took its name
    DownloadSpool(const DownloadSpool&) = delete;
    DownloadSpool& operator=(const DownloadSpool&) = delete;
    bool take(int httpStatus) override;
    void write(const char* data, qint64 size) override;
    void discard() override; // removes the file unless it took its name

    // Closes the file; false when any write failed.
    bool finish();
    // Puts the file in the place of `path`, with `path`'s permissions.
    bool moveTo(const QString& path);

private:
    const QString folder;
    // A file of its own rather than a QTemporaryFile: that one stays open until
    // it is destroyed, and Windows renames no open file.
    QFile file;
    bool created = false;
    bool failed = false;
};

// Saves the body (`bytes`, or what `spool` holds when given) under folder +
// separator + name and returns the result document.
ResultDocument saveDownload(const QByteArray& bytes, DownloadSpool* spool, const QString& folder,
                         const DownloadName& name, OpenFailureText openFailureText);

// The three downloads differ only in these points.
struct DownloadVariant {
    const char* path;
    bool sendsToken;             // token header, "userId" in the body, 402 branch
    const char* parseFailureMessage;
    const char* stampFormat;
    bool mayBuildApplication;    // false for the object's member
    bool withNoReplyClass;       // false for the object's member
    bool writesSizeLine;         // the object's member writes the byte count first
    bool answers204;             // the mall's "Can not find this file"
    // The mall spells the open failure with blanks when the host has its own
    // application.
    bool spacedOpenFailureWithHostApplication;
};

// `name` is the operation's public name, for a progress observer.
std::string runDownload(const DownloadVariant& variant, std::string argument,
                        const char* name = __builtin_FUNCTION());

} // namespace norva::transfer
