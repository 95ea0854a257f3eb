#include "send/zipstream.h"

#include "api/apperror.h"
#include "send/crc32.h"

#include <QtEndian>
#include <cstring>

namespace lofthaven {

namespace {

constexpr quint16 kVersion = 20;
constexpr quint16 kFlags = 0x0808; // data descriptor follows + UTF-8 name

// Writes little-endian integers into a buffer allocated at its final size.
class Writer
{
public:
    explicit Writer(qsizetype size)
        : m_bytes(size, Qt::Uninitialized)
    {}
    Writer &u16(quint16 v)
    {
        qToLittleEndian(v, m_bytes.data() + m_pos);
        m_pos += 2;
        return *this;
    }
    Writer &u32(quint32 v)
    {
        qToLittleEndian(v, m_bytes.data() + m_pos);
        m_pos += 4;
        return *this;
    }
    Writer &bytes(const QByteArray &b)
    {
        std::memcpy(m_bytes.data() + m_pos, b.constData(), size_t(b.size()));
        m_pos += b.size();
        return *this;
    }
    QByteArray take()
    {
        Q_ASSERT(m_pos == m_bytes.size());
        return std::move(m_bytes);
    }

private:
    QByteArray m_bytes;
    qsizetype m_pos = 0;
};

} // namespace

ZipStream::ZipStream(QList<SendItem> items)
    : m_items(std::move(items))
{}

ZipStream::~ZipStream() = default;

qint64 ZipStream::predictedSize(const QList<SendItem> &items)
{
    qint64 total = 22;
    for (const SendItem &item : items)
        total += 92 + 2 * qint64(item.name.toUtf8().size()) + item.size;
    return total;
}

ZipStream::DosTime ZipStream::dosTimeDate(const QDateTime &moment)
{
    const QDateTime local = moment.toLocalTime();
    const QDate date = local.date();
    const QTime time = local.time();
    if (!date.isValid() || !time.isValid())
        return DosTime{0, quint16((0 << 9) | (1 << 5) | 1)};
    const int year = std::max(date.year(), 1980) - 1980;
    return DosTime{quint16((time.hour() << 11) | (time.minute() << 5) | (time.second() / 2)),
                   quint16((year << 9) | (date.month() << 5) | date.day())};
}

QByteArray ZipStream::localHeader(const QByteArray &name, DosTime time) const
{
    return Writer(30 + name.size())
        .u32(0x04034B50)
        .u16(kVersion)
        .u16(kFlags)
        .u16(0) // stored
        .u16(time.time)
        .u16(time.date)
        .u32(0) // CRC, sizes: in the descriptor
        .u32(0)
        .u32(0)
        .u16(quint16(name.size()))
        .u16(0)
        .bytes(name)
        .take();
}

std::optional<QByteArray> ZipStream::next()
{
    for (;;) {
        switch (m_stage) {
        case Stage::Header: {
            if (m_index == m_items.size()) {
                m_centralStart = m_offset;
                m_stage = Stage::Central;
                m_index = 0;
                continue;
            }
            const SendItem &item = m_items.at(m_index);
            QByteArray name = item.name.toUtf8();
            const DosTime time = dosTimeDate(item.mtime);
            QByteArray header = localHeader(name, time);
            auto file = std::make_unique<QFile>(item.path);
            if (!file->open(QIODevice::ReadOnly | QIODevice::Unbuffered))
                throw AppError(u"Can't read " + item.name + u": " + file->errorString());
            m_file = std::move(file);
            m_name = std::move(name);
            m_time = time;
            m_crc = 0;
            m_remaining = item.size;
            m_stage = Stage::Body;
            return header;
        }
        case Stage::Body: {
            if (m_remaining == 0) {
                m_file->close();
                // A failed close can be the only sign of a read error on some file systems.
                if (m_file->error() != QFileDevice::NoError)
                    throw AppError(u"Can't read " + m_items.at(m_index).name + u": " +
                                   m_file->errorString());
                m_file.reset();
                m_stage = Stage::Descriptor;
                continue;
            }
            QByteArray chunk(std::min(m_remaining, kReadSize), Qt::Uninitialized);
            chunk.truncate(readBody(chunk.data(), chunk.size()));
            return chunk;
        }
        case Stage::Descriptor: {
            const quint32 size = quint32(m_items.at(m_index).size);
            QByteArray descriptor =
                Writer(16).u32(0x08074B50).u32(m_crc).u32(size).u32(size).take();
            m_central.append(Central{m_name, m_crc, size, m_time, m_offset});
            m_offset += quint32(30 + m_name.size()) + size + 16;
            m_name.clear();
            ++m_index;
            m_stage = Stage::Header;
            return descriptor;
        }
        case Stage::Central: {
            if (m_index == m_central.size()) {
                m_stage = Stage::End;
                continue;
            }
            const Central &c = m_central.at(m_index);
            QByteArray record = Writer(46 + c.name.size())
                                    .u32(0x02014B50)
                                    .u16(kVersion)
                                    .u16(kVersion)
                                    .u16(kFlags)
                                    .u16(0)
                                    .u16(c.time.time)
                                    .u16(c.time.date)
                                    .u32(c.crc)
                                    .u32(c.size)
                                    .u32(c.size)
                                    .u16(quint16(c.name.size()))
                                    .u16(0) // extra
                                    .u16(0) // comment
                                    .u16(0) // disk
                                    .u16(0) // internal attributes
                                    .u32(0) // external attributes
                                    .u32(c.offset)
                                    .bytes(c.name)
                                    .take();
            m_centralSize += quint32(record.size());
            ++m_index;
            return record;
        }
        case Stage::End: {
            const auto count = quint16(m_central.size());
            m_stage = Stage::Done;
            m_central.clear();
            return Writer(22)
                .u32(0x06054B50)
                .u16(0)
                .u16(0)
                .u16(count)
                .u16(count)
                .u32(m_centralSize)
                .u32(m_centralStart)
                .u16(0)
                .take();
        }
        case Stage::Done:
            return std::nullopt;
        }
    }
}

qint64 ZipStream::readBody(char *data, qint64 maxSize)
{
    const qint64 got = m_file->read(data, std::min(m_remaining, maxSize));
    if (got < 0)
        throw AppError(m_file->errorString());
    if (got == 0)
        throw AppError(m_items.at(m_index).name + u" changed while sending (it got smaller).");
    m_crc = Crc32::update(m_crc, data, got);
    m_remaining -= got;
    return got;
}

qint64 ZipStream::read(char *data, qint64 maxSize)
{
    qint64 filled = 0;
    while (filled < maxSize) {
        if (m_pendingPos < m_pending.size()) {
            const qint64 take = std::min<qint64>(maxSize - filled, m_pending.size() - m_pendingPos);
            std::memcpy(data + filled, m_pending.constData() + m_pendingPos, size_t(take));
            m_pendingPos += take;
            filled += take;
            continue;
        }
        if (m_stage == Stage::Body && m_remaining > 0) {
            filled += readBody(data + filled, maxSize - filled);
            continue;
        }
        std::optional<QByteArray> record = next();
        if (!record)
            break;
        m_pending = std::move(*record);
        m_pendingPos = 0;
    }
    return filled;
}

bool ZipStream::atEnd() const
{
    return m_stage == Stage::Done && m_pendingPos >= m_pending.size();
}

} // namespace lofthaven
