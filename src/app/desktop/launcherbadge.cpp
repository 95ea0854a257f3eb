#include "app/desktop/launcherbadge.h"

#include "model/appmodel.h"
#include "platform/applicationid.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QVariantMap>

namespace lofthaven {

LauncherBadge::LauncherBadge(AppModel *model, QObject *parent)
    : QObject(parent)
    , m_model(model)
{
    connect(model, &AppModel::newInboxCountChanged, this, &LauncherBadge::publish);
    connect(model, &AppModel::signedInChanged, this, &LauncherBadge::publish);
    publish();
}

QString LauncherBadge::applicationUri()
{
    // The desktop file's id, as the docks match it.
    return QStringLiteral("application://") + QLatin1String(kApplicationId) +
           QStringLiteral(".desktop");
}

void LauncherBadge::publish()
{
    const int count = m_model->signedIn() ? m_model->newInboxCount() : 0;
    if (m_published == count)
        return;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    m_published = count;
    QDBusMessage update = QDBusMessage::createSignal(
        QStringLiteral("/org/lofthaven/Lofthaven"),
        QStringLiteral("com.canonical.Unity.LauncherEntry"), QStringLiteral("Update"));
    update << applicationUri()
           << QVariantMap{{QStringLiteral("count"), QVariant::fromValue(qint64(count))},
                          {QStringLiteral("count-visible"), count > 0}};
    bus.send(update);
}

} // namespace lofthaven
