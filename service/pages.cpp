#include "pages.h"

#include <ctime>

namespace lofthaven::service {

namespace {

std::string layout(const std::string &title, const std::string &body)
{
    return "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
           "<title>" +
           htmlEscape(title) +
           " - Lofthaven</title>"
           "<style>body{font-family:system-ui,sans-serif;max-width:40em;margin:3em auto;"
           "padding:0 1em;color:#222}code,.code{font-family:monospace;font-size:1.4em}"
           "button,.button{font-size:1em;padding:.5em 1.2em;margin-right:.5em}"
           "input{font-size:1em;padding:.3em}td{padding:.1em .8em .1em 0}</style>"
           "</head><body>\n" +
           body + "\n</body></html>\n";
}

std::string byteCount(int64_t n)
{
    const char *units[] = {"bytes", "KB", "MB", "GB", "TB"};
    double v = static_cast<double>(n);
    int u = 0;
    while (v >= 1024 && u < 4) {
        v /= 1024;
        ++u;
    }
    char buf[64];
    if (u == 0)
        std::snprintf(buf, sizeof buf, "%lld bytes", static_cast<long long>(n));
    else
        std::snprintf(buf, sizeof buf, "%.1f %s", v, units[u]);
    return buf;
}

} // namespace

std::string htmlEscape(const std::string &text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        default:
            out.push_back(c);
        }
    }
    return out;
}

std::string devicePage(const std::string &userCode, const std::string &note)
{
    std::string body = "<h1>Sign in a device</h1>\n";
    if (!note.empty())
        body += "<p id=\"note\"><strong>" + htmlEscape(note) + "</strong></p>\n";
    body += "<p>Check that this code matches the one your Lofthaven app shows.</p>\n"
            "<form id=\"device-form\" method=\"post\" action=\"/device\">\n"
            "<p><label>Code<br><input id=\"code\" name=\"code\" class=\"code\" value=\"" +
            htmlEscape(userCode) +
            "\" autocomplete=\"off\" required></label></p>\n"
            "<p><label>E-mail<br><input id=\"email\" name=\"email\" type=\"email\" "
            "placeholder=\"you@example.com\"></label></p>\n"
            "<p><button id=\"approve\" type=\"submit\" name=\"action\" value=\"approve\">Approve"
            "</button><button id=\"deny\" type=\"submit\" name=\"action\" value=\"deny\">Deny"
            "</button></p>\n</form>";
    return layout("Sign in a device", body);
}

std::string deviceDonePage(bool approved)
{
    return layout(approved ? "Device approved" : "Sign-in denied",
                  approved ? "<h1 id=\"result\">Device approved</h1><p>You can close this window "
                             "and return to Lofthaven.</p>"
                           : "<h1 id=\"result\">Sign-in denied</h1><p>The device was not signed "
                             "in. You can close this window.</p>");
}

std::string transferPage(const std::string &id, const std::string &name, int64_t size,
                         const std::string &title, const std::string &message,
                         const std::vector<PageFile> &files, int64_t expiresAtMs, bool hasPassword,
                         const std::string &note)
{
    std::string body = "<h1>" + htmlEscape(title.empty() ? name : title) + "</h1>\n";
    if (!message.empty())
        body += "<p>" + htmlEscape(message) + "</p>\n";
    body += "<p>" + htmlEscape(name) + " (" + byteCount(size) + ")</p>\n";
    if (files.size() > 1) {
        body += "<table>\n";
        for (const auto &f : files)
            body +=
                "<tr><td>" + htmlEscape(f.name) + "</td><td>" + byteCount(f.size) + "</td></tr>\n";
        body += "</table>\n";
    }
    const std::time_t expires = static_cast<std::time_t>(expiresAtMs / 1000);
    char when[64];
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M UTC", std::gmtime(&expires));
    body += "<p>Available until " + std::string(when) + ".</p>\n";
    if (!note.empty())
        body += "<p><strong>" + htmlEscape(note) + "</strong></p>\n";
    if (hasPassword) {
        body += "<form method=\"post\" action=\"/d/" + htmlEscape(id) +
                "\">"
                "<p><label>Password<br><input name=\"password\" type=\"password\" required>"
                "</label></p><p><button type=\"submit\">Download</button></p></form>";
    } else {
        body += "<p><a class=\"button\" id=\"download\" href=\"/dl/" + htmlEscape(id) +
                "\" download>Download</a></p>";
    }
    return layout(title.empty() ? name : title, body);
}

std::string messagePage(const std::string &title, const std::string &text)
{
    return layout(title, "<h1>" + htmlEscape(title) + "</h1><p>" + htmlEscape(text) + "</p>");
}

std::string legalPage(bool terms)
{
    if (terms)
        return layout("Terms",
                      "<h1>Terms of use</h1><p>This is a self-hosted Lofthaven service. Whoever "
                      "runs it decides who may use it. Send only files you have the right to "
                      "share. Transfers are deleted when they expire.</p>");
    return layout("Privacy",
                  "<h1>Privacy</h1><p>This service stores the files you send until they expire "
                  "or are deleted, their names and sizes, and for signed-in users the e-mail "
                  "address given at sign-in. Passwords are stored only as salted hashes. The "
                  "request log holds methods, paths, statuses and sizes, never tokens.</p>");
}

} // namespace lofthaven::service
