#include "accountroutes.h"

#include "failure.h"
#include "transfercolumns.h"

#include <QJsonArray>

namespace lofthaven::service {

AccountRoutes::AccountRoutes(ServiceContext &context)
    : m_context(context)
{}

void AccountRoutes::addTo(Router &router)
{
    using B = Router::Body;
    router.add("GET", "/api/me", B::None, [this](Exchange &x) { me(x); });
    router.add("GET", "/api/me/transfers", B::None, [this](Exchange &x) { meTransfers(x); });
    router.add("GET", "/api/me/inbox", B::None, [this](Exchange &x) { meInbox(x); });
}

void AccountRoutes::me(Exchange &x)
{
    if (!x.user) {
        sendJson(x.res, {{"signedIn", false}, {"limits", m_context.limitsFor(false)}});
        return;
    }
    sendJson(x.res, {{"signedIn", true},
                     {"user", ServiceContext::userJson(*x.user)},
                     {"plans", m_context.plans()},
                     {"limits", m_context.limitsFor(true)}});
}

void AccountRoutes::meTransfers(Exchange &x)
{
    if (!x.user)
        fail(401, "unauthorized", "Sign in to see your transfers.");
    QJsonArray list;
    for (const auto &row : m_context.store().query(std::string("SELECT ") + kTransferColumns +
                                                       " FROM transfers WHERE user_id = ? "
                                                       "ORDER BY created_at DESC, rowid DESC",
                                                   {x.user->id}))
        list.append(m_context.metaJson(row));
    sendJson(x.res, {{"transfers", list}});
}

void AccountRoutes::meInbox(Exchange &x)
{
    if (!x.user)
        fail(401, "unauthorized", "Sign in to see your devices inbox.");
    QJsonArray list;
    for (const auto &row : m_context.store().query(
             std::string("SELECT ") + kTransferColumns +
                 " FROM transfers WHERE user_id = ? AND to_self = 1 AND state = 'ready'"
                 " AND expires_at > ? ORDER BY created_at DESC, rowid DESC",
             {x.user->id, m_context.now()}))
        list.append(m_context.metaJson(row));
    sendJson(x.res, {{"items", list}});
}

} // namespace lofthaven::service
