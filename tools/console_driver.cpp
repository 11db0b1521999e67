// SPDX-License-Identifier: MIT
// norva-console: logs in through NORVA_HTTP_API, prints the result and a line of
// 25 asterisks, then runs the application's event loop (or quits with --once).
#include "norva_api_qt.h"
#include "norva_api_qt_version.h"
#include "trusted_certificates.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <iostream>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("norva-console"));
    QCoreApplication::setApplicationVersion(QString::fromLatin1(NORVA::NORVA_API_QT::libraryVersion()));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Logs in to a records service through NORVA_HTTP_API and prints the result.\n"
        "The defaults match a fresh norva-records-service on its default address."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption address({QStringLiteral("a"), QStringLiteral("address")},
                                     QStringLiteral("The service's host:port (or https://host:port)."),
                                     QStringLiteral("host:port"),
                                     QStringLiteral("127.0.0.1:8765"));
    const QCommandLineOption user({QStringLiteral("u"), QStringLiteral("user")}, QStringLiteral("The user name."),
                                  QStringLiteral("name"), QStringLiteral("norva"));
    const QCommandLineOption password({QStringLiteral("p"), QStringLiteral("password")},
                                      QStringLiteral("The password."), QStringLiteral("password"),
                                      QStringLiteral("norva"));
    const QCommandLineOption once(QStringLiteral("once"),
                                  QStringLiteral("Quit right after printing instead of running the event loop."));
    const QCommandLineOption caCertificates(
        QStringLiteral("cacert"), QStringLiteral("Trust the PEM certificates in this file beside the system's."),
        QStringLiteral("file"));
    parser.addOptions({address, user, password, once, caCertificates});
    parser.process(application);
    QString error;
    if (parser.isSet(caCertificates) && !norva::command::trustCertificates(parser.value(caCertificates), error)) {
        std::cerr << "norva-console: " << error.toStdString() << std::endl;
        return 2;
    }

    const QJsonObject argument{
        {QStringLiteral("ipconfig"), parser.value(address)},
        {QStringLiteral("username"), parser.value(user)},
        {QStringLiteral("password"), parser.value(password)},
    };
    NORVA::NORVA_API_QT::NORVA_HTTP_API api;
    const std::string result =
        api.norva_sdk_login(QString::fromUtf8(QJsonDocument(argument).toJson(QJsonDocument::Compact)).toStdString());
    std::cout << result << std::endl;
    std::cout << "*************************" << std::endl;

    if (parser.isSet(once))
        QTimer::singleShot(0, &application, &QCoreApplication::quit);
    return QCoreApplication::exec();
}
