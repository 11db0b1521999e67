// SPDX-License-Identifier: MIT
// Users' passwords as Argon2id hashes (libsodium): the service never stores a
// password as it was typed.
#pragma once

#include <optional>
#include <string>

namespace norva::service {

// A hash in libsodium's "$argon2id$..." text form, with its own random salt.
// Costs 2 passes over 19 MiB: slow enough to make guessing expensive, small
// enough that logins stay quick and the service's memory stays low.
std::string hashPassword(const std::string& plain);

// Whether `plain` is the password that `hash` was made from.
bool passwordMatches(const std::string& hash, const std::string& plain);

// Hashes are made one at a time. These wait their turn only while few others
// do: with too many waiting already they answer nullopt at once, so that a
// flood of logins is told the service is busy instead of holding the workers
// every other route needs.
std::optional<std::string> hashPasswordInTurn(const std::string& plain);
std::optional<bool> passwordMatchesInTurn(const std::string& hash, const std::string& plain);

// For testing a host's error paths (--slow-hash-ms): each hash in turn takes
// this much longer, so that logins pile up as they would on a slow machine.
void slowPasswordHashesBy(int milliseconds);

// The SHA-256 of a login token, in hex: what the service keeps of a token (a
// token is 256 random bits, so a fast hash is enough; the file never holds one
// that works).
std::string tokenHash(const std::string& token);

// A new login token: 256 random bits in hex.
std::string newToken();

// Whether a stored value is such a hash (a database from before holds the
// passwords as they were typed).
bool isPasswordHash(const std::string& stored);

} // namespace norva::service
