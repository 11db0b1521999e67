// SPDX-License-Identifier: MIT
#include "session_file.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QStandardPaths>

namespace norva::command {

QString sessionFilePath()
{
    // On Linux this is $XDG_CONFIG_HOME when set, else ~/.config.
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
           + QStringLiteral("/norva/session.json");
}

Session currentSession()
{
    Session session;
    QFile file(sessionFilePath());
    if (file.open(QIODevice::ReadOnly)) {
        const QJsonObject saved = QJsonDocument::fromJson(file.readAll()).object();
        session.ipconfig = saved.value(QStringLiteral("ipconfig")).toString();
        session.token = saved.value(QStringLiteral("token")).toString();
        session.userId = saved.value(QStringLiteral("userId"));
        session.caCertificates = saved.value(QStringLiteral("cacert")).toString();
    }
    if (qEnvironmentVariableIsSet("NORVA_IPCONFIG"))
        session.ipconfig = qEnvironmentVariable("NORVA_IPCONFIG");
    if (qEnvironmentVariableIsSet("NORVA_TOKEN"))
        session.token = qEnvironmentVariable("NORVA_TOKEN");
    if (qEnvironmentVariableIsSet("NORVA_CACERT"))
        session.caCertificates = qEnvironmentVariable("NORVA_CACERT");
    return session;
}

bool saveSession(const Session& session, QString* error)
{
    const QString path = sessionFilePath();
    const QString folder = QFileInfo(path).path();
    if (!QDir().mkpath(folder)) {
        *error = QStringLiteral("can't make ") + folder;
        return false;
    }
    QFile::setPermissions(folder, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QJsonObject saved{{QStringLiteral("ipconfig"), session.ipconfig}, {QStringLiteral("token"), session.token}};
    if (!session.userId.isUndefined())
        saved.insert(QStringLiteral("userId"), session.userId);
    if (!session.caCertificates.isEmpty())
        saved.insert(QStringLiteral("cacert"), QFileInfo(session.caCertificates).absoluteFilePath());
    // The token is a password for as long as it lives: the file is the owner's
    // alone before anything is written into it.
    QSaveFile file(path);
    const bool written = file.open(QIODevice::WriteOnly)
                         && file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner)
                         && file.write(QJsonDocument(saved).toJson()) >= 0 && file.commit();
    if (!written)
        *error = file.errorString();
    return written;
}

bool removeSession()
{
    return QFile::remove(sessionFilePath());
}

} // namespace norva::command
