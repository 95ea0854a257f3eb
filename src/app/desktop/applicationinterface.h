#pragma once

#include <QDBusAbstractAdaptor>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

namespace lofthaven {

class SingleInstance;

// org.freedesktop.Application on the instance's object, so that launchers, `gapplication` and
// D-Bus activation (the desktop entry is DBusActivatable) reach the running Lofthaven without
// starting a process: Activate shows the window, Open opens files and lofthaven: links, and
// ActivateAction runs the desktop entry's actions. Each call becomes the arguments a second
// start would have handed over, the launcher's activation token included.
class ApplicationInterface : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")

public:
    explicit ApplicationInterface(SingleInstance *instance);

    // The handed-over arguments for each call; an action we do not have gives none.
    static QStringList activateArguments(const QVariantMap &platformData);
    static QStringList openArguments(const QStringList &uris, const QVariantMap &platformData);
    static QStringList actionArguments(const QString &action, const QVariantMap &platformData);

public Q_SLOTS:
    void Activate(const QVariantMap &platformData);
    void Open(const QStringList &uris, const QVariantMap &platformData);
    void ActivateAction(const QString &action, const QVariantList &parameter,
                        const QVariantMap &platformData);

private:
    SingleInstance *m_instance;
};

} // namespace lofthaven
