#pragma once

#include "router.h"
#include "servicecontext.h"

namespace lofthaven::service {

// The signed-in account: who it is, its transfers, and its devices inbox.
class AccountRoutes
{
public:
    explicit AccountRoutes(ServiceContext &context);
    void addTo(Router &router);

private:
    void me(Exchange &x);
    void meTransfers(Exchange &x);
    void meInbox(Exchange &x);

    ServiceContext &m_context;
};

} // namespace lofthaven::service
