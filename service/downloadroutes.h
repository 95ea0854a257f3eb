#pragma once

#include "router.h"
#include "servicecontext.h"

#include <map>
#include <memory>
#include <mutex>

namespace lofthaven::service {

// /dl/ID: the transfer's bytes, whole or one range, read part file by part
// file. A download counts when its last byte is sent; while it runs it holds
// one of the transfer's remaining downloads, so parallel starts cannot pass
// the limit.
class DownloadRoutes
{
public:
    explicit DownloadRoutes(ServiceContext &context);
    void addTo(Router &router);

private:
    void download(Exchange &x);
    // A slot for one download of the transfer; given back when the answer ends
    // without its last byte (the returned flag is still false then).
    std::shared_ptr<bool> reserveDownload(const std::string &id, const Store::Row &r);
    void finishDownload(const std::string &id, bool completed);

    ServiceContext &m_context;
    std::mutex m_slotMutex;
    std::map<std::string, int> m_reserved; // downloads under way per transfer
};

} // namespace lofthaven::service
