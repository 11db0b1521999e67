// SPDX-License-Identifier: MIT
#include "board_browser.h"

#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

using NORVA::NORVA_API_QT::CallProgress;
using NORVA::NORVA_API_QT::CallReply;

BoardBrowser::BoardBrowser(QWidget* parent)
    : QWidget(parent),
      addressEdit(new QLineEdit(QStringLiteral("127.0.0.1:8765"))),
      userEdit(new QLineEdit(QStringLiteral("norva"))),
      passwordEdit(new QLineEdit),
      loginButton(new QPushButton(tr("Log in"))),
      boards(new QListWidget),
      fileEdit(new QLineEdit),
      uploadButton(new QPushButton(tr("Upload"))),
      cancelButton(new QPushButton(tr("Cancel"))),
      progress(new QProgressBar),
      statusLine(new QLabel(tr("Not logged in")))
{
    setWindowTitle(tr("Board browser"));
    passwordEdit->setEchoMode(QLineEdit::Password);
    fileEdit->setPlaceholderText(tr("a board file to upload"));
    auto* const browse = new QPushButton(tr("Browse…"));
    uploadButton->setEnabled(false);
    cancelButton->setEnabled(false);
    progress->setRange(0, 100);
    progress->setValue(0);

    auto* const form = new QFormLayout;
    form->addRow(tr("Service"), addressEdit);
    form->addRow(tr("User"), userEdit);
    form->addRow(tr("Password"), passwordEdit);
    form->addRow(QString(), loginButton);
    auto* const fileRow = new QHBoxLayout;
    fileRow->addWidget(fileEdit);
    fileRow->addWidget(browse);
    auto* const uploadRow = new QHBoxLayout;
    uploadRow->addWidget(progress);
    uploadRow->addWidget(uploadButton);
    uploadRow->addWidget(cancelButton);
    auto* const layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(new QLabel(tr("Board files")));
    layout->addWidget(boards);
    layout->addLayout(fileRow);
    layout->addLayout(uploadRow);
    layout->addWidget(statusLine);

    connect(loginButton, &QPushButton::clicked, this,
            [this] { logIn(addressEdit->text(), userEdit->text(), passwordEdit->text()); });
    connect(browse, &QPushButton::clicked, this, [this] {
        const QString path = QFileDialog::getOpenFileName(this, tr("Board file"));
        if (!path.isEmpty())
            fileEdit->setText(path);
    });
    connect(uploadButton, &QPushButton::clicked, this, [this] { upload(fileEdit->text()); });
    connect(cancelButton, &QPushButton::clicked, this, &BoardBrowser::cancelUpload);
}

CallReply* BoardBrowser::call(const char* operation, QJsonObject argument, std::function<void(const QJsonObject&)> done)
{
    argument.insert(QStringLiteral("ipconfig"), address);
    if (!token.isEmpty())
        argument.insert(QStringLiteral("token"), token);
    CallReply* const reply = client.call(operation, QJsonDocument(argument).toJson(QJsonDocument::Compact).toStdString());
    connect(reply, &CallReply::finished, this, [this, reply, done = std::move(done)] {
        const QJsonObject result = QJsonDocument::fromJson(QByteArray::fromStdString(reply->result())).object();
        if (result.value(QStringLiteral("status")).toInt() != 200 && !reply->failureText().empty())
            statusLine->setText(QString::fromStdString(reply->failureText())); // why no reply came
        if (reply == uploading)
            uploading = nullptr;
        delete reply; // allowed in its own finished()
        done(result);
    });
    return reply;
}

void BoardBrowser::logIn(const QString& serviceAddress, const QString& user, const QString& password)
{
    address = serviceAddress;
    addressEdit->setText(serviceAddress);
    userEdit->setText(user);
    token.clear();
    statusLine->setText(tr("Logging in…"));
    call("login", {{QStringLiteral("username"), user}, {QStringLiteral("password"), password}}, [this](const QJsonObject& result) {
        const QJsonObject data = result.value(QStringLiteral("data")).toObject();
        token = data.value(QStringLiteral("token")).toString();
        userId = data.value(QStringLiteral("userId"));
        const bool ok = !token.isEmpty();
        uploadButton->setEnabled(ok);
        if (ok)
            statusLine->setText(tr("Logged in as user %1").arg(userId.toInt()));
        else if (result.value(QStringLiteral("message")).toString() != QLatin1String("Server shuts down"))
            statusLine->setText(result.value(QStringLiteral("message")).toString());
        emit loggedIn(ok);
        if (ok)
            refreshBoards();
    });
}

void BoardBrowser::refreshBoards()
{
    call("select_origfiles_manage", {{QStringLiteral("userid"), userId}}, [this](const QJsonObject& result) {
        boards->clear();
        for (const QJsonValue& record : result.value(QStringLiteral("data")).toArray()) {
            const QJsonObject board = record.toObject();
            boards->addItem(QStringLiteral("%1  %2").arg(board.value(QStringLiteral("id")).toInt()).arg(
                board.value(QStringLiteral("origfilename")).toString()));
        }
        emit boardsListed(boards->count());
    });
}

void BoardBrowser::upload(const QString& path)
{
    if (uploading || !QFileInfo(path).isFile()) {
        statusLine->setText(tr("No file %1").arg(path));
        return;
    }
    fileEdit->setText(path);
    const QJsonObject fileInfo{{QStringLiteral("createuserid"), userId}};
    statusLine->setText(tr("Uploading %1…").arg(QFileInfo(path).fileName()));
    progress->setValue(0);
    cancelButton->setEnabled(true);
    uploadButton->setEnabled(false);
    uploading = call("upload_file",
         {{QStringLiteral("file_uploadpath"), path}, {QStringLiteral("data"), QJsonObject{{QStringLiteral("fileInfo"), fileInfo}}}},
         [this](const QJsonObject& result) {
             const bool stored = result.value(QStringLiteral("status")).toInt() == 200;
             cancelButton->setEnabled(false);
             uploadButton->setEnabled(true);
             statusLine->setText(stored ? tr("Uploaded") : result.value(QStringLiteral("message")).toString());
             if (!stored)
                 progress->setValue(0);
             emit uploadEnded(stored);
             if (stored)
                 refreshBoards();
         });
    connect(uploading, &CallReply::progress, this, [this](const CallProgress& figures) {
        if (figures.bytesToSend > 0)
            progress->setValue(int(100 * figures.bytesSent / figures.bytesToSend));
        emit uploadProgressed(figures.bytesSent, figures.bytesToSend);
    });
}

void BoardBrowser::cancelUpload()
{
    if (uploading)
        uploading->cancel(); // its finished() says "request cancelled"
}

int BoardBrowser::boardCount() const
{
    return boards->count();
}

QString BoardBrowser::status() const
{
    return statusLine->text();
}
