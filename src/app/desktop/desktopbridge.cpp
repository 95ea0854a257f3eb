#include "app/desktop/desktopbridge.h"

#include "api/serviceorigin.h"
#include "platform/bytecount.h"
#include "platform/clipboardfiles.h"
#include "platform/folders.h"
#include "platform/preferences.h"

#include <QClipboard>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDateTime>
#include <QDesktopServices>
#include <QFileInfo>
#include <QGuiApplication>
#include <QLocale>
#include <QUrl>
#include <QUrlQuery>

#include <cmath>

namespace lofthaven {

DesktopBridge::DesktopBridge(QObject *parent)
    : QObject(parent)
{}

QString DesktopBridge::host() const
{
    return ServiceOrigin::host();
}

QString DesktopBridge::origin() const
{
    return ServiceOrigin::url().toString();
}

QString DesktopBridge::version() const
{
    return QCoreApplication::applicationVersion();
}

QString DesktopBridge::downloadFolderName() const
{
    const QFileInfo info(downloadFolder());
    return info.fileName().isEmpty() ? info.absoluteFilePath() : info.fileName();
}

QVariantList DesktopBridge::downloadLimits()
{
    return {0, 1, 5, 10, 50, 100};
}

bool DesktopBridge::unzipAfterDownload() const
{
    return boolPreference(Preference::UnzipAfterDownload);
}

void DesktopBridge::setUnzipAfterDownload(bool unzip)
{
    if (unzip == unzipAfterDownload())
        return;
    setBoolPreference(Preference::UnzipAfterDownload, unzip);
    Q_EMIT unzipAfterDownloadChanged();
}

QString DesktopBridge::formatBytes(qint64 bytes)
{
    return formatByteCount(bytes);
}

QString DesktopBridge::formatExpiry(qint64 seconds)
{
    if (seconds < 3600)
        return tr("%1 min").arg(seconds / 60);
    if (seconds < 7200)
        return tr("1 hour");
    if (seconds < 86400)
        return tr("%1 hours").arg(seconds / 3600);
    if (seconds < 172800)
        return tr("1 day");
    return tr("%1 days").arg(seconds / 86400);
}

QString DesktopBridge::formatCode(const QString &code)
{
    return code.size() == 6 ? code.left(3) + QLatin1Char(' ') + code.mid(3) : code;
}

QString DesktopBridge::formatSpeed(double bytesPerSecond)
{
    if (!(bytesPerSecond > 0))
        return {};
    return formatByteCount(qint64(bytesPerSecond)) + tr("/s");
}

QString DesktopBridge::formatTimeLeft(double seconds)
{
    if (!(seconds >= 0) || !std::isfinite(seconds))
        return {};
    const qint64 s = qint64(std::ceil(seconds));
    if (s < 60)
        return tr("%1 s").arg(std::max<qint64>(s, 1));
    if (s < 3600)
        return tr("%1 min").arg((s + 59) / 60);
    return tr("%1 h %2 min").arg(s / 3600).arg((s % 3600) / 60);
}

QString DesktopBridge::formatTime(const QVariant &when)
{
    QDateTime time;
    if (when.metaType().id() == QMetaType::QDateTime)
        time = when.toDateTime();
    else if (const double ms = when.toDouble(); ms > 0)
        time = QDateTime::fromMSecsSinceEpoch(qint64(ms));
    if (!time.isValid())
        return {};
    // Minutes are precise enough for an expiry.
    const QLocale locale;
    QString format = locale.dateTimeFormat(QLocale::ShortFormat);
    format.remove(QStringLiteral(":ss"));
    return locale.toString(time.toLocalTime(), format);
}

QString DesktopBridge::downloadLimitLabel(int count)
{
    if (count == 0)
        return tr("Unlimited");
    if (count == 1)
        return tr("1 download");
    return tr("%1 downloads").arg(count);
}

QString DesktopBridge::fileName(const QString &path)
{
    const QFileInfo info(path);
    return info.fileName().isEmpty() ? path : info.fileName();
}

QString DesktopBridge::mailtoLink(const QString &link, const QString &name)
{
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("subject"), name);
    query.addQueryItem(QStringLiteral("body"), link);
    QUrl url(QStringLiteral("mailto:"));
    url.setQuery(query);
    return url.toString(QUrl::FullyEncoded);
}

void DesktopBridge::copyText(const QString &text) const
{
    QGuiApplication::clipboard()->setText(text);
}

QStringList DesktopBridge::clipboardFiles() const
{
    QStringList paths;
    for (const QUrl &url : clipboardFileUrls()) {
        if (QFileInfo::exists(url.toLocalFile()))
            paths.append(url.toLocalFile());
    }
    return paths;
}

void DesktopBridge::openUrl(const QString &url) const
{
    QDesktopServices::openUrl(QUrl(url));
}

void DesktopBridge::openServicePage(const QString &path) const
{
    QUrl url = ServiceOrigin::url();
    url.setPath(path);
    QDesktopServices::openUrl(url);
}

void DesktopBridge::openPath(const QString &path) const
{
    QDesktopServices::openUrl(QUrl::fromLocalFile(path));
}

void DesktopBridge::showInFolder(const QString &path) const
{
    const QString folder = QFileInfo(path).absolutePath();
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        QDesktopServices::openUrl(QUrl::fromLocalFile(folder));
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"),
        QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(path).toString(QUrl::FullyEncoded)} << QString();
    // A file manager may take seconds to start: never wait on the main thread.
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 10000));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                     [folder](QDBusPendingCallWatcher *w) {
                         if (w->isError())
                             QDesktopServices::openUrl(QUrl::fromLocalFile(folder));
                         w->deleteLater();
                     });
}

void DesktopBridge::preview(const QString &path) const
{
    const QString previewer = QStringLiteral("org.gnome.NautilusPreviewer");
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected() && bus.interface() &&
        (bus.interface()->isServiceRegistered(previewer).value() ||
         bus.interface()->activatableServiceNames().value().contains(previewer))) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            previewer, QStringLiteral("/org/gnome/NautilusPreviewer"), previewer,
            QStringLiteral("ShowFile"));
        call << QUrl::fromLocalFile(path).toString(QUrl::FullyEncoded) << 0 << false;
        bus.asyncCall(call);
        return;
    }
    openPath(path);
}

} // namespace lofthaven
