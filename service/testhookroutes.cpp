#include "testhookroutes.h"

#include "failure.h"

#include <QJsonArray>

namespace lofthaven::service {

TestHookRoutes::TestHookRoutes(ServiceContext &context, DeviceSignInRoutes &devices,
                               Sweeper &sweeper)
    : m_context(context)
    , m_devices(devices)
    , m_sweeper(sweeper)
{}

void TestHookRoutes::addTo(Router &router)
{
    using B = Router::Body;
    auto faults = [this](Exchange &x) { testFaults(x); };
    router.add("POST", "/__test/faults", B::Json, faults);
    router.add("GET", "/__test/faults", B::None, faults);
    router.add("DELETE", "/__test/faults", B::Json, faults);
    router.add("POST", "/__test/device/approve", B::Json,
               [this](Exchange &x) { testDevice(x, true); });
    router.add("POST", "/__test/device/deny", B::Json,
               [this](Exchange &x) { testDevice(x, false); });
    router.add("GET", "/__test/log", B::None, [this](Exchange &x) { testLog(x); });
    router.add("DELETE", "/__test/log", B::Json, [this](Exchange &x) { testLog(x); });
    router.add("POST", "/__test/clock", B::Json, [this](Exchange &x) { testClock(x); });
    router.add("POST", "/__test/sweep", B::Json, [this](Exchange &x) { testSweep(x); });
}

void TestHookRoutes::testFaults(Exchange &x)
{
    if (x.req.method == "DELETE") {
        m_context.faults().clear();
        sendJson(x.res, {{"ok", true}});
        return;
    }
    if (x.req.method == "POST") {
        const auto b = x.json();
        FaultInjector::Fault f;
        f.method = str(b.value("method").toString("*"));
        f.path = str(b.value("path").toString());
        if (f.path.empty() || f.path[0] != '/')
            fail(400, "bad_request", "path must start with /.");
        f.count = b.value("count").toInt(1);
        f.status = b.value("status").toInt(0);
        f.retryAfter = b.value("retryAfter").toInt(-1);
        f.dropAfterBytes = b.value("dropAfterBytes").toInteger(-1);
        f.stallSeconds = b.value("stallSeconds").toDouble(0);
        f.trickleMs = b.value("trickleMs").toInt(0);
        if (f.count < 1)
            fail(400, "bad_request", "count must be at least 1.");
        if (f.status == 0 && f.dropAfterBytes < 0 && f.stallSeconds <= 0 && f.trickleMs <= 0)
            fail(400, "bad_request",
                 "Give at least one of status, dropAfterBytes, stallSeconds, trickleMs.");
        if (f.status != 0 && (f.status < 400 || f.status > 599))
            fail(400, "bad_request", "status must be 400 to 599.");
        m_context.faults().add(f);
    }
    QJsonArray list;
    for (const auto &f : m_context.faults().list())
        list.append(QJsonObject{{"method", qs(f.method)},
                                {"path", qs(f.path)},
                                {"count", f.count},
                                {"status", f.status},
                                {"retryAfter", f.retryAfter},
                                {"dropAfterBytes", static_cast<qint64>(f.dropAfterBytes)},
                                {"stallSeconds", f.stallSeconds},
                                {"trickleMs", f.trickleMs}});
    sendJson(x.res, {{"faults", list}});
}

void TestHookRoutes::testDevice(Exchange &x, bool approve)
{
    const auto b = x.json();
    m_devices.decide(str(b.value("userCode").toString()),
                     str(b.value("email").toString("tester@example.com")), approve);
    sendJson(x.res, {{"ok", true}});
}

void TestHookRoutes::testLog(Exchange &x)
{
    if (x.req.method == "DELETE") {
        m_context.log().clear();
        sendJson(x.res, {{"ok", true}});
        return;
    }
    QJsonArray list;
    for (const auto &e : m_context.log().entries()) {
        QJsonObject o{{"at", static_cast<double>(e.at)},
                      {"startedAt", static_cast<double>(e.startedAt)},
                      {"method", qs(e.method)},
                      {"path", qs(e.path)},
                      {"status", e.status},
                      {"bytesIn", static_cast<qint64>(e.bytesIn)},
                      {"bytesOut", static_cast<qint64>(e.bytesOut)},
                      {"authorization", e.authorization},
                      {"ownerToken", e.ownerToken},
                      {"unlockToken", e.unlockToken}};
        if (!e.range.empty())
            o.insert("range", qs(e.range));
        list.append(o);
    }
    sendJson(x.res, {{"requests", list}});
}

void TestHookRoutes::testClock(Exchange &x)
{
    const auto b = x.json();
    m_context.advanceClock(static_cast<int64_t>(b.value("advanceSeconds").toDouble(0) * 1000));
    sendJson(x.res, {{"now", static_cast<double>(m_context.now())}});
}

void TestHookRoutes::testSweep(Exchange &x)
{
    m_sweeper.sweep();
    sendJson(x.res, {{"ok", true}});
}

} // namespace lofthaven::service
