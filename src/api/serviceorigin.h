#pragma once

#include <QString>
#include <QStringList>
#include <QUrl>

namespace lofthaven {

// The one service origin (scheme, host, port; no path). Chosen from "--origin URL" (or
// "--origin=URL"), then LOFTHAVEN_ORIGIN, then the "serviceOrigin" setting, then the built-in
// default. http:// is accepted only for loopback hosts.
class ServiceOrigin
{
public:
    static constexpr const char *kDefault = "https://lofthaven.app";

    // Picks and checks the origin; throws AppError with a sentence for the user when the chosen
    // value is malformed or not https.
    static void configure(const QStringList &arguments);
    // Checks one value; throws AppError on a bad one.
    static QUrl validated(const QString &value);
    // Sets the origin directly (tests, the command line); throws AppError on a bad value.
    static void setUrl(const QString &value);

    // The configured origin; configures from the environment on first use if nobody did.
    static QUrl url();
    // The host name, for messages ("Couldn't connect to lofthaven.app").
    static QString host();
};

} // namespace lofthaven
