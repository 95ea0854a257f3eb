#include "partroutes.h"

#include "failure.h"
#include "secrets.h"
#include "transfercolumns.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

namespace fs = std::filesystem;

namespace lofthaven::service {

namespace {

constexpr size_t kIoChunk = 1024 * 1024;

bool writeAll(int fd, const char *data, size_t n)
{
    while (n > 0) {
        const ssize_t w = ::write(fd, data, n);
        if (w < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

void fsyncDir(const std::string &dir)
{
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

// A part's temporary file: closed and removed on every way out, unless kept.
struct PartFile
{
    std::string path;
    int fd = -1;
    ~PartFile()
    {
        if (fd >= 0)
            ::close(fd);
        if (!path.empty())
            ::unlink(path.c_str());
    }
};

} // namespace

PartRoutes::PartRoutes(ServiceContext &context)
    : m_context(context)
{}

void PartRoutes::addTo(Router &router)
{
    router.add("PUT", "/api/transfers/" + std::string(Router::kId) + "/parts/([0-9]{1,9})",
               Router::Body::Stream, [this](Exchange &x) { putPart(x); });
}

void PartRoutes::putPart(Exchange &x)
{
    const std::string id = x.match(1);
    const int64_t number = std::stoll(x.match(2));
    const Store::Row r =
        m_context.ownedTransfer(x, id, "The owner token does not match this transfer.");
    if (Store::integer(r[cExpires]) <= m_context.now())
        fail(410, "expired", "This transfer has expired.");
    if (Store::text(r[cState]) != "uploading")
        fail(409, "already_complete", "This transfer is already complete.");
    const int64_t partSize = Store::integer(r[cPartSize]);
    const int64_t partCount = Store::integer(r[cPartCount]);
    const int64_t size = Store::integer(r[cSize]);
    if (number < 1 || number > partCount)
        fail(400, "bad_part",
             "Part number must be between 1 and " + std::to_string(partCount) + ".");
    const int64_t expected = number < partCount ? partSize : size - (partCount - 1) * partSize;
    if (!x.reader)
        fail(411, "length_required", "A part needs a Content-Length.");
    if (x.req.has_header("Content-Length")) {
        // Digits only: checked before routing.
        const int64_t declared = std::stoll(x.header("Content-Length"));
        if (declared > expected)
            fail(413, "too_large",
                 "Part " + std::to_string(number) + " must be " + std::to_string(expected) +
                     " bytes.",
                 expected);
        if (declared != expected)
            fail(400, "bad_part_size",
                 "Part " + std::to_string(number) + " must be " + std::to_string(expected) +
                     " bytes, not " + std::to_string(declared) + ".");
    }

    const std::string dir = m_context.transferDir(id);
    fs::create_directories(dir);
    fs::permissions(dir, fs::perms::owner_all);
    const std::string finalPath = m_context.partPath(id, number);
    PartFile tmp;
    tmp.path = finalPath + ".tmp-" + randomHex(6);
    tmp.fd = ::open(tmp.path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0600);
    if (tmp.fd < 0) {
        tmp.path.clear();
        if (errno == ENOSPC)
            throw Failure(kDiskFull);
        throw std::runtime_error("cannot create a part file: " + std::string(std::strerror(errno)));
    }
    // Bytes go to disk as they arrive, through one small buffer.
    std::vector<char> buffer;
    buffer.reserve(kIoChunk);
    int64_t received = 0;
    int writeError = 0;
    auto flush = [&](const char *data, size_t n) {
        if (!writeError && !writeAll(tmp.fd, data, n))
            writeError = errno;
    };
    x.bodyConsumed = true;
    const bool readOk = (*x.reader)([&](const char *data, size_t n) {
        received += static_cast<int64_t>(n);
        Exchange::stats().bytesIn = received;
        if (received > expected || writeError)
            return true; // keep reading so the connection stays usable
        if (buffer.size() + n > kIoChunk) {
            flush(buffer.data(), buffer.size());
            buffer.clear();
        }
        if (n >= kIoChunk)
            flush(data, n);
        else
            buffer.insert(buffer.end(), data, data + n);
        return true;
    });
    if (!buffer.empty() && received <= expected)
        flush(buffer.data(), buffer.size());
    if (!writeError && ::fsync(tmp.fd) != 0)
        writeError = errno;
    if (!readOk)
        fail(400, "bad_request", "The part body was cut short.");
    if (writeError == ENOSPC || writeError == EDQUOT)
        throw Failure(kDiskFull);
    if (writeError)
        fail(507, "storage", "The service could not store the part.");
    if (received != expected)
        fail(received > expected ? 413 : 400, "bad_part_size",
             "Part " + std::to_string(number) + " must be " + std::to_string(expected) +
                 " bytes, not " + std::to_string(received) + ".",
             received > expected ? std::optional<int64_t>(expected) : std::nullopt);
    ::close(tmp.fd);
    tmp.fd = -1;
    // The rename happens under the store's lock, after the state check: a
    // transfer completed meanwhile keeps the bytes its etags name.
    const std::string etag = randomHex(8);
    const bool registered = m_context.store().transaction([&] {
        const auto state =
            m_context.store().query("SELECT state FROM transfers WHERE id = ?", {id});
        if (state.empty() || Store::text(state[0][0]) != "uploading")
            return false;
        m_context.store().exec(
            "INSERT OR REPLACE INTO parts (transfer_id, part_number, size, etag) "
            "VALUES (?, ?, ?, ?)",
            {id, number, expected, etag});
        if (::rename(tmp.path.c_str(), finalPath.c_str()) != 0)
            throw std::runtime_error("cannot rename part: " + std::string(std::strerror(errno)));
        tmp.path.clear();
        fsyncDir(dir);
        return true;
    });
    if (!registered)
        fail(409, "gone", "The transfer was completed, aborted or deleted meanwhile.");
    sendJson(x.res, {{"etag", qs(etag)}});
}

} // namespace lofthaven::service
