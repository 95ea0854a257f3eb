// AppModel: the devices inbox. Polled every 15 s while signed in, plus throttled refreshes when
// the app comes to the front or the system wakes. Each item is announced once per computer (the
// announced set persists); items present at the very first load count as seen.
#include "model/appmodel.h"

#include "api/apierror.h"
#include "api/cancelled.h"
#include "api/usermessage.h"
#include "model/detach.h"
#include "platform/bytecount.h"
#include "platform/preferences.h"

#include <QPointer>

namespace lofthaven {

void AppModel::startPolling()
{
    checkThread();
    stopPolling();
    if (!signedIn())
        return;
    m_pollStop = std::stop_source();
    detach(pollLoop(m_pollStop.get_token()));
}

void AppModel::stopPolling()
{
    m_pollStop.request_stop();
}

QCoro::Task<void> AppModel::pollLoop(std::stop_token stop)
{
    QPointer<AppModel> self(this);
    while (self && !stop.stop_requested()) {
        auto refreshing = refreshInboxTask(true);
        co_await refreshing;
        if (!self || stop.stop_requested())
            co_return;
        const Sleeper sleeper = m_sleeper;
        auto sleeping = sleeper(kPollInterval, stop);
        if (!co_await sleeping)
            co_return;
    }
}

void AppModel::refreshInbox(bool force)
{
    checkThread();
    detach(refreshInboxTask(force));
}

QCoro::Task<void> AppModel::refreshInboxTask(bool force)
{
    checkThread();
    if (!signedIn())
        co_return;
    const QDateTime now = m_clock();
    if (!force && m_lastPoll.isValid() && m_lastPoll.msecsTo(now) < kRefreshThrottleMs)
        co_return;
    m_lastPoll = now;

    QPointer<AppModel> self(this);
    const std::optional<QString> token = this->token();
    std::optional<InboxResponse> answer;
    std::exception_ptr failure;
    try {
        auto loading = client().inbox(m_sessionStop.get_token());
        answer = co_await loading;
    } catch (...) {
        failure = std::current_exception();
    }
    // Signed out (or in as someone else) meanwhile: the answer belongs to nobody.
    if (!self || this->token() != token)
        co_return;
    if (failure) {
        bool expired = false;
        try {
            std::rethrow_exception(failure);
        } catch (const Cancelled &) {
            co_return;
        } catch (const APIError &error) {
            expired = error.status() == 401;
        } catch (...) {
        }
        setInboxError(userMessage(failure));
        if (expired) {
            // The account refresh confirms it and takes the sign-out path with its notice.
            auto confirming = m_session->refresh(m_lifetimeStop.get_token());
            co_await confirming;
        }
        co_return;
    }

    m_inbox->setItems(answer->items);
    setInboxError({});
    if (m_inboxUpdated != now) {
        m_inboxUpdated = now;
        Q_EMIT inboxUpdatedChanged();
    }

    QSet<QString> seen = m_seenInbox;
    if (!boolPreference(Preference::InboxSeeded)) {
        for (const TransferMeta &item : answer->items) {
            seen.insert(item.id);
            m_notifiedInbox.insert(item.id);
        }
        setBoolPreference(Preference::InboxSeeded, true);
    }
    const bool autoDownload = boolPreference(Preference::AutoDownload);
    for (const TransferMeta &item : answer->items) {
        if (m_notifiedInbox.contains(item.id))
            continue;
        m_notifiedInbox.insert(item.id);
        const QString from =
            item.device && !item.device->isEmpty() ? *item.device : QStringLiteral("your device");
        post(QStringLiteral("New file from ") + from,
             item.name + QStringLiteral(" (") + formatByteCount(item.size) + u')', item.id, true);
        if (autoDownload && !item.hasPassword.value_or(false))
            startDownload(item, std::nullopt, std::nullopt, true);
    }
    setSeenInbox(std::move(seen));
    if (m_tab == Tab::Devices && m_applicationActive)
        markInboxSeen();
    storeInboxSets();
    publishNewInboxCount();
}

void AppModel::markInboxSeen()
{
    checkThread();
    QSet<QString> seen = m_seenInbox;
    for (const TransferMeta &item : m_inbox->items())
        seen.insert(item.id);
    if (seen == m_seenInbox)
        return;
    setSeenInbox(std::move(seen));
    storeInboxSets();
    publishNewInboxCount();
}

void AppModel::setSeenInbox(QSet<QString> seen)
{
    if (seen == m_seenInbox)
        return;
    m_seenInbox = std::move(seen);
    m_inbox->setSeen(m_seenInbox);
    Q_EMIT seenInboxChanged();
}

void AppModel::storeInboxSets()
{
    setStringArrayPreference(Preference::SeenInbox,
                             QStringList(m_seenInbox.begin(), m_seenInbox.end()));
    setStringArrayPreference(Preference::NotifiedInbox,
                             QStringList(m_notifiedInbox.begin(), m_notifiedInbox.end()));
}

void AppModel::publishNewInboxCount()
{
    int count = 0;
    if (signedIn()) {
        for (const TransferMeta &item : m_inbox->items())
            count += m_seenInbox.contains(item.id) ? 0 : 1;
    }
    if (count == m_newInboxCount)
        return;
    m_newInboxCount = count;
    Q_EMIT newInboxCountChanged();
}

void AppModel::setInboxError(const QString &error)
{
    if (m_inboxError == error)
        return;
    m_inboxError = error;
    Q_EMIT inboxErrorChanged();
}

} // namespace lofthaven
