#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVariant>

namespace lofthaven {

// The model's reads and writes of the preferences and its support folder, in one place.
class ModelSettings
{
public:
    static bool boolValue(const QString &key, bool fallback);
    static qint64 integerValue(const QString &key, qint64 fallback);
    static QString stringValue(const QString &key);
    static QStringList stringList(const QString &key);
    static QByteArray data(const QString &key);
    static void setValue(const QString &key, const QVariant &value);
    static void remove(const QString &key);

    static QString supportFolder();
};

} // namespace lofthaven
