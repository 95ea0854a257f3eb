#pragma once

#include <QString>

namespace lofthaven {

// What one upload part's bytes are: a range of the source file (single-file sends, read at
// send time by the transport) or the whole of a spilled part file (archives).
struct PartPayload
{
    enum class Kind
    {
        FileRange,
        Spilled
    };

    Kind kind = Kind::FileRange;
    QString path;      // source file, or the spilled part file
    qint64 offset = 0; // always 0 for a spilled part
    qint64 length = 0;

    static PartPayload fileRange(QString path, qint64 offset, qint64 length)
    {
        return PartPayload{Kind::FileRange, std::move(path), offset, length};
    }
    static PartPayload spilled(QString path, qint64 length)
    {
        return PartPayload{Kind::Spilled, std::move(path), 0, length};
    }
    bool isSpilled() const { return kind == Kind::Spilled; }

    friend bool operator==(const PartPayload &, const PartPayload &) = default;
};

} // namespace lofthaven
