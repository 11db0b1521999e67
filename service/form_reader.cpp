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

namespace {

constexpr std::size_t window = 64 << 10;
constexpr std::size_t headLimit = 16 << 10;

// Where `pattern` next starts at or after `from`, reading the stream a window
// at a time; npos when the stream ends first.
std::uint64_t find(std::istream& in, const std::string& pattern, std::uint64_t from, std::uint64_t within = UINT64_MAX)
{
    std::string chunk;
    for (std::uint64_t at = from; at - from < within;) {
        in.clear();
        in.seekg(std::streamoff(at));
        chunk.resize(window + pattern.size() - 1);
        in.read(&chunk[0], std::streamsize(chunk.size()));
        chunk.resize(std::size_t(in.gcount()));
        const std::size_t hit = chunk.find(pattern);
        if (hit != std::string::npos)
            return at + hit;
        if (chunk.size() < window + pattern.size() - 1)
            return std::string::npos;
        at += window;
    }
    return std::string::npos;
}

std::string read(std::istream& in, std::uint64_t at, std::size_t count)
{
    std::string bytes(count, '\0');
    in.clear();
    in.seekg(std::streamoff(at));
    in.read(&bytes[0], std::streamsize(count));
    bytes.resize(std::size_t(in.gcount()));
    return bytes;
}

} // namespace

bool readForm(std::istream& body, const std::string& boundary, std::vector<FormField>& fields)
{
    if (boundary.empty())
        return false;
    const std::string delimiter = "--" + boundary;
    std::uint64_t at = find(body, delimiter, 0);
    if (at == std::string::npos)
        return false;
    at += delimiter.size();
    for (;;) {
        const std::string after = read(body, at, 2);
        if (after == "--")
            return true; // the closing delimiter
        if (after != "\r\n")
            return false;
        at += 2;
        const std::uint64_t headEnd = find(body, "\r\n\r\n", at, headLimit);
        if (headEnd == std::string::npos)
            return false;
        const std::string head = read(body, at, std::size_t(headEnd - at)) + "\r\n";
        FormField field;
        for (std::size_t line = 0; line < head.size();) {
            const std::size_t lineEnd = head.find("\r\n", line);
            const std::string header = head.substr(line, lineEnd - line);
            const std::size_t colon = header.find(':');
            if (colon != std::string::npos && lowered(header.substr(0, colon)) == "content-disposition")
                readDisposition(header.substr(colon + 1), field);
            line = lineEnd + 2;
        }
        const std::uint64_t next = find(body, "\r\n" + delimiter, headEnd + 4);
        if (next == std::string::npos)
            return false;
        field.offset = headEnd + 4;
        field.size = next - field.offset;
        fields.push_back(std::move(field));
        at = next + 2 + delimiter.size();
    }
}

bool readPart(std::istream& body, const FormField& field, std::string& content, std::uint64_t limit)
{
    if (field.size > limit)
        return false;
    content = read(body, field.offset, std::size_t(field.size));
    return content.size() == field.size;
}

bool copyPart(std::istream& body, const FormField& field, std::ostream& out)
{
    body.clear();
    body.seekg(std::streamoff(field.offset));
    std::string chunk(window, '\0');
    for (std::uint64_t left = field.size; left > 0;) {
        const std::size_t count = std::size_t(std::min<std::uint64_t>(left, window));
        if (!body.read(&chunk[0], std::streamsize(count)) || !out.write(chunk.data(), std::streamsize(count)))
            return false;
        left -= count;
    }
    return bool(out.flush());
}

} // namespace norva::service
