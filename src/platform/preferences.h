#pragma once

// The user's preferences: every key the application stores, with its type and default, in one
// table (preferences.cpp). Backed by QSettings at ~/.config/Lofthaven/Lofthaven.conf and read at
// the point of use; nothing is cached here, so every reader sees the last write.
//
// Threads: any thread. QSettings objects are made per call and share one process-wide cache.

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

namespace lofthaven {

enum class Preference
{
    Notifications,      // bool, registered default true
    AutoDownload,       // bool, registered default false
    UnzipAfterDownload, // bool, registered default true
    Theme,              // string, registered default "system"
    ShowMenuBarExtra,   // bool, registered default true
    DefaultExpiry,      // integer seconds, registered default 259200
    DownloadFolder,     // string path, empty = the default folder
    TempFolder,         // string path, empty = the default folder
    CachedMe,           // data: the JSON of the last account answer
    SeenInbox,          // array of transfer ids
    NotifiedInbox,      // array of transfer ids
    InboxSeeded,        // bool
    DismissedUpdate,    // string: a version
    ServiceOrigin,      // string: the service origin, below --origin and LOFTHAVEN_ORIGIN
};

enum class PreferenceType
{
    Bool,
    Integer,
    String,
    StringArray,
    Data,
};

// The key as stored ("notifications", "cachedMe", ...).
QString preferenceKey(Preference preference);
PreferenceType preferenceType(Preference preference);

// Registers the defaults of the six preferences that have one. Until then (and for every other
// key) an unset preference reads as false, 0, empty or absent.
void registerDefaultSettings();

// Typed reads. An INI file gives strings back, so each read converts; a value of the wrong
// shape reads as the type's empty value.
bool boolPreference(Preference preference);
qint64 integerPreference(Preference preference);
QString stringPreference(Preference preference);
QStringList stringArrayPreference(Preference preference);
std::optional<QByteArray> dataPreference(Preference preference);

// Typed writes; a write of the wrong type for the key is a programming error (ignored, with a
// warning).
void setBoolPreference(Preference preference, bool value);
void setIntegerPreference(Preference preference, qint64 value);
void setStringPreference(Preference preference, const QString &value);
void setStringArrayPreference(Preference preference, const QStringList &value);
void setDataPreference(Preference preference, const QByteArray &value);
void removePreference(Preference preference);

} // namespace lofthaven
