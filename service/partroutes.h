#pragma once

#include "router.h"
#include "servicecontext.h"

namespace lofthaven::service {

// Part uploads: each part streams to a temporary file, is synced, then renamed
// into place and registered in one step under the store's lock. A repeated
// upload replaces the part; a completed transfer's parts never change.
class PartRoutes
{
public:
    explicit PartRoutes(ServiceContext &context);
    void addTo(Router &router);

private:
    void putPart(Exchange &x);

    ServiceContext &m_context;
};

} // namespace lofthaven::service
