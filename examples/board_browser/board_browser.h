// SPDX-License-Identifier: MIT
// A window on the board records service: an address and a login, the user's
// board files, and an upload with a progress bar and Cancel, all through the
// asynchronous face (no call blocks the window).
#pragma once

#include <norva_api_qt_async.h>

#include <QJsonObject>
#include <QWidget>

#include <functional>
#include <string>

QT_BEGIN_NAMESPACE
class QLabel;
class QLineEdit;
class QListWidget;
class QProgressBar;
class QPushButton;
QT_END_NAMESPACE

class BoardBrowser : public QWidget
{
    Q_OBJECT

public:
    explicit BoardBrowser(QWidget* parent = nullptr);

    // What the buttons do, for a script to drive too.
    void logIn(const QString& address, const QString& user, const QString& password);
    void upload(const QString& path);
    void cancelUpload();
    void refreshBoards();

    int boardCount() const;
    QString status() const;

signals:
    void loggedIn(bool ok);
    void boardsListed(int count);
    void uploadProgressed(qint64 sent, qint64 total);
    void uploadEnded(bool stored);

private:
    // Starts `operation` with `argument` (the session's address and token put
    // in); `done` gets the result document. The reply is the window's until
    // then.
    NORVA::NORVA_API_QT::CallReply* call(const char* operation, QJsonObject argument,
                                         std::function<void(const QJsonObject&)> done);

    NORVA::NORVA_API_QT::Client client;
    QString address;
    QString token;
    QJsonValue userId;
    NORVA::NORVA_API_QT::CallReply* uploading = nullptr;

    QLineEdit* addressEdit;
    QLineEdit* userEdit;
    QLineEdit* passwordEdit;
    QPushButton* loginButton;
    QListWidget* boards;
    QLineEdit* fileEdit;
    QPushButton* uploadButton;
    QPushButton* cancelButton;
    QProgressBar* progress;
    QLabel* statusLine;
};
