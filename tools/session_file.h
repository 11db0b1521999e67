// SPDX-License-Identifier: MIT
// The norva command's saved session: the service's address and a token (and the
// user's id, for logging out) in norva/session.json under the user's
// configuration folder, readable by the user only. The library itself reads no
// configuration; this is the command's own convenience.
#pragma once

#include <QJsonValue>
#include <QString>

namespace norva::command {

struct Session {
    QString ipconfig; // empty when not known
    QString token;
    QJsonValue userId; // undefined when not known
    QString caCertificates; // a PEM file of certificates to trust; empty for none
};

// $XDG_CONFIG_HOME/norva/session.json, else ~/.config/norva/session.json.
QString sessionFilePath();

// The saved session, with NORVA_IPCONFIG, NORVA_TOKEN and NORVA_CACERT from the
// environment taking the place of what the file says.
Session currentSession();

// Writes the file, readable and writable by its owner only. False, with a
// reason, when it can't.
bool saveSession(const Session& session, QString* error);

// Removes the file; true when there was one.
bool removeSession();

} // namespace norva::command
