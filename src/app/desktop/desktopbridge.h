#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantList>

namespace lofthaven {

// The desktop operations the screens call besides the model's: formatting for display,
// clipboard, browser, file manager and previewer. Stateless apart from the flags the
// desktop reports.
class DesktopBridge : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString host READ host CONSTANT)
    Q_PROPERTY(QString origin READ origin CONSTANT)
    Q_PROPERTY(QString version READ version CONSTANT)
    Q_PROPERTY(QString downloadFolderName READ downloadFolderName NOTIFY downloadFolderChanged)
    Q_PROPERTY(QVariantList downloadLimits READ downloadLimits CONSTANT)
    Q_PROPERTY(bool unzipAfterDownload READ unzipAfterDownload WRITE setUnzipAfterDownload NOTIFY
                   unzipAfterDownloadChanged)

public:
    explicit DesktopBridge(QObject *parent = nullptr);

    QString host() const;
    QString origin() const;
    QString version() const;
    QString downloadFolderName() const;
    // The download-limit picker's values, in order (0 means no limit).
    static QVariantList downloadLimits();
    // The "unzipAfterDownload" preference, which the receive card's switch shows and sets.
    bool unzipAfterDownload() const;
    void setUnzipAfterDownload(bool unzip);

    Q_INVOKABLE static QString formatBytes(qint64 bytes);
    Q_INVOKABLE static QString formatExpiry(qint64 seconds);
    Q_INVOKABLE static QString formatCode(const QString &code);
    Q_INVOKABLE static QString formatSpeed(double bytesPerSecond);
    Q_INVOKABLE static QString formatTimeLeft(double seconds);
    // A date and time, or milliseconds since 1970, in the user's short format.
    Q_INVOKABLE static QString formatTime(const QVariant &when);
    Q_INVOKABLE static QString downloadLimitLabel(int count);
    Q_INVOKABLE static QString fileName(const QString &path);
    Q_INVOKABLE static QString mailtoLink(const QString &link, const QString &name);

    Q_INVOKABLE void copyText(const QString &text) const;
    // Local files a file manager copied; empty when the clipboard holds none.
    Q_INVOKABLE QStringList clipboardFiles() const;
    Q_INVOKABLE void openUrl(const QString &url) const;
    // The origin followed by `path` ("/legal/terms"), in the browser.
    Q_INVOKABLE void openServicePage(const QString &path) const;
    Q_INVOKABLE void openPath(const QString &path) const;
    // Asks the file manager to select the item, falling back to opening its folder.
    Q_INVOKABLE void showInFolder(const QString &path) const;
    // The desktop's previewer when one is on the bus, else the default application.
    Q_INVOKABLE void preview(const QString &path) const;

Q_SIGNALS:
    void downloadFolderChanged();
    void unzipAfterDownloadChanged();
};

} // namespace lofthaven
