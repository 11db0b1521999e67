// SPDX-License-Identifier: MIT
// A small host program: logs in, lists the user's shares, logs out. It has no
// Qt application of its own, so each call makes a temporary one.
//
//   host_program <host:port> <user> <password>
#include <norva_api_qt.h>

#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <string>

namespace {

QJsonObject parse(const std::string& text)
{
    return QJsonDocument::fromJson(QByteArray::fromStdString(text)).object();
}

std::string compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: host_program <host:port> <user> <password>\n");
        return 2;
    }
    const QString address = QString::fromLocal8Bit(argv[1]);
    using namespace NORVA::NORVA_API_QT;

    const QJsonObject login = parse(norva_sdk_login(compact({{"ipconfig", address},
                                                             {"username", QString::fromLocal8Bit(argv[2])},
                                                             {"password", QString::fromLocal8Bit(argv[3])}})));
    if (login["status"].toInt() != 200)
        return 1;
    const QJsonObject session = login["data"].toObject();
    const QJsonObject shares = parse(norva_sdk_select_share(
        compact({{"ipconfig", address}, {"token", session["token"]}, {"userid", session["userId"]}})));
    norva_sdk_logout(compact({{"ipconfig", address}, {"id", session["userId"]}}));
    return shares["status"].toInt() == 200 ? 0 : 1;
}
