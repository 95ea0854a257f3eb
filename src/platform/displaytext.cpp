#include "platform/displaytext.h"

#include <QList>
#include <QTextBoundaryFinder>

namespace lofthaven {

namespace {

// Embeddings, overrides and isolates can make "exe.txt" read as "txt.exe".
bool isBidiControl(char32_t c)
{
    return (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069) || c == 0x200E ||
           c == 0x200F || c == 0x061C;
}

bool isControl(char32_t c)
{
    return c < 0x20 || (c >= 0x7F && c <= 0x9F) || isBidiControl(c);
}

} // namespace

QString withoutControlCharacters(const QString &name)
{
    QString result;
    result.reserve(name.size());
    for (const char32_t c : name.toUcs4()) {
        if (!isControl(c))
            result.append(QString::fromUcs4(&c, 1));
    }
    return result;
}

QString displayText(const QString &text, qsizetype maxCharacters)
{
    QString result;
    result.reserve(std::min(text.size(), maxCharacters + 1));
    for (const char32_t c : text.toUcs4()) {
        if (c == u'\n' || c == u'\r' || c == u'\t')
            result.append(u' ');
        else if (!isControl(c))
            result.append(QString::fromUcs4(&c, 1));
        if (result.size() > 4 * maxCharacters)
            break; // enough to cut from; a megabyte of text is not read to the end
    }
    const QString cut = firstGraphemes(result, maxCharacters);
    return cut.size() < result.size() ? cut.trimmed() + QChar(0x2026) : result;
}

QString firstGraphemes(const QString &text, qsizetype count)
{
    if (count <= 0)
        return {};
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype taken = 0;
    while (finder.toNextBoundary() >= 0) {
        if (++taken == count)
            return text.left(finder.position());
    }
    return text;
}

} // namespace lofthaven
