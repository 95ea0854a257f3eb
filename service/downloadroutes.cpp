#include "downloadroutes.h"

#include "failure.h"
#include "secrets.h"
#include "transfercolumns.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace lofthaven::service {

namespace {

constexpr size_t kIoChunk = 1024 * 1024;
constexpr int kBusyRetrySeconds = 5;

} // namespace

DownloadRoutes::DownloadRoutes(ServiceContext &context)
    : m_context(context)
{}

void DownloadRoutes::addTo(Router &router)
{
    router.add("GET", "/dl/" + std::string(Router::kId), Router::Body::None,
               [this](Exchange &x) { download(x); });
}

void DownloadRoutes::download(Exchange &x)
{
    const std::string id = x.match(1);
    const auto row = m_context.transferRow(id);
    if (!row || Store::text((*row)[cState]) == "uploading")
        fail(404, "not_found", "No transfer has this link.");
    const auto &r = *row;
    if (Store::text(r[cState]) == "expired" || Store::integer(r[cExpires]) <= m_context.now())
        fail(410, "expired", "This transfer has expired.");
    const int64_t maxDownloads = Store::integer(r[cMaxDownloads]);
    if (maxDownloads > 0 && Store::integer(r[cDownloads]) >= maxDownloads)
        fail(410, "limit_reached", "This transfer reached its download limit.");
    if (!std::holds_alternative<std::nullptr_t>(r[cPassword])) {
        const std::string t = x.req.get_param_value("t");
        const auto ok =
            t.empty() ? std::vector<Store::Row>{}
                      : m_context.store().query("SELECT 1 FROM unlock_tokens WHERE token_hash = ?"
                                                " AND transfer_id = ? AND expires_at > ?",
                                                {sha256Hex(t), id, m_context.now()});
        if (ok.empty())
            fail(403, "password_required", "This transfer is password protected.");
    }
    const int64_t size = Store::integer(r[cSize]);
    const int64_t partSize = Store::integer(r[cPartSize]);
    int64_t first = 0, last = size - 1;
    const std::string range = x.header("Range");
    bool partial = false;
    if (!range.empty()) {
        // One range, "bytes=N-" or "bytes=N-M"; anything else is served whole.
        unsigned long long a = 0, b = 0;
        char dash = 0;
        int consumed = 0;
        if (std::sscanf(range.c_str(), "bytes=%llu%c%n", &a, &dash, &consumed) == 2 &&
            dash == '-') {
            const std::string rest = range.substr(consumed);
            bool valid = true;
            if (!rest.empty()) {
                valid = rest.find_first_not_of("0123456789") == std::string::npos;
                if (valid)
                    b = std::stoull(rest);
            }
            if (valid && (rest.empty() || b >= a)) {
                if (static_cast<int64_t>(a) >= size) {
                    x.res.set_header("Content-Range", "bytes */" + std::to_string(size));
                    fail(416, "range_not_satisfiable",
                         "The range starts at or past the end of the transfer.");
                }
                first = static_cast<int64_t>(a);
                if (!rest.empty())
                    last = std::min<int64_t>(static_cast<int64_t>(b), size - 1);
                partial = true;
            }
        }
    }
    const int64_t length = size == 0 ? 0 : last - first + 1;
    x.res.status = partial ? 206 : 200;
    x.res.set_header("Accept-Ranges", "bytes");
    if (partial)
        x.res.set_header("Content-Range", "bytes " + std::to_string(first) + "-" +
                                              std::to_string(last) + "/" + std::to_string(size));
    const std::string name = Store::text(r[cName]);
    std::string safe;
    for (char ch : name)
        safe.push_back(ch == '"' || ch == '\\' || static_cast<unsigned char>(ch) < 32 ? '_' : ch);
    x.res.set_header("Content-Disposition", "attachment; filename=\"" + safe + "\"");
    const std::string mime = Store::optText(r[cMime]).value_or("application/octet-stream");
    // Only an answer that reaches the last byte can complete a download; it
    // holds a slot from now on, so parallel starts cannot pass the limit.
    std::shared_ptr<bool> slot;
    if (last == size - 1)
        slot = reserveDownload(id, r);
    if (length == 0) {
        finishDownload(id, true);
        *slot = true;
        x.res.set_content("", mime);
        return;
    }

    struct Reader
    {
        ServiceContext *context;
        std::string id;
        int64_t partSize;
        int64_t part = -1;
        int fd = -1;
        std::vector<char> buffer = std::vector<char>(kIoChunk);
        ~Reader()
        {
            if (fd >= 0)
                ::close(fd);
        }
    };
    auto state = std::make_shared<Reader>();
    state->context = &m_context;
    state->id = id;
    state->partSize = partSize;
    const auto fault = Exchange::stats().fault;
    const int64_t dropAt = fault ? fault->dropAfterBytes : -1;
    const int trickle = fault ? fault->trickleMs : 0;
    x.res.set_content_provider(
        static_cast<size_t>(length), mime,
        [this, state, first, size, dropAt, trickle, id, slot](size_t offset, size_t remaining,
                                                              httplib::DataSink &sink) {
            if (dropAt >= 0 && static_cast<int64_t>(offset) >= dropAt)
                return false;
            const int64_t pos = first + static_cast<int64_t>(offset);
            const int64_t part = pos / state->partSize;
            if (part != state->part) {
                if (state->fd >= 0)
                    ::close(state->fd);
                state->part = part;
                state->fd = ::open(state->context->partPath(state->id, part + 1).c_str(),
                                   O_RDONLY | O_CLOEXEC);
                if (state->fd < 0)
                    return false;
                ::posix_fadvise(state->fd, 0, 0, POSIX_FADV_SEQUENTIAL);
            }
            const int64_t inPart = pos - part * state->partSize;
            int64_t want =
                std::min<int64_t>(static_cast<int64_t>(kIoChunk), state->partSize - inPart);
            want = std::min<int64_t>(want, size - pos);
            want = std::min<int64_t>(want, static_cast<int64_t>(remaining));
            if (trickle > 0)
                want = 1;
            if (dropAt >= 0)
                want = std::min<int64_t>(want, dropAt - static_cast<int64_t>(offset));
            const ssize_t got =
                ::pread(state->fd, state->buffer.data(), static_cast<size_t>(want), inPart);
            if (got <= 0)
                return false;
            if (trickle > 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(trickle));
            if (!sink.write(state->buffer.data(), static_cast<size_t>(got)))
                return false;
            Exchange::stats().bytesOut += got;
            // A download counts once, when the transfer's last byte goes out,
            // so a resumed download is one download.
            if (pos + got == size && slot && !*slot) {
                *slot = true;
                finishDownload(id, true);
            }
            return true;
        });
}

// A slot for one download of the transfer; given back when the answer ends
// without its last byte (the returned flag is still false then).
std::shared_ptr<bool> DownloadRoutes::reserveDownload(const std::string &id, const Store::Row &r)
{
    const int64_t maxDownloads = Store::integer(r[cMaxDownloads]);
    {
        std::lock_guard lock(m_slotMutex);
        if (maxDownloads > 0) {
            const auto now = m_context.transferRow(id);
            const int64_t done = now ? Store::integer((*now)[cDownloads]) : maxDownloads;
            if (done >= maxDownloads)
                fail(410, "limit_reached", "This transfer reached its download limit.");
            if (done + m_reserved[id] >= maxDownloads) {
                Failure f{429, "busy",
                          "Every download this transfer allows is under way; try again shortly."};
                f.retryAfter = kBusyRetrySeconds;
                throw f;
            }
        }
        ++m_reserved[id];
    }
    return std::shared_ptr<bool>(new bool(false), [this, id](bool *completed) {
        if (!*completed)
            finishDownload(id, false);
        delete completed;
    });
}

void DownloadRoutes::finishDownload(const std::string &id, bool completed)
{
    std::lock_guard lock(m_slotMutex);
    if (completed)
        m_context.store().exec("UPDATE transfers SET downloads = downloads + 1 WHERE id = ?", {id});
    if (--m_reserved[id] <= 0)
        m_reserved.erase(id);
}

} // namespace lofthaven::service
