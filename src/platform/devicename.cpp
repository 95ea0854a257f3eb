#include "platform/devicename.h"

#include <QFile>
#include <QSysInfo>

namespace lofthaven {

namespace {

// PRETTY_HOSTNAME from a machine-info file: shell-style KEY=VALUE lines, values maybe quoted.
QString prettyHostName(const QString &machineInfo)
{
    QFile file(machineInfo);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    for (const QByteArray &raw : file.readAll().split('\n')) {
        const QByteArray line = raw.trimmed();
        if (!line.startsWith("PRETTY_HOSTNAME="))
            continue;
        QByteArray value = line.mid(16);
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
            value.back() == value.front())
            value = value.mid(1, value.size() - 2);
        value.replace("\\\"", "\"").replace("\\\\", "\\");
        return QString::fromUtf8(value).trimmed();
    }
    return {};
}

} // namespace

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

QString computerName()
{
    const QString pretty = prettyHostName(QStringLiteral("/etc/machine-info"));
    return pretty.isEmpty() ? QSysInfo::machineHostName() : pretty;
}

QString deviceNameFor(const QString &computer)
{
    const QString full =
        QStringLiteral("Lofthaven for ") + platformWord() + QStringLiteral(" (") + computer + u')';
    return full.left(60);
}

QString deviceName()
{
    static const QString name = deviceNameFor(computerName());
    return name;
}

} // namespace lofthaven
