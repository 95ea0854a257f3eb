#include "model/modelsettings.h"

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QStandardPaths>

namespace lofthaven {

bool ModelSettings::boolValue(const QString &key, bool fallback)
{
    const QVariant value = QSettings().value(key);
    if (!value.isValid())
        return fallback;
    // An INI file gives every value back as text.
    const QString text = value.toString().trimmed().toLower();
    if (text == u"true" || text == u"1")
        return true;
    if (text == u"false" || text == u"0")
        return false;
    return fallback;
}

qint64 ModelSettings::integerValue(const QString &key, qint64 fallback)
{
    bool ok = false;
    const qint64 value = QSettings().value(key).toString().toLongLong(&ok);
    return ok ? value : fallback;
}

QString ModelSettings::stringValue(const QString &key)
{
    return QSettings().value(key).toString();
}

QStringList ModelSettings::stringList(const QString &key)
{
    return QSettings().value(key).toStringList();
}

QByteArray ModelSettings::data(const QString &key)
{
    return QSettings().value(key).toByteArray();
}

void ModelSettings::setValue(const QString &key, const QVariant &value)
{
    QSettings().setValue(key, value);
}

void ModelSettings::remove(const QString &key)
{
    QSettings().remove(key);
}

QString ModelSettings::supportFolder()
{
    QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (base.isEmpty())
        base = QDir::homePath() + QStringLiteral("/.local/share");
    const QString folder = base + QStringLiteral("/Lofthaven");
    QDir().mkpath(folder);
    QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return folder;
}

} // namespace lofthaven
