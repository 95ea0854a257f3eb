#include "secrets.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <stdexcept>
#include <vector>

namespace lofthaven::service {

namespace {

constexpr int kIterations = 120000;

void fillRandom(unsigned char *out, int n)
{
    if (RAND_bytes(out, n) != 1)
        throw std::runtime_error("no random bytes available");
}

std::string toHex(const unsigned char *data, size_t n)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(n * 2);
    for (size_t i = 0; i < n; ++i) {
        out.push_back(digits[data[i] >> 4]);
        out.push_back(digits[data[i] & 15]);
    }
    return out;
}

std::string fromAlphabet(const std::string &alphabet, int length)
{
    // Rejection sampling keeps every symbol equally likely.
    const unsigned limit = 256 - (256 % alphabet.size());
    std::string out;
    while (static_cast<int>(out.size()) < length) {
        unsigned char buf[64];
        fillRandom(buf, sizeof buf);
        for (unsigned char c : buf) {
            if (c < limit && static_cast<int>(out.size()) < length)
                out.push_back(alphabet[c % alphabet.size()]);
        }
    }
    return out;
}

std::string pbkdf2(const std::string &password, const std::string &salt, int iterations)
{
    unsigned char out[32];
    PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()),
                      reinterpret_cast<const unsigned char *>(salt.data()),
                      static_cast<int>(salt.size()), iterations, EVP_sha256(), sizeof out, out);
    return toHex(out, sizeof out);
}

} // namespace

std::string randomAlnum(int length)
{
    return fromAlphabet("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", length);
}

std::string randomDigits(int length)
{
    return fromAlphabet("0123456789", length);
}

std::string randomHex(int bytes)
{
    std::vector<unsigned char> buf(bytes);
    fillRandom(buf.data(), bytes);
    return toHex(buf.data(), buf.size());
}

std::string sha256Hex(const std::string &text)
{
    unsigned char out[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char *>(text.data()), text.size(), out);
    return toHex(out, sizeof out);
}

std::string hashPassword(const std::string &password)
{
    const std::string salt = randomHex(16);
    return "pbkdf2$" + std::to_string(kIterations) + "$" + salt + "$" +
           pbkdf2(password, salt, kIterations);
}

bool verifyPassword(const std::string &password, const std::string &stored)
{
    const auto a = stored.find('$');
    const auto b = stored.find('$', a + 1);
    const auto c = stored.find('$', b + 1);
    if (a == std::string::npos || b == std::string::npos || c == std::string::npos)
        return false;
    const int iterations = std::stoi(stored.substr(a + 1, b - a - 1));
    const std::string salt = stored.substr(b + 1, c - b - 1);
    return constantTimeEquals(pbkdf2(password, salt, iterations), stored.substr(c + 1));
}

bool constantTimeEquals(const std::string &a, const std::string &b)
{
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

} // namespace lofthaven::service
