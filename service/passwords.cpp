// SPDX-License-Identifier: MIT
#include "passwords.h"

#include <sodium.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace norva::service {

namespace {

constexpr unsigned long long passes = 2;
constexpr std::size_t memoryBytes = std::size_t(19) << 20;

// One hash at a time: each takes `memoryBytes`, and logins that arrive together
// would otherwise multiply the service's memory. (Callers hash outside the
// database lock, so only other logins wait for this one.)
std::mutex hashing;

void initialiseOnce()
{
    static const bool ready = sodium_init() >= 0;
    if (!ready)
        throw std::runtime_error("libsodium can't start");
}

} // namespace

std::string hashPassword(const std::string& plain)
{
    initialiseOnce();
    const std::lock_guard<std::mutex> oneAtATime(hashing);
    char hash[crypto_pwhash_STRBYTES];
    if (crypto_pwhash_str_alg(hash, plain.data(), plain.size(), passes, memoryBytes, crypto_pwhash_ALG_ARGON2ID13) != 0)
        throw std::runtime_error("out of memory for a password hash");
    return hash;
}

bool passwordMatches(const std::string& hash, const std::string& plain)
{
    initialiseOnce();
    const std::lock_guard<std::mutex> oneAtATime(hashing);
    return isPasswordHash(hash) && crypto_pwhash_str_verify(hash.c_str(), plain.data(), plain.size()) == 0;
}

namespace {

// Hashes waiting or running at once, beyond which a caller is turned away.
constexpr int mostInTurn = 16;
std::atomic<int> inTurn{0};
std::atomic<int> extraHashMs{0};

template <class Work> auto inTurnOrNot(Work work) -> std::optional<decltype(work())>
{
    if (inTurn.fetch_add(1) >= mostInTurn) {
        inTurn.fetch_sub(1);
        return std::nullopt;
    }
    struct Leave {
        ~Leave() { inTurn.fetch_sub(1); }
    } leave;
    if (const int extra = extraHashMs.load())
        std::this_thread::sleep_for(std::chrono::milliseconds(extra));
    return work();
}

} // namespace

void slowPasswordHashesBy(int milliseconds)
{
    extraHashMs = milliseconds;
}

std::optional<std::string> hashPasswordInTurn(const std::string& plain)
{
    return inTurnOrNot([&] { return hashPassword(plain); });
}

std::optional<bool> passwordMatchesInTurn(const std::string& hash, const std::string& plain)
{
    return inTurnOrNot([&] { return passwordMatches(hash, plain); });
}

bool isPasswordHash(const std::string& stored)
{
    return stored.rfind("$argon2id$", 0) == 0;
}

namespace {

std::string hex(const unsigned char* bytes, std::size_t size)
{
    std::string text(size * 2 + 1, '\0');
    sodium_bin2hex(&text[0], text.size(), bytes, size);
    text.pop_back();
    return text;
}

} // namespace

std::string tokenHash(const std::string& token)
{
    unsigned char digest[crypto_hash_sha256_BYTES];
    crypto_hash_sha256(digest, reinterpret_cast<const unsigned char*>(token.data()), token.size());
    return hex(digest, sizeof digest);
}

std::string newToken()
{
    unsigned char bytes[32];
    randombytes_buf(bytes, sizeof bytes);
    return hex(bytes, sizeof bytes);
}

} // namespace norva::service
