#pragma once

#include <QString>

namespace lofthaven {

// Text that came from the network, made safe to show: control characters (escape sequences
// that would retitle or clear a terminal), bidirectional overrides and other invisible
// formatting controls are dropped, line breaks and tabs become spaces, and anything longer
// than `maxCharacters` is cut at a character boundary and ends with "…".
QString displayText(const QString &text, qsizetype maxCharacters = 300);

// A name that came from the network with its control and bidirectional-override characters
// removed; every other character is kept.
QString withoutControlCharacters(const QString &name);

// The first `count` user-perceived characters of `text`: never splits a surrogate pair or an
// accent from its letter.
QString firstGraphemes(const QString &text, qsizetype count);

} // namespace lofthaven
