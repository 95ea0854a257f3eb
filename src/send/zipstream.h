#pragma once

#include "send/senditem.h"

#include <QByteArray>
#include <QDateTime>
#include <QFile>
#include <QList>
#include <memory>
#include <optional>

namespace lofthaven {

// Streams the items as one stored ZIP archive, chunk by chunk, reading each file once.
// Local headers carry zero CRC and sizes (flag bit 3); the real values follow the data in a
// descriptor, so nothing has to be known before a file is read, yet the total length is
// known in advance (predictedSize). UTF-8 names (flag bit 11); no ZIP64, no directory entries.
//
//   header(i) -> body(i) ... -> descriptor(i) -> header(i+1) ... -> central(0..n) -> end -> done
//
// Blocking; one thread at a time. After a thrown error the stream is unusable.
class ZipStream
{
public:
    static constexpr qint64 kReadSize = 1048576;

    struct DosTime
    {
        quint16 time = 0;
        quint16 date = 0;
        friend bool operator==(const DosTime &, const DosTime &) = default;
    };

    explicit ZipStream(QList<SendItem> items);
    ~ZipStream();

    // The next chunk in archive order (one header, up to 1 MiB of data, one descriptor, one
    // central record or the end record), or nothing once the archive is complete.
    std::optional<QByteArray> next();

    // The same bytes as next(), packed into `data`: file contents are read straight into it,
    // so a caller that writes big blocks (the spill files) copies each byte once. Fills all of
    // maxSize unless the archive ends first; returns 0 at the end. Do not mix with next().
    qint64 read(char *data, qint64 maxSize);

    // Every byte has been handed out.
    bool atEnd() const;

    // Exactly the number of bytes next() produces: 22 + sum(92 + 2 * utf8(name) + size).
    static qint64 predictedSize(const QList<SendItem> &items);

    // MS-DOS time and date of a moment in the local time zone; years before 1980 become 1980.
    static DosTime dosTimeDate(const QDateTime &moment);

private:
    enum class Stage
    {
        Header,
        Body,
        Descriptor,
        Central,
        End,
        Done
    };

    struct Central
    {
        QByteArray name;
        quint32 crc = 0;
        quint32 size = 0;
        DosTime time;
        quint32 offset = 0;
    };

    QByteArray localHeader(const QByteArray &name, DosTime time) const;
    qint64 readBody(char *data, qint64 maxSize);

    QList<SendItem> m_items;
    Stage m_stage = Stage::Header;
    qsizetype m_index = 0;
    std::unique_ptr<QFile> m_file;
    QByteArray m_name;
    DosTime m_time;
    quint32 m_crc = 0;
    qint64 m_remaining = 0;
    QList<Central> m_central;
    quint32 m_offset = 0;
    quint32 m_centralStart = 0;
    quint32 m_centralSize = 0;
    QByteArray m_pending; // read(): a record not yet fully copied out
    qsizetype m_pendingPos = 0;
};

} // namespace lofthaven
