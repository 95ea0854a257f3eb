#pragma once

#include "router.h"
#include "servicecontext.h"

namespace lofthaven::service {

// A transfer's life apart from its bytes: created, looked up by code, read,
// unlocked with its password, completed or aborted, extended once, deleted.
class TransferRoutes
{
public:
    explicit TransferRoutes(ServiceContext &context);
    void addTo(Router &router);

private:
    void codeLookup(Exchange &x);
    void transferMeta(Exchange &x);
    void unlock(Exchange &x);
    void createTransfer(Exchange &x);
    void complete(Exchange &x);
    void abort(Exchange &x);
    void extend(Exchange &x);
    void remove(Exchange &x);

    ServiceContext &m_context;
};

} // namespace lofthaven::service
