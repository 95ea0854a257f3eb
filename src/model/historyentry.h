#pragma once

#include "send/sendoptions.h"
#include "send/sendplan.h"
#include "send/uploader.h"

#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>

namespace lofthaven {

// A transfer sent from this computer, with the owner token that lets the user extend or delete
// it later. Its JSON form uses the field names as keys and leaves absent optionals out; times
// are milliseconds since the Unix epoch as doubles, as the service sends them.
struct HistoryEntry
{
    static constexpr const char *kRecord = "HistoryEntry";
    QString id;
    QString code;
    QString url;
    std::optional<QString> codeUrl;
    QString name;
    qint64 size = 0;
    QString ownerToken;
    double expiresAt = 0;
    double createdAt = 0;
    std::optional<int> fileCount;
    std::optional<bool> toSelf;
    std::optional<bool> extended;

    bool isExtended() const { return extended.value_or(false); }
    bool isToSelf() const { return toSelf.value_or(false); }

    // Strict like the wire records: a missing field or a wrong type throws DecodeError.
    static HistoryEntry fromJson(const QJsonObject &object);
    QJsonObject toJson() const;

    // The entry a finished send leaves behind.
    static HistoryEntry fromUpload(const UploadResult &result, const SendPlan &plan,
                                   const SendOptions &options, double createdAtMs);

    bool operator==(const HistoryEntry &) const = default;
};

// The first `limit` entries, in history order, not expired at `nowMs` (milliseconds since 1970);
// an entry expiring exactly now still counts.
QList<HistoryEntry> unexpiredEntries(const QList<HistoryEntry> &history, double nowMs,
                                     qsizetype limit);

} // namespace lofthaven
