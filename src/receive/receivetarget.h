#pragma once

#include <QString>

#include <optional>

namespace lofthaven {

// What the receive field's text points at: a 6-digit code or a transfer identifier.
struct ReceiveTarget
{
    enum class Kind
    {
        Code,
        Link
    };
    Kind kind;
    QString value;

    bool operator==(const ReceiveTarget &) const = default;
};

// Turns whatever the user typed or pasted (a code, "123 456", a link, a lofthaven: URL) into a
// target; nothing when the text is not usable. Pure function, safe on any thread.
// A Link value from a lofthaven: URL is not restricted to letters and digits: callers must
// percent-encode it before putting it into a request path.
std::optional<ReceiveTarget> normalizeReceiveInput(const QString &text);

} // namespace lofthaven
