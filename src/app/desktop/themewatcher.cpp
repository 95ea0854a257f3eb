#include "app/desktop/themewatcher.h"

#include "platform/preferences.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace lofthaven {

namespace {

const QString kPortalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString kPortalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString kSettings = QStringLiteral("org.freedesktop.portal.Settings");
const QString kAppearance = QStringLiteral("org.freedesktop.appearance");
const QString kColorScheme = QStringLiteral("color-scheme");

// The portal wraps the value in one or two variants depending on its version.
uint unwrap(QVariant value)
{
    while (value.canConvert<QDBusVariant>() && value.userType() == qMetaTypeId<QDBusVariant>())
        value = value.value<QDBusVariant>().variant();
    return value.toUInt();
}

ThemeWatcher::SystemScheme schemeOf(uint value)
{
    return value <= 2 ? ThemeWatcher::SystemScheme(value)
                      : ThemeWatcher::SystemScheme::NoPreference;
}

} // namespace

ThemeWatcher::ThemeWatcher(QObject *parent)
    : QObject(parent)
    , m_theme(stringPreference(Preference::Theme))
{
    apply();
}

bool ThemeWatcher::isDark(const QString &theme, SystemScheme scheme)
{
    if (theme == QLatin1String("dark"))
        return true;
    if (theme == QLatin1String("light"))
        return false;
    return scheme == SystemScheme::PreferDark;
}

void ThemeWatcher::setTheme(const QString &theme)
{
    setStringPreference(Preference::Theme, theme);
    m_theme = theme;
    apply();
}

void ThemeWatcher::setSystemScheme(SystemScheme scheme)
{
    m_system = scheme;
    apply();
}

void ThemeWatcher::apply()
{
    // Also emitted when only the preference's word changed, so a settings screen follows.
    m_dark = isDark(m_theme, m_system);
    Q_EMIT changed();
}

void ThemeWatcher::watchPortal()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    bus.connect(kPortalService, kPortalPath, kSettings, QStringLiteral("SettingChanged"), this,
                SLOT(portalSettingChanged(QString, QString, QDBusVariant)));
    QDBusMessage call = QDBusMessage::createMethodCall(kPortalService, kPortalPath, kSettings,
                                                       QStringLiteral("Read"));
    call << kAppearance << kColorScheme;
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 2000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *w) {
        const QDBusPendingReply<QVariant> reply = *w;
        if (!reply.isError())
            setSystemScheme(schemeOf(unwrap(reply.value())));
        w->deleteLater();
    });
}

void ThemeWatcher::portalSettingChanged(const QString &group, const QString &key,
                                        const QDBusVariant &value)
{
    if (group == kAppearance && key == kColorScheme)
        setSystemScheme(schemeOf(unwrap(value.variant())));
}

QVariantMap ThemeWatcher::colors() const
{
    // The brand green is the accent in both themes; in dark mode a lighter green keeps text
    // on the window readable, while filled buttons keep the brand colour with white text.
    if (m_dark) {
        return {{QStringLiteral("window"), QStringLiteral("#1e1f22")},
                {QStringLiteral("card"), QStringLiteral("#2a2b2f")},
                {QStringLiteral("cardBorder"), QStringLiteral("#3a3b40")},
                {QStringLiteral("field"), QStringLiteral("#232428")},
                {QStringLiteral("text"), QStringLiteral("#ececec")},
                {QStringLiteral("secondaryText"), QStringLiteral("#a7a9ae")},
                {QStringLiteral("accent"), QStringLiteral("#1E8E3E")},
                {QStringLiteral("accentText"), QStringLiteral("#5cc97a")},
                {QStringLiteral("onAccent"), QStringLiteral("#ffffff")},
                {QStringLiteral("dropZone"), QStringLiteral("#1f2b23")},
                {QStringLiteral("dropZoneActive"), QStringLiteral("#24432d")},
                {QStringLiteral("warning"), QStringLiteral("#f0b849")},
                {QStringLiteral("warningBackground"), QStringLiteral("#3b3220")},
                {QStringLiteral("error"), QStringLiteral("#ff7b72")},
                {QStringLiteral("banner"), QStringLiteral("#22344a")},
                {QStringLiteral("button"), QStringLiteral("#34353a")},
                {QStringLiteral("highlight"), QStringLiteral("#1E8E3E")}};
    }
    return {{QStringLiteral("window"), QStringLiteral("#f6f6f5")},
            {QStringLiteral("card"), QStringLiteral("#ffffff")},
            {QStringLiteral("cardBorder"), QStringLiteral("#dcdcd9")},
            {QStringLiteral("field"), QStringLiteral("#ffffff")},
            {QStringLiteral("text"), QStringLiteral("#1d1d1f")},
            {QStringLiteral("secondaryText"), QStringLiteral("#5f6166")},
            {QStringLiteral("accent"), QStringLiteral("#1E8E3E")},
            {QStringLiteral("accentText"), QStringLiteral("#1a7a35")},
            {QStringLiteral("onAccent"), QStringLiteral("#ffffff")},
            {QStringLiteral("dropZone"), QStringLiteral("#f1f7f2")},
            {QStringLiteral("dropZoneActive"), QStringLiteral("#dcefe0")},
            {QStringLiteral("warning"), QStringLiteral("#9a6200")},
            {QStringLiteral("warningBackground"), QStringLiteral("#fff4db")},
            {QStringLiteral("error"), QStringLiteral("#b3261e")},
            {QStringLiteral("banner"), QStringLiteral("#e8f0fb")},
            {QStringLiteral("button"), QStringLiteral("#ececea")},
            {QStringLiteral("highlight"), QStringLiteral("#1E8E3E")}};
}

} // namespace lofthaven
