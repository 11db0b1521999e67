// SPDX-License-Identifier: MIT
#include "command_document.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

namespace norva::command {

namespace {

// JSON of its own, or else the text itself. Qt parses only arrays and objects
// at the top, so the value is read as the one element of an array.
QJsonValue valueOf(const std::string& text)
{
    QJsonParseError error;
    const QJsonDocument wrapped = QJsonDocument::fromJson("[" + QByteArray::fromStdString(text) + "]", &error);
    if (error.error == QJsonParseError::NoError && wrapped.array().size() == 1)
        return wrapped.array().first();
    return QString::fromStdString(text);
}

bool place(QJsonObject& object, QStringList path, const QJsonValue& value)
{
    const QString key = path.takeFirst();
    if (path.isEmpty()) {
        if (object.value(key).isObject() != value.isObject() && object.contains(key))
            return false;
        object.insert(key, value);
        return true;
    }
    if (object.contains(key) && !object.value(key).isObject())
        return false;
    QJsonObject inner = object.value(key).toObject();
    if (!place(inner, path, value))
        return false;
    object.insert(key, inner);
    return true;
}

// Whether the key at `path` stands in `object` (as anything, null included).
bool contains(const QJsonObject& object, const QStringList& path)
{
    if (!object.contains(path.front()))
        return false;
    if (path.size() == 1)
        return true;
    const QJsonValue inner = object.value(path.front());
    return !inner.isObject() || contains(inner.toObject(), path.mid(1));
}

QString jsonString(const QString& text)
{
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.mid(1, array.size() - 2));
}

} // namespace

std::optional<std::string> documentFromPairs(const std::vector<std::string>& words, std::string* error)
{
    QJsonObject document;
    for (const std::string& word : words) {
        const std::size_t equals = word.find('=');
        const QStringList path = QString::fromStdString(word.substr(0, equals)).split(QLatin1Char('.'));
        if (equals == std::string::npos || path.contains(QString())) {
            *error = "not key=value: " + word;
            return std::nullopt;
        }
        if (!place(document, path, valueOf(word.substr(equals + 1)))) {
            *error = "a key is both a value and an object: " + word;
            return std::nullopt;
        }
    }
    return QJsonDocument(document).toJson(QJsonDocument::Compact).toStdString();
}

std::string withSession(const std::string& document, const Session& session, const std::string& userKey)
{
    const QJsonDocument parsed = QJsonDocument::fromJson(QByteArray::fromStdString(document));
    if (!parsed.isObject())
        return document;
    QJsonObject arguments = parsed.object();
    QStringList members;
    if (!arguments.contains(QStringLiteral("ipconfig")) && !session.ipconfig.isEmpty())
        members << QStringLiteral("\"ipconfig\":") + jsonString(session.ipconfig);
    if (!arguments.contains(QStringLiteral("token")) && !session.token.isEmpty())
        members << QStringLiteral("\"token\":") + jsonString(session.token);
    const QStringList userPath = QString::fromStdString(userKey).split(QLatin1Char('.'), Qt::SkipEmptyParts);
    if (!userPath.isEmpty() && !session.userId.isUndefined() && !contains(arguments, userPath)) {
        if (userPath.size() == 1) {
            const QByteArray id = QJsonDocument(QJsonArray{session.userId}).toJson(QJsonDocument::Compact);
            members << jsonString(userPath.front()) + QLatin1Char(':') + QString::fromUtf8(id.mid(1, id.size() - 2));
        } else if (place(arguments, userPath, session.userId)) {
            // Inside an object of the caller's: the document is written anew.
            std::string text = QJsonDocument(arguments).toJson(QJsonDocument::Compact).toStdString();
            return members.isEmpty() ? text : withSession(text, session, std::string());
        }
    }
    if (members.isEmpty())
        return document;
    // In front of the caller's own members, which stay exactly as written.
    const std::size_t brace = document.find('{');
    std::string text = members.join(QLatin1Char(',')).toStdString();
    if (!arguments.isEmpty())
        text += ',';
    return document.substr(0, brace + 1) + text + document.substr(brace + 1);
}

std::string indented(const std::string& compact)
{
    std::string out;
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    const auto newLine = [&] { out += '\n' + std::string(std::size_t(2 * depth), ' '); };
    for (std::size_t i = 0; i < compact.size(); ++i) {
        const char c = compact[i];
        if (inString) {
            out += c;
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                inString = false;
            continue;
        }
        switch (c) {
        case '"':
            inString = true;
            out += c;
            break;
        case '{':
        case '[':
            out += c;
            if (i + 1 < compact.size() && (compact[i + 1] == '}' || compact[i + 1] == ']')) {
                out += compact[++i]; // an empty object or array stays on its line
            } else {
                ++depth;
                newLine();
            }
            break;
        case '}':
        case ']':
            --depth;
            newLine();
            out += c;
            break;
        case ',':
            out += c;
            newLine();
            break;
        case ':':
            out += ": ";
            break;
        default:
            out += c;
        }
    }
    return out;
}

} // namespace norva::command
