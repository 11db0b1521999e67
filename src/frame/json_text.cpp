// SPDX-License-Identifier: MIT
#include "frame/json_text.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace norva {

namespace {

// Shallower than Qt's own nesting limit (1024), so that nothing this scan
// accepts is refused by Qt for its depth.
constexpr int maxDepth = 1000;

// The scan is never more lenient than Qt: a member is only removed when its
// text is valid JSON by the strictest reading (literals, numbers, UTF-8), so
// removing it can't turn a text Qt refuses into one it accepts.
bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

class Scanner
{
public:
    explicit Scanner(const QByteArray& text) : text(text), size(text.size()) {}

    // Scans one value; false on anything that is not JSON.
    bool value(int depth)
    {
        skipSpace();
        if (at >= size || depth > maxDepth)
            return false;
        switch (text[at]) {
        case '{':
            return object(depth + 1);
        case '[':
            return array(depth + 1);
        case '"':
            return string(nullptr);
        default:
            return scalar();
        }
    }

    // Byte ranges of members that a later member with the same key replaces.
    std::vector<std::pair<int, int>> dropped;
    // Whether some key holds a character beyond U+FFFF (see parseJson).
    bool keyBeyondBmp = false;

private:
    void skipSpace()
    {
        while (at < size && (text[at] == ' ' || text[at] == '\t' || text[at] == '\n' || text[at] == '\r'))
            ++at;
    }

    bool literal(const char* word)
    {
        const int length = int(std::char_traits<char>::length(word));
        if (text.mid(at, length) != word)
            return false;
        at += length;
        return true;
    }

    bool digits()
    {
        const int start = at;
        while (at < size && isDigit(text[at]))
            ++at;
        return at > start;
    }

    // A number by JSON's grammar: no leading zeros, no bare points.
    bool number()
    {
        if (at < size && text[at] == '-')
            ++at;
        if (at < size && text[at] == '0')
            ++at;
        else if (!digits())
            return false;
        if (at < size && text[at] == '.') {
            ++at;
            if (!digits())
                return false;
        }
        if (at < size && (text[at] == 'e' || text[at] == 'E')) {
            ++at;
            if (at < size && (text[at] == '+' || text[at] == '-'))
                ++at;
            if (!digits())
                return false;
        }
        return true;
    }

    bool scalar()
    {
        switch (text[at]) {
        case 't':
            return literal("true");
        case 'f':
            return literal("false");
        case 'n':
            return literal("null");
        default:
            return number();
        }
    }

    // One UTF-8 sequence starting at `at`, by the strict rules (no overlong
    // forms, no surrogates, nothing above U+10FFFF).
    bool utf8Sequence()
    {
        const auto byte = [this](int i) { return static_cast<unsigned char>(text[i]); };
        const unsigned char lead = byte(at);
        int length;
        unsigned int code;
        if (lead < 0x80) {
            ++at;
            return true;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
            code = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            code = lead & 0x0F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            code = lead & 0x07;
        } else {
            return false;
        }
        if (at + length > size)
            return false;
        for (int i = 1; i < length; ++i) {
            if ((byte(at + i) & 0xC0) != 0x80)
                return false;
            code = (code << 6) | (byte(at + i) & 0x3F);
        }
        static const unsigned int smallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (code < smallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
            return false;
        at += length;
        return true;
    }

    static int hex(char c)
    {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    }

    // Appends a UTF-16 code unit sequence as UTF-8; a lone surrogate gets the
    // three bytes of its own value, so that keys which differ as UTF-16 differ
    // here too.
    static void appendUtf16(std::string& out, const std::u16string& units)
    {
        for (std::size_t i = 0; i < units.size(); ++i) {
            unsigned int code = units[i];
            if (code >= 0xD800 && code <= 0xDBFF && i + 1 < units.size() && units[i + 1] >= 0xDC00
                && units[i + 1] <= 0xDFFF)
                code = 0x10000 + ((code - 0xD800) << 10) + (units[++i] - 0xDC00);
            if (code < 0x80) {
                out += char(code);
            } else if (code < 0x800) {
                out += char(0xC0 | (code >> 6));
                out += char(0x80 | (code & 0x3F));
            } else if (code < 0x10000) {
                out += char(0xE0 | (code >> 12));
                out += char(0x80 | ((code >> 6) & 0x3F));
                out += char(0x80 | (code & 0x3F));
            } else {
                out += char(0xF0 | (code >> 18));
                out += char(0x80 | ((code >> 12) & 0x3F));
                out += char(0x80 | ((code >> 6) & 0x3F));
                out += char(0x80 | (code & 0x3F));
            }
        }
    }

    // A key as Qt compares it: its characters, held as UTF-8. A key without
    // escapes is its own bytes in the text (strict UTF-8, so no surrogates);
    // one with escapes is decoded into `storage`.
    struct Key {
        std::string_view text;
        std::string storage;
        bool beyondBmp = false;
    };

    // Scans a string; with `key`, also reads it as a key.
    bool string(Key* key)
    {
        ++at; // the opening quote
        const int start = at;
        bool escaped = false;
        std::u16string units; // the key's code units once an escape was seen
        while (at < size && text[at] != '"') {
            if (text[at] != '\\') {
                const int from = at;
                if (!utf8Sequence())
                    return false;
                if (key && static_cast<unsigned char>(text[from]) >= 0xF0)
                    key->beyondBmp = true;
                if (escaped)
                    units += QString::fromUtf8(text.constData() + from, at - from).toStdU16String();
                continue;
            }
            if (key && !escaped) {
                escaped = true;
                units = QString::fromUtf8(text.constData() + start, at - start).toStdU16String();
            }
            if (++at >= size)
                return false;
            const char escape = text[at++];
            if (escape == 'u') {
                if (at + 4 > size)
                    return false;
                int code = 0;
                for (int i = 0; i < 4; ++i) {
                    const int digit = hex(text[at + i]);
                    if (digit < 0)
                        return false;
                    code = code * 16 + digit;
                }
                at += 4;
                if (key) {
                    units += char16_t(code);
                    key->beyondBmp = key->beyondBmp || (code >= 0xD800 && code <= 0xDFFF);
                }
            } else if (key) {
                // Like Qt, an unknown escape stands for the character itself.
                static const char from[] = "\"\\/bfnrt";
                static const char to[] = "\"\\/\b\f\n\r\t";
                const char* found = std::char_traits<char>::find(from, 8, escape);
                units += char16_t(static_cast<unsigned char>(found ? to[found - from] : escape));
            }
        }
        if (at >= size)
            return false;
        if (key) {
            if (escaped) {
                appendUtf16(key->storage, units);
                key->text = key->storage;
            } else {
                key->text = std::string_view(text.constData() + start, std::size_t(at - start));
            }
        }
        ++at; // the closing quote
        return true;
    }

    bool array(int depth)
    {
        ++at;
        skipSpace();
        if (at < size && text[at] == ']') {
            ++at;
            return true;
        }
        for (;;) {
            if (!value(depth))
                return false;
            skipSpace();
            if (at >= size)
                return false;
            if (text[at++] == ']')
                return true;
            if (text[at - 1] != ',')
                return false;
        }
    }

    bool object(int depth)
    {
        ++at;
        struct Member {
            Key key;
            int start;
        };
        std::vector<Member> members;
        skipSpace();
        if (at < size && text[at] == '}') {
            ++at;
            return true;
        }
        for (;;) {
            skipSpace();
            if (at >= size || text[at] != '"')
                return false;
            members.push_back({Key(), at});
            Member& member = members.back();
            if (!string(&member.key))
                return false;
            keyBeyondBmp = keyBeyondBmp || member.key.beyondBmp;
            skipSpace();
            if (at >= size || text[at++] != ':')
                return false;
            if (!value(depth))
                return false;
            skipSpace();
            if (at >= size)
                return false;
            if (text[at++] == '}')
                break;
            if (text[at - 1] != ',')
                return false;
        }
        if (members.size() < 2)
            return true;
        // A member whose key comes again later is dropped, up to the next member.
        // Sorted by key (and by place among equal keys), the last of each run of
        // equal keys stays.
        std::vector<std::size_t> order(members.size());
        for (std::size_t i = 0; i < order.size(); ++i)
            order[i] = i;
        // (A decoded key is read from its storage: growing the vector may have
        // moved it.)
        const auto keyOf = [&members](std::size_t i) -> std::string_view {
            const Key& key = members[i].key;
            return key.storage.empty() ? key.text : std::string_view(key.storage);
        };
        std::sort(order.begin(), order.end(), [&keyOf](std::size_t a, std::size_t b) {
            const int compared = keyOf(a).compare(keyOf(b));
            return compared != 0 ? compared < 0 : a < b;
        });
        for (std::size_t i = 0; i + 1 < order.size(); ++i) {
            if (keyOf(order[i]) == keyOf(order[i + 1]))
                dropped.emplace_back(members[order[i]].start, members[order[i] + 1].start);
        }
        return true;
    }

    const QByteArray& text;
    const int size;
    int at = 0;
};

} // namespace

namespace {

QByteArray withoutDropped(const QByteArray& json, std::vector<std::pair<int, int>> dropped)
{
    if (dropped.empty())
        return json;
    std::sort(dropped.begin(), dropped.end());
    QByteArray kept;
    kept.reserve(json.size());
    int from = 0;
    for (const auto& range : dropped) {
        if (range.first < from)
            continue; // inside a member dropped already
        kept.append(json.constData() + from, range.first - from);
        from = range.second;
    }
    kept.append(json.constData() + from, json.size() - from);
    return kept;
}

QJsonValue inKeyOrder(const QJsonValue& value);

QJsonObject inKeyOrder(const QJsonObject& object)
{
    QJsonObject ordered;
    for (auto member = object.constBegin(); member != object.constEnd(); ++member)
        ordered.insert(member.key(), inKeyOrder(member.value()));
    return ordered;
}

QJsonValue inKeyOrder(const QJsonValue& value)
{
    if (value.isObject())
        return inKeyOrder(value.toObject());
    if (value.isArray()) {
        QJsonArray ordered;
        for (const QJsonValue& element : value.toArray())
            ordered.append(inKeyOrder(element));
        return ordered;
    }
    return value;
}

// A text of ASCII without escapes that opens at most one object and no
// array: no value in it can be an array or an object, so a repeated key leaks
// nothing, and no key can hold a character beyond U+FFFF. Most arguments and
// replies are such texts, and Qt may read them without the scan.
bool isFlatPlainText(const QByteArray& json)
{
    int objects = 0;
    for (const char c : json) {
        if (c == '[' || c == '\\' || static_cast<unsigned char>(c) >= 0x80 || (c == '{' && ++objects > 1))
            return false;
    }
    return true;
}

} // namespace

std::optional<FlatMembers> readFlatObject(const QByteArray& json)
{
    const char* at = json.constData();
    const char* const end = at + json.size();
    const auto skipSpace = [&] {
        while (at < end && (*at == ' ' || *at == '\t' || *at == '\n' || *at == '\r'))
            ++at;
    };
    const auto next = [&](char c) {
        if (at == end || *at != c)
            return false;
        ++at;
        return true;
    };
    // A string of plain characters, quotes included.
    const auto plainString = [&] {
        if (!next('"'))
            return false;
        while (at < end && *at != '"') {
            if (*at < 0x20 || *at > 0x7e || *at == '\\')
                return false;
            ++at;
        }
        return next('"');
    };
    const auto literal = [&](std::string_view word) {
        if (size_t(end - at) < word.size() || std::string_view(at, word.size()) != word)
            return false;
        at += word.size();
        return true;
    };
    const auto integer = [&] {
        const bool negative = next('-');
        const char* const digits = at;
        while (at < end && isDigit(*at))
            ++at;
        const long count = at - digits;
        return count > 0 && count <= 15 && (*digits != '0' || (count == 1 && !negative));
    };

    FlatMembers members;
    members.reserve(16);
    skipSpace();
    if (!next('{'))
        return std::nullopt;
    skipSpace();
    if (!next('}')) {
        do {
            skipSpace();
            const char* const keyStart = at;
            if (!plainString())
                return std::nullopt;
            const std::string_view key(keyStart + 1, size_t(at - keyStart - 2));
            skipSpace();
            if (!next(':'))
                return std::nullopt;
            skipSpace();
            const char* const valueStart = at;
            if (!(at < end && *at == '"' ? plainString()
                                         : literal("true") || literal("false") || literal("null") || integer()))
                return std::nullopt;
            members.push_back({key, std::string_view(valueStart, size_t(at - valueStart))});
            skipSpace();
        } while (next(','));
        if (!next('}'))
            return std::nullopt;
    }
    skipSpace();
    if (at != end)
        return std::nullopt;
    return members;
}

const FlatMember* findMember(const FlatMembers& members, std::string_view key)
{
    for (auto member = members.rbegin(); member != members.rend(); ++member) {
        if (member->key == key)
            return &*member;
    }
    return nullptr;
}

QJsonValue flatValue(const FlatMember& member)
{
    const std::string_view text = member.value;
    if (member.isText())
        return QString::fromLatin1(text.data() + 1, int(text.size()) - 2);
    if (member.isInteger())
        return QJsonValue(qint64(std::stoll(std::string(text))));
    if (text == "null")
        return QJsonValue(QJsonValue::Null);
    return text == "true";
}

QByteArray withoutRepeatedKeys(const QByteArray& json)
{
    // Qt builds (and leaks) every object it completes before it finds an error
    // or garbage behind the document, so the objects this scan completed are
    // cleaned even when the text as a whole is no JSON.
    Scanner scanner(json);
    scanner.value(0);
    return withoutDropped(json, std::move(scanner.dropped));
}

QJsonDocument parseJson(const QByteArray& json, QJsonParseError* error)
{
    if (isFlatPlainText(json))
        return QJsonDocument::fromJson(json, error);
    Scanner scanner(json);
    scanner.value(0);
    const QJsonDocument document = QJsonDocument::fromJson(withoutDropped(json, std::move(scanner.dropped)), error);
    // Qt's parser orders the keys of an object by code point, QJsonObject by
    // UTF-16 code unit; the two differ only where a key holds a character beyond
    // U+FFFF. Such objects are rebuilt by insertion, which orders them as every
    // other object, so that lookups find their keys and the text writes them in
    // the same order. Other texts cost nothing more.
    if (!scanner.keyBeyondBmp || document.isNull())
        return document;
    return document.isObject() ? QJsonDocument(inKeyOrder(document.object()))
                               : QJsonDocument(inKeyOrder(QJsonValue(document.array())).toArray());
}

} // namespace norva
