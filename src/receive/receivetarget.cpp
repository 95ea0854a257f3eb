#include "receive/receivetarget.h"

#include <QRegularExpression>

namespace lofthaven {

namespace {

const QString kScheme = QStringLiteral("lofthaven:");
const QString kSchemeWithSlashes = QStringLiteral("lofthaven://");

// Codes are typed by hand, sometimes with a space or dash, sometimes with a full-width
// keyboard; anything longer than a short line is a sentence, not a code.
std::optional<ReceiveTarget> codeFromDigits(const QString &trimmed)
{
    const QList<uint> points = trimmed.toUcs4();
    if (points.size() >= 13)
        return std::nullopt;
    QString code;
    for (const uint point : points) {
        const auto c = char32_t(point);
        if (!QChar::isNumber(c))
            continue;
        // Superscripts and fractions count as numbers but may have no single digit value.
        const int digit = QChar::digitValue(c);
        if (digit < 0 || digit > 9)
            return std::nullopt;
        code.append(QChar(u'0' + digit));
    }
    if (code.size() != 6)
        return std::nullopt;
    return ReceiveTarget{ReceiveTarget::Kind::Code, code};
}

} // namespace

std::optional<ReceiveTarget> normalizeReceiveInput(const QString &text)
{
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty())
        return std::nullopt;

    const QRegularExpression linkPattern(QStringLiteral("/d/([A-Za-z0-9]{6,16})"));
    const QRegularExpression codePattern(QStringLiteral("/r/([0-9]{6})"));

    if (const auto match = linkPattern.match(trimmed); match.hasMatch())
        return ReceiveTarget{ReceiveTarget::Kind::Link, match.captured(1)};
    if (const auto match = codePattern.match(trimmed); match.hasMatch())
        return ReceiveTarget{ReceiveTarget::Kind::Code, match.captured(1)};

    if (trimmed.startsWith(kScheme)) {
        QString rest = trimmed;
        rest.remove(kSchemeWithSlashes);
        const QStringList pieces = rest.split(u'/', Qt::SkipEmptyParts);
        if (pieces.size() >= 2) {
            if (pieces.at(0) == u"d")
                return ReceiveTarget{ReceiveTarget::Kind::Link, pieces.at(1)};
            return normalizeReceiveInput(pieces.at(1));
        }
    }

    return codeFromDigits(trimmed);
}

} // namespace lofthaven
