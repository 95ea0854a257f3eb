#pragma once

#include <string>

namespace lofthaven::service {

// Letters and digits from the kernel's CSPRNG (OpenSSL RAND_bytes).
std::string randomAlnum(int length);
std::string randomDigits(int length);
std::string randomHex(int bytes);
std::string sha256Hex(const std::string &text);

// Salted PBKDF2-HMAC-SHA256; the stored form is "pbkdf2$iterations$salt$hash".
std::string hashPassword(const std::string &password);
bool verifyPassword(const std::string &password, const std::string &stored);
bool constantTimeEquals(const std::string &a, const std::string &b);

} // namespace lofthaven::service
