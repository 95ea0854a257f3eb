#include "app/desktop/applicationinterface.h"

#include "app/desktop/launchrequest.h"
#include "app/desktop/singleinstance.h"

#include <QDir>
#include <QUrl>

namespace lofthaven {

namespace {

// Wayland launchers pass "activation-token", X11 ones "desktop-startup-id".
QStringList feedbackArguments(const QVariantMap &platformData)
{
    LaunchRequest request;
    for (const char *key : {"activation-token", "desktop-startup-id"}) {
        const QString token = platformData.value(QLatin1String(key)).toString();
        if (!token.isEmpty()) {
            request.setLaunchFeedback(token);
            break;
        }
    }
    return request.toArguments();
}

} // namespace

ApplicationInterface::ApplicationInterface(SingleInstance *instance)
    : QDBusAbstractAdaptor(instance)
    , m_instance(instance)
{}

QStringList ApplicationInterface::activateArguments(const QVariantMap &platformData)
{
    return feedbackArguments(platformData) << QStringLiteral("--show");
}

QStringList ApplicationInterface::openArguments(const QStringList &uris,
                                                const QVariantMap &platformData)
{
    QStringList items;
    for (const QString &uri : uris) {
        // Only absolute items: a relative name would resolve against this process's folder.
        const QUrl url(uri);
        if (url.isLocalFile() ? QDir::isAbsolutePath(url.toLocalFile())
                              : url.scheme() == QLatin1String("lofthaven"))
            items << uri;
    }
    if (items.isEmpty())
        return {};
    return feedbackArguments(platformData) << items;
}

QStringList ApplicationInterface::actionArguments(const QString &action,
                                                  const QVariantMap &platformData)
{
    // The desktop entry's [Desktop Action ...] names.
    if (action == QLatin1String("send-files"))
        return feedbackArguments(platformData) << QStringLiteral("--send-files");
    if (action == QLatin1String("receive"))
        return feedbackArguments(platformData) << QStringLiteral("--receive");
    return {};
}

void ApplicationInterface::Activate(const QVariantMap &platformData)
{
    m_instance->Open(activateArguments(platformData));
}

void ApplicationInterface::Open(const QStringList &uris, const QVariantMap &platformData)
{
    const QStringList arguments = openArguments(uris, platformData);
    if (!arguments.isEmpty())
        m_instance->Open(arguments);
}

void ApplicationInterface::ActivateAction(const QString &action, const QVariantList &parameter,
                                          const QVariantMap &platformData)
{
    Q_UNUSED(parameter) // our actions take none
    const QStringList arguments = actionArguments(action, platformData);
    if (!arguments.isEmpty())
        m_instance->Open(arguments);
}

} // namespace lofthaven
