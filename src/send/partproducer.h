#pragma once

#include "send/partpayload.h"
#include "send/sendplan.h"

#include <QByteArray>
#include <QString>
#include <memory>
#include <optional>

namespace lofthaven {

class ZipStream;

// Cuts a plan's bytes into upload parts of exactly partSize bytes (the last may be shorter).
// A single file becomes ranges of itself and is never copied. An archive is streamed once and
// each part is spilled to "<spillDir>/part-N", so a failed part can be sent again from its
// file without re-running the stream. Parts must be asked for in order 1, 2, 3, ...
// Blocking; one thread at a time. Spill files stay until the caller removes spillDir.
class PartProducer
{
public:
    // Throws AppError when the spill folder of an archive plan cannot be created.
    PartProducer(SendPlan plan, qint64 partSize, QString spillDir);
    ~PartProducer();

    // The next part, or nothing once every byte has been handed out. For an archive the part
    // file is written here; stream, read and write errors are thrown as AppError.
    std::optional<PartPayload> next(int partNumber);

    bool isFinished() const;

    const SendPlan &plan() const { return m_plan; }

private:
    std::optional<PartPayload> nextSpilled(int partNumber);

    SendPlan m_plan;
    qint64 m_partSize;
    QString m_spillDir;
    std::unique_ptr<ZipStream> m_zip;
    std::unique_ptr<char[]> m_block; // archive: one spill write's worth of stream bytes
    qint64 m_offset = 0;             // single file: next byte to hand out
    qint64 m_produced = 0;           // archive: bytes spilled so far
};

} // namespace lofthaven
