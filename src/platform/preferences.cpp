#include "platform/preferences.h"

#include "platform/applicationid.h"

#include <QSettings>
#include <QVariant>

#include <atomic>

namespace lofthaven {

namespace {

struct Entry
{
    Preference preference;
    const char *key;
    PreferenceType type;
    // Registered by registerDefaultSettings(); an invalid QVariant means no registered default.
    QVariant registeredDefault;
};

// In the order the defaults are registered.
const Entry kTable[] = {
    {Preference::Notifications, "notifications", PreferenceType::Bool, true},
    {Preference::AutoDownload, "autoDownload", PreferenceType::Bool, false},
    {Preference::UnzipAfterDownload, "unzipAfterDownload", PreferenceType::Bool, true},
    {Preference::Theme, "theme", PreferenceType::String, QStringLiteral("system")},
    {Preference::ShowMenuBarExtra, "showMenuBarExtra", PreferenceType::Bool, true},
    {Preference::DefaultExpiry, "defaultExpiry", PreferenceType::Integer, qint64(259200)},
    {Preference::DownloadFolder, "downloadFolder", PreferenceType::String, {}},
    {Preference::TempFolder, "tempFolder", PreferenceType::String, {}},
    {Preference::CachedMe, "cachedMe", PreferenceType::Data, {}},
    {Preference::SeenInbox, "seenInbox", PreferenceType::StringArray, {}},
    {Preference::NotifiedInbox, "notifiedInbox", PreferenceType::StringArray, {}},
    {Preference::InboxSeeded, "inboxSeeded", PreferenceType::Bool, {}},
    {Preference::DismissedUpdate, "dismissedUpdate", PreferenceType::String, {}},
    {Preference::ServiceOrigin, "serviceOrigin", PreferenceType::String, {}},
};

std::atomic<bool> s_defaultsRegistered{false};

const Entry &entry(Preference preference)
{
    for (const Entry &candidate : kTable) {
        if (candidate.preference == preference)
            return candidate;
    }
    Q_UNREACHABLE();
}

QSettings settings()
{
    // Named explicitly rather than from QCoreApplication, so tests and tools that set no
    // application name still share the application's file.
    return QSettings(QString::fromLatin1(kApplicationName), QString::fromLatin1(kApplicationName));
}

QVariant read(Preference preference)
{
    const Entry &e = entry(preference);
    QVariant value = settings().value(QLatin1String(e.key));
    if (!value.isValid() && s_defaultsRegistered)
        value = e.registeredDefault;
    return value;
}

void write(Preference preference, PreferenceType type, const QVariant &value)
{
    const Entry &e = entry(preference);
    if (e.type != type) {
        qWarning("Preference %s written with the wrong type; ignored", e.key);
        return;
    }
    settings().setValue(QLatin1String(e.key), value);
}

} // namespace

QString preferenceKey(Preference preference)
{
    return QLatin1String(entry(preference).key);
}

PreferenceType preferenceType(Preference preference)
{
    return entry(preference).type;
}

void registerDefaultSettings()
{
    s_defaultsRegistered = true;
}

bool boolPreference(Preference preference)
{
    const QVariant value = read(preference);
    if (value.typeId() == QMetaType::Bool)
        return value.toBool();
    // From the INI file: "true"/"false", or a number some other writer left.
    const QString text = value.toString().trimmed();
    if (text.compare(u"true", Qt::CaseInsensitive) == 0)
        return true;
    bool isNumber = false;
    const qint64 number = text.toLongLong(&isNumber);
    return isNumber && number != 0;
}

qint64 integerPreference(Preference preference)
{
    bool ok = false;
    const qint64 number = read(preference).toLongLong(&ok);
    return ok ? number : 0;
}

QString stringPreference(Preference preference)
{
    const QVariant value = read(preference);
    return value.canConvert<QString>() ? value.toString() : QString();
}

QStringList stringArrayPreference(Preference preference)
{
    const QVariant value = read(preference);
    // An INI file gives a one-element list back as a plain string.
    if (value.typeId() == QMetaType::QString) {
        const QString text = value.toString();
        return text.isEmpty() ? QStringList() : QStringList{text};
    }
    return value.toStringList();
}

std::optional<QByteArray> dataPreference(Preference preference)
{
    const QVariant value = read(preference);
    if (!value.isValid())
        return std::nullopt;
    return value.toByteArray();
}

void setBoolPreference(Preference preference, bool value)
{
    write(preference, PreferenceType::Bool, value);
}

void setIntegerPreference(Preference preference, qint64 value)
{
    write(preference, PreferenceType::Integer, value);
}

void setStringPreference(Preference preference, const QString &value)
{
    write(preference, PreferenceType::String, value);
}

void setStringArrayPreference(Preference preference, const QStringList &value)
{
    write(preference, PreferenceType::StringArray, value);
}

void setDataPreference(Preference preference, const QByteArray &value)
{
    write(preference, PreferenceType::Data, value);
}

void removePreference(Preference preference)
{
    settings().remove(preferenceKey(preference));
}

} // namespace lofthaven
