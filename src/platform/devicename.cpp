#include "platform/devicename.h"

#include <QSysInfo>

namespace lofthaven {

QString platformWord()
{
#if defined(Q_OS_MACOS)
    return QStringLiteral("Mac");
#elif defined(Q_OS_WIN)
    return QStringLiteral("Windows");
#else
    return QStringLiteral("Linux");
#endif
}

QString deviceName()
{
    static const QString name = [] {
        QString host = QSysInfo::machineHostName();
        if (host.isEmpty())
            host = QStringLiteral("this computer");
        const QString full =
            QStringLiteral("Lofthaven for ") + platformWord() + QStringLiteral(" (") + host + u')';
        return full.left(60);
    }();
    return name;
}

} // namespace lofthaven
