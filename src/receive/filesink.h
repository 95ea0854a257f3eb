#pragma once

#include "api/httprequest.h"

#include <QByteArray>
#include <QString>

#include <exception>
#include <functional>
#include <mutex>

namespace lofthaven {

// Writes one download response into the partial file, on the transfer thread.
//
//   200            → the partial file is rewritten from its first byte
//   206            → appended after the `resumeFrom` bytes already there (0 when no range was
//                    asked for), but only when the Content-Range starts exactly there (a
//                    misplaced range is never spliced)
//   anything else  → the body is kept (at most 64 KiB, then the request is cut) to be read as
//                    the service's error
//
// A local failure (open, write, a full disk, more bytes than the transfer holds) aborts the
// request and is reported in preference to the transport's own error.
class FileSink : public ResponseSink
{
public:
    static constexpr qint64 kErrorBodyCap = 64 * 1024;

    // `expectedSize` < 0 turns off the guard against bodies larger than the transfer.
    FileSink(QString partial, qint64 resumeFrom, qint64 expectedSize,
             std::function<void(qint64 total)> onBytes);
    ~FileSink() override;

    bool begin(int status, const HttpHeaders &headers) override;
    bool write(const char *data, qint64 size) override;
    void finish() override;

    int status() const;
    QByteArray errorBody() const;
    std::exception_ptr error() const;

private:
    void failLocked(std::exception_ptr error);
    void closeLocked();
    void startWritebackLocked();

    mutable std::mutex m_lock;
    const QString m_partial;
    const qint64 m_resumeFrom;
    const qint64 m_expectedSize;
    const std::function<void(qint64)> m_onBytes;
    int m_fd = -1;
    qint64 m_written = 0;
    qint64 m_writebackFrom = 0; // bytes before this were handed to the disk early
    int m_status = 0;
    QByteArray m_errorBody;
    std::exception_ptr m_error;
};

} // namespace lofthaven
