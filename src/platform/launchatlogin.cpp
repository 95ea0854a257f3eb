#include "platform/launchatlogin.h"

#include "platform/apperror.h"
#include "platform/applicationid.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSaveFile>
#include <QStandardPaths>

namespace lofthaven {

namespace {

QString entryPath()
{
    QString config = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    if (config.isEmpty())
        config = QDir::homePath() + QStringLiteral("/.config");
    return config + QStringLiteral("/autostart/") + QLatin1String(kApplicationId) +
           QStringLiteral(".desktop");
}

// Exec takes the absolute path: the session's autostart skips an entry whose program it
// cannot find. A path with special characters is quoted as the desktop entry format asks:
// escapes for the quoted argument, then the string's own backslash escape.
QString execLine()
{
    const QString program = QCoreApplication::applicationFilePath();
    static const QRegularExpression special(QStringLiteral("[^A-Za-z0-9_./+-]"));
    QString argument = program;
    if (program.contains(special)) {
        argument.clear();
        for (const QChar c : program) {
            if (c == u'"' || c == u'`' || c == u'$' || c == u'\\')
                argument += u'\\';
            argument += c;
        }
        argument = u'"' + argument.replace(u'\\', QStringLiteral("\\\\")) + u'"';
    }
    argument.replace(u'%', QStringLiteral("%%"));
    return argument + QStringLiteral(" --background");
}

} // namespace

void setLaunchAtLogin(bool enabled)
{
    const QString path = entryPath();
    if (!enabled) {
        QFile entry(path);
        if (entry.exists() && !entry.remove())
            throw AppError(entry.errorString());
        return;
    }
    if (!QDir().mkpath(QFileInfo(path).path()))
        throw AppError(
            QStringLiteral("Couldn't create the folder %1.").arg(QFileInfo(path).path()));
    QSaveFile entry(path);
    if (!entry.open(QIODevice::WriteOnly))
        throw AppError(entry.errorString());
    const QString text = QStringLiteral("[Desktop Entry]\n"
                                        "Type=Application\n"
                                        "Name=Lofthaven\n"
                                        "Comment=Send and receive files by code and link\n"
                                        "Exec=") +
                         execLine() +
                         QStringLiteral("\n"
                                        "Icon=") +
                         QLatin1String(kApplicationId) +
                         QStringLiteral("\n"
                                        "Terminal=false\n"
                                        "NoDisplay=true\n"
                                        "X-GNOME-Autostart-enabled=true\n");
    entry.write(text.toUtf8());
    if (!entry.commit())
        throw AppError(entry.errorString());
}

bool launchAtLogin()
{
    QFile entry(entryPath());
    if (!entry.open(QIODevice::ReadOnly))
        return false;
    bool inMainGroup = false;
    for (const QByteArray &raw : entry.readAll().split('\n')) {
        const QByteArray line = raw.trimmed();
        if (line.startsWith('['))
            inMainGroup = line == "[Desktop Entry]";
        else if (inMainGroup && line.startsWith("Hidden") &&
                 line.mid(6).trimmed().startsWith('=') &&
                 line.mid(line.indexOf('=') + 1).trimmed() == "true")
            return false;
    }
    return true;
}

} // namespace lofthaven
