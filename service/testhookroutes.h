#pragma once

#include "devicesigninroutes.h"
#include "router.h"
#include "servicecontext.h"
#include "sweeper.h"

namespace lofthaven::service {

// /__test/: fault rules, deciding device sign-ins, the request log, moving the
// clock and sweeping now. Only with --test-hooks, which is loopback only.
class TestHookRoutes
{
public:
    TestHookRoutes(ServiceContext &context, DeviceSignInRoutes &devices, Sweeper &sweeper);
    void addTo(Router &router);

private:
    void testFaults(Exchange &x);
    void testDevice(Exchange &x, bool approve);
    void testLog(Exchange &x);
    void testClock(Exchange &x);
    void testSweep(Exchange &x);

    ServiceContext &m_context;
    DeviceSignInRoutes &m_devices;
    Sweeper &m_sweeper;
};

} // namespace lofthaven::service
