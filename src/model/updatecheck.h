#pragma once

#include "api/wirerecords.h"

#include <QByteArray>
#include <QCoroTask>
#include <QString>
#include <QUrl>

#include <optional>
#include <stop_token>

namespace lofthaven {

// A newer release the manifest announced, with the link the banner opens.
struct UpdateNotice
{
    UpdateInfo info;
    QString downloadLink;
    bool operator==(const UpdateNotice &) const = default;
};

// The update check: GET <origin>/downloads/desktop.json, compared with our own version.
// Every failure is silent; only an answer with status exactly 200 counts.
class UpdateCheck
{
public:
    static constexpr std::chrono::seconds kTimeout{15};

    // This build's version (the CMake project version).
    static QString currentVersion();
    // Dotted versions compared piece by piece; a missing piece is 0, a piece that is not a
    // number is 0 ("1.2-beta" reads as 1.0).
    static bool isNewer(const QString &candidate, const QString &current);
    // The manifest's "linux" link when it is a valid URL, then "mac", else
    // <origin>/downloads/<the Debian package of that version>.
    static QString downloadLink(const QJsonObject &manifest, const QString &version,
                                const QUrl &origin);
    // What an answer means: a notice, or nothing (not 200, not a manifest, not newer, dismissed).
    static std::optional<UpdateNotice> evaluate(int status, const QByteArray &body,
                                                const QString &current, const QString &dismissed,
                                                const QUrl &origin);
    // Fetches and evaluates; never throws except on cancellation.
    static QCoro::Task<std::optional<UpdateNotice>> run(QString current, QString dismissed,
                                                        std::stop_token stop = {});
};

} // namespace lofthaven
