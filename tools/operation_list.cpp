// SPDX-License-Identifier: MIT
#include "operation_list.h"

#include <QString>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <sstream>

namespace norva::command {

namespace {

bool startsWith(const std::string& text, const std::string& start)
{
    return text.compare(0, start.size(), start) == 0;
}

// Edits between two keys, letters compared without case (boardId, boardid).
std::size_t distance(const std::string& a, const std::string& b)
{
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            const bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) == std::tolower(static_cast<unsigned char>(b[j - 1]));
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::string nearestOf(const std::string& key, const std::vector<std::string>& keys)
{
    std::string nearest;
    std::size_t best = std::max<std::size_t>(2, key.size() / 3) + 1;
    for (const std::string& candidate : keys) {
        const std::size_t edits = distance(key, candidate);
        if (edits < best) {
            best = edits;
            nearest = candidate;
        }
    }
    return nearest;
}

void collectUnknown(const QJsonObject& object, const std::string& prefix, const std::vector<std::string>& keys,
                    std::vector<UnknownKey>& unknown)
{
    for (auto member = object.begin(); member != object.end(); ++member) {
        const std::string path = prefix + member.key().toStdString();
        // Listed itself, or inside a listed key whose inner keys are free.
        const bool taken = std::any_of(keys.begin(), keys.end(), [&](const std::string& key) {
            return key == path || startsWith(path, key + '.');
        });
        if (taken)
            continue;
        const bool holdsListed = std::any_of(keys.begin(), keys.end(), [&](const std::string& key) {
            return startsWith(key, path + '.');
        });
        if (holdsListed) {
            if (member.value().isObject())
                collectUnknown(member.value().toObject(), path + '.', keys, unknown);
            continue;
        }
        unknown.push_back({path, nearestOf(path, keys)});
    }
}

} // namespace

const OperationEntry* operationsBegin()
{
    return std::begin(operationTable);
}

const OperationEntry* operationsEnd()
{
    return std::end(operationTable);
}

const OperationEntry* findOperation(const std::string& name)
{
    for (const OperationEntry& entry : operationTable) {
        const std::string full = entry.name;
        if (full == name || full == "norva_" + name || full == "norva_sdk_" + name || full == "norva_tavlin_" + name)
            return &entry;
    }
    return nullptr;
}

std::vector<std::string> keysOf(const OperationEntry& entry)
{
    std::vector<std::string> keys;
    std::istringstream words(entry.keys);
    for (std::string key; words >> key;)
        keys.push_back(key);
    return keys;
}

std::vector<UnknownKey> unknownKeys(const OperationEntry& entry, const QJsonObject& document)
{
    std::vector<UnknownKey> unknown;
    collectUnknown(document, std::string(), keysOf(entry), unknown);
    return unknown;
}

} // namespace norva::command
