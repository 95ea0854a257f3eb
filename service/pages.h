#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lofthaven::service {

// The few browser pages the service serves. Inputs are escaped here.
struct PageFile
{
    std::string name;
    int64_t size = 0;
};

std::string htmlEscape(const std::string &text);
std::string devicePage(const std::string &userCode, const std::string &note);
std::string deviceDonePage(bool approved);
std::string transferPage(const std::string &id, const std::string &name, int64_t size,
                         const std::string &title, const std::string &message,
                         const std::vector<PageFile> &files, int64_t expiresAtMs, bool hasPassword,
                         const std::string &note);
std::string messagePage(const std::string &title, const std::string &text);
std::string legalPage(bool terms);

} // namespace lofthaven::service
