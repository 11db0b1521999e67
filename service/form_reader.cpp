// SPDX-License-Identifier: MIT
#include "form_reader.h"

#include <algorithm>
#include <cctype>
#include <random>

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

// A part's head ends within this many bytes, or the form is broken.
constexpr std::size_t headLimit = 16 << 10;

std::string partFileName(const std::string& folder)
{
    static thread_local std::mt19937_64 random{std::random_device{}()};
    char name[40];
    std::snprintf(name, sizeof name, "/part-%016llx", static_cast<unsigned long long>(random()));
    return folder + name;
}

} // namespace

FormSplitter::FormSplitter(std::string boundary, FormPlan plan, std::string folder)
    : delimiter("--" + boundary),
      terminator("\r\n--" + boundary),
      plan(std::move(plan)),
      folder(std::move(folder)),
      state(boundary.empty() ? State::Broken : State::Preamble)
{
}

FormSplitter::~FormSplitter()
{
    if (out)
        std::fclose(out);
    if (!current.file.empty())
        std::remove(current.file.c_str());
    for (const FormPart& part : kept) {
        if (!part.file.empty())
            std::remove(part.file.c_str());
    }
}

bool FormSplitter::feed(const char* bytes, std::size_t size)
{
    if (state == State::Done || state == State::Broken)
        return true; // what follows a form, or a broken one, is dropped
    pending.append(bytes, size);
    // Bytes before `at` are placed; they leave `pending` once per call, so
    // that many small parts in one piece cost no more than one large one.
    std::size_t at = 0;
    bool stored = true;
    for (bool more = true; more && stored;) {
        switch (state) {
        case State::Preamble: {
            const std::size_t found = pending.find(delimiter, at);
            if (found == std::string::npos) {
                at = std::max(at, pending.size() - std::min(pending.size(), delimiter.size() - 1));
                more = false;
            } else {
                at = found + delimiter.size();
                state = State::AfterDelimiter;
            }
            break;
        }
        case State::AfterDelimiter:
            if (pending.size() - at < 2) {
                more = false;
            } else if (pending.compare(at, 2, "--") == 0) {
                state = State::Done;
                more = false;
            } else if (pending.compare(at, 2, "\r\n") == 0) {
                at += 2;
                state = State::Head;
            } else {
                state = State::Broken;
                more = false;
            }
            break;
        case State::Head: {
            const std::size_t end = pending.find("\r\n\r\n", at);
            if (end == std::string::npos) {
                if (pending.size() - at > headLimit)
                    state = State::Broken;
                more = false;
            } else {
                stored = startPart(pending.substr(at, end - at) + "\r\n");
                at = end + 4;
                state = State::Content;
            }
            break;
        }
        case State::Content: {
            const std::size_t end = pending.find(terminator, at);
            if (end == std::string::npos) {
                // All but what could be the start of the terminator.
                const std::size_t safe = std::max(at, pending.size() - std::min(pending.size(), terminator.size() - 1));
                stored = keep(pending.data() + at, safe - at);
                at = safe;
                more = false;
            } else {
                stored = keep(pending.data() + at, end - at) && endPart();
                at = end + terminator.size();
                state = State::AfterDelimiter;
            }
            break;
        }
        case State::Done:
        case State::Broken:
            more = false;
            break;
        }
    }
    if (state == State::Done || state == State::Broken)
        std::string().swap(pending);
    else
        pending.erase(0, at);
    return stored;
}

bool FormSplitter::startPart(const std::string& head)
{
    current = FormPart();
    for (std::size_t line = 0; line < head.size();) {
        const std::size_t lineEnd = head.find("\r\n", line);
        const std::string header = head.substr(line, lineEnd - line);
        const std::size_t colon = header.find(':');
        if (colon != std::string::npos && lowered(header.substr(0, colon)) == "content-disposition")
            readDisposition(header.substr(colon + 1), current.field);
        line = lineEnd + 2;
    }
    const std::string& name = current.field.name;
    sink = Sink::Drop;
    if (plan.keepAll || (name == plan.fieldPart && !fieldKept)) {
        sink = Sink::Memory;
        fieldKept = true;
    } else if (name == plan.filePart && files < plan.maxFiles) {
        sink = Sink::File;
        ++files;
        current.file = partFileName(folder);
        out = std::fopen(current.file.c_str(), "wb");
        if (!out) {
            current.file.clear();
            return false;
        }
    }
    return true;
}

bool FormSplitter::keep(const char* bytes, std::size_t size)
{
    current.field.size += size;
    switch (sink) {
    case Sink::Drop:
        return true;
    case Sink::Memory:
        if (!plan.keepAll && current.field.size > plan.fieldLimit) {
            current.tooLarge = true;
            std::string().swap(current.content);
        } else {
            current.content.append(bytes, size);
        }
        return true;
    case Sink::File:
        return std::fwrite(bytes, 1, size, out) == size;
    }
    return true;
}

bool FormSplitter::endPart()
{
    if (out) {
        const bool written = std::fclose(out) == 0;
        out = nullptr;
        if (!written)
            return false;
    }
    if (sink != Sink::Drop)
        kept.push_back(std::move(current));
    current = FormPart();
    return true;
}

bool splitForm(const std::string& body, const std::string& boundary, std::vector<FormPart>& parts)
{
    FormPlan plan;
    plan.keepAll = true;
    FormSplitter splitter(boundary, std::move(plan));
    splitter.feed(body.data(), body.size());
    if (!splitter.complete())
        return false;
    parts = std::move(splitter.parts());
    return true;
}

} // namespace norva::service
