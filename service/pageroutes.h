#pragma once

#include "router.h"
#include "servicecontext.h"

namespace lofthaven::service {

// What a browser opens: the transfer page with its password form, /r/CODE,
// the legal pages, the front page, and the desktop app's update manifest.
class PageRoutes
{
public:
    explicit PageRoutes(ServiceContext &context);
    void addTo(Router &router);

private:
    void manifest(Exchange &x);
    void transferPageGet(Exchange &x);
    void transferPagePost(Exchange &x);
    void codePage(Exchange &x);

    ServiceContext &m_context;
};

} // namespace lofthaven::service
