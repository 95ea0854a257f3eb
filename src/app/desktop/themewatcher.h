#pragma once

#include <QDBusVariant>
#include <QObject>
#include <QVariantMap>

namespace lofthaven {

// Light or dark for the screens: the "theme" preference ("light" or "dark" force it; "system"
// follows the desktop portal's org.freedesktop.appearance color-scheme, read at start and
// watched). Also the colours of both themes, so every screen draws from one table.
class ThemeWatcher : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool dark READ dark NOTIFY changed)
    Q_PROPERTY(QString theme READ theme WRITE setTheme NOTIFY changed)
    Q_PROPERTY(QVariantMap colors READ colors NOTIFY changed)

public:
    // The portal's values: 0 no preference, 1 prefer dark, 2 prefer light.
    enum class SystemScheme
    {
        NoPreference = 0,
        PreferDark = 1,
        PreferLight = 2
    };

    explicit ThemeWatcher(QObject *parent = nullptr);

    bool dark() const { return m_dark; }
    QString theme() const { return m_theme; }
    // Stores the preference and applies it at once.
    void setTheme(const QString &theme);
    QVariantMap colors() const;

    // Asks the portal once and subscribes to its changes; without a portal the system
    // preference stays "no preference" (light).
    void watchPortal();
    void setSystemScheme(SystemScheme scheme);

    static bool isDark(const QString &theme, SystemScheme scheme);

Q_SIGNALS:
    void changed();

private Q_SLOTS:
    void portalSettingChanged(const QString &group, const QString &key, const QDBusVariant &value);

private:
    void apply();

    QString m_theme;
    SystemScheme m_system = SystemScheme::NoPreference;
    bool m_dark = false;
};

} // namespace lofthaven
