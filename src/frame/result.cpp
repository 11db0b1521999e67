#include "frame/result.h"

#include <QJsonDocument>

#include <iostream>

namespace norva {

QJsonObject statusDocument(int status, const QString& message)
{
    return QJsonObject{{QStringLiteral("status"), status}, {QStringLiteral("message"), message}};
}

std::string compactText(const QJsonObject& document)
{
    return QString::fromUtf8(QJsonDocument(document).toJson(QJsonDocument::Compact)).toStdString();
}

void echoLine(const std::string& text)
{
    std::cout << text << std::endl;
}

std::string finishResult(const QJsonObject& document)
{
    std::string text = compactText(document);
    echoLine(text);
    return text;
}

} // namespace norva
