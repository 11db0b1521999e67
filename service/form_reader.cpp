#include "form_reader.h"

#include <algorithm>
#include <cctype>

namespace norva::service {

namespace {

std::string lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

std::string unquoted(std::string value)
{
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
        value.erase(0, 1);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t' || value.back() == '\r'))
        value.pop_back();
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
        value = value.substr(1, value.size() - 2);
    return value;
}

// Where parameter `key` (as "key=") starts, at the start or after a ";".
std::size_t parameterAt(const std::string& value, const std::string& key)
{
    const std::string lower = lowered(value);
    std::size_t at = 0;
    while ((at = lower.find(key + "=", at)) != std::string::npos) {
        std::size_t before = at;
        while (before > 0 && (lower[before - 1] == ' ' || lower[before - 1] == '\t'))
            --before;
        if (before == 0 || lower[before - 1] == ';')
            return at;
        at += key.size();
    }
    return std::string::npos;
}

} // namespace

std::string formBoundary(const std::string& contentType)
{
    const std::size_t at = parameterAt(contentType, "boundary");
    if (at == std::string::npos)
        return std::string();
    std::string value = contentType.substr(at + 9);
    if (!value.empty() && value.front() == '"') {
        const std::size_t close = value.find('"', 1);
        return close == std::string::npos ? std::string() : value.substr(1, close - 1);
    }
    return unquoted(value.substr(0, value.find(';')));
}

void readDisposition(const std::string& value, FormField& field)
{
    // The file name comes last and may hold blanks and even semicolons when it
    // is not quoted, so it runs to the end of the value.
    const std::size_t file = parameterAt(value, "filename");
    std::string beforeFile = value;
    if (file != std::string::npos) {
        field.hasFilename = true;
        std::string name = value.substr(file + 9);
        if (!name.empty() && name.front() == '"') {
            const std::size_t close = name.find('"', 1);
            name = close == std::string::npos ? name.substr(1) : name.substr(1, close - 1);
        }
        field.filename = unquoted(name);
        beforeFile = value.substr(0, file);
    }
    const std::size_t name = parameterAt(beforeFile, "name");
    if (name != std::string::npos) {
        std::string text = beforeFile.substr(name + 5);
        if (!text.empty() && text.front() == '"')
            text = text.substr(1, text.find('"', 1) - 1);
        else
            text = text.substr(0, text.find(';'));
        field.name = unquoted(text);
    }
}

bool readForm(const std::string& body, const std::string& boundary, std::vector<FormField>& fields)
{
    if (boundary.empty())
        return false;
    const std::string delimiter = "--" + boundary;
    std::size_t at = body.find(delimiter);
    if (at == std::string::npos)
        return false;
    at += delimiter.size();
    for (;;) {
        if (body.compare(at, 2, "--") == 0)
            return true; // the closing delimiter
        if (body.compare(at, 2, "\r\n") != 0)
            return false;
        at += 2;
        const std::size_t headEnd = body.find("\r\n\r\n", at);
        if (headEnd == std::string::npos)
            return false;
        FormField field;
        std::size_t line = at;
        while (line < headEnd) {
            const std::size_t lineEnd = std::min(body.find("\r\n", line), headEnd);
            const std::string header = body.substr(line, lineEnd - line);
            const std::size_t colon = header.find(':');
            if (colon != std::string::npos && lowered(header.substr(0, colon)) == "content-disposition")
                readDisposition(header.substr(colon + 1), field);
            line = lineEnd + 2;
        }
        const std::size_t next = body.find("\r\n" + delimiter, headEnd + 4);
        if (next == std::string::npos)
            return false;
        field.body = body.substr(headEnd + 4, next - headEnd - 4);
        fields.push_back(std::move(field));
        at = next + 2 + delimiter.size();
    }
}

} // namespace norva::service
