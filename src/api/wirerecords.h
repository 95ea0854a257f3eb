#pragma once

// The JSON records exchanged with the service. Plain values; keys are the field names.
// fromJson() is strict: a missing required field or a wrong type throws DecodeError naming the
// record and field, unknown keys are ignored, null counts as absent for optional fields.
// toJson() leaves absent optional fields out.

#include "api/decodeerror.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QString>

#include <optional>

namespace lofthaven {

struct FileEntry
{
    static constexpr const char *kRecord = "FileEntry";
    QString name;
    qint64 size = 0;
    static FileEntry fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const FileEntry &) const = default;
};

struct TransferMeta
{
    static constexpr const char *kRecord = "TransferMeta";
    QString id;
    QString name;
    qint64 size = 0;
    std::optional<QString> mime;
    std::optional<bool> isZip;
    std::optional<int> fileCount;
    std::optional<QList<FileEntry>> files;
    std::optional<QString> title;
    std::optional<QString> message;
    std::optional<double> createdAt;
    std::optional<double> expiresAt;
    std::optional<int> downloads;
    std::optional<int> maxDownloads;
    std::optional<bool> hasPassword;
    std::optional<QString> code;
    std::optional<QString> url;
    std::optional<QString> status;
    std::optional<bool> toSelf;
    std::optional<QString> device;
    static TransferMeta fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const TransferMeta &) const = default;
};

struct CodeLookup
{
    static constexpr const char *kRecord = "CodeLookup";
    QString id;
    static CodeLookup fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const CodeLookup &) const = default;
};

struct UnlockResponse
{
    static constexpr const char *kRecord = "UnlockResponse";
    QString token;
    static UnlockResponse fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const UnlockResponse &) const = default;
};

struct CreatedTransfer
{
    static constexpr const char *kRecord = "CreatedTransfer";
    QString id;
    QString code;
    QString ownerToken;
    qint64 partSize = 0;
    int partCount = 0;
    QString url;
    std::optional<QString> codeUrl;
    double expiresAt = 0;
    static CreatedTransfer fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const CreatedTransfer &) const = default;
};

struct PartResponse
{
    static constexpr const char *kRecord = "PartResponse";
    QString etag;
    static PartResponse fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const PartResponse &) const = default;
};

struct CompletedTransfer
{
    static constexpr const char *kRecord = "CompletedTransfer";
    QString id;
    QString code;
    QString url;
    std::optional<QString> codeUrl;
    double expiresAt = 0;
    std::optional<qint64> size;
    static CompletedTransfer fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const CompletedTransfer &) const = default;
};

struct ExtendResponse
{
    static constexpr const char *kRecord = "ExtendResponse";
    double expiresAt = 0;
    static ExtendResponse fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const ExtendResponse &) const = default;
};

struct OKResponse
{
    static constexpr const char *kRecord = "OKResponse";
    std::optional<bool> ok;
    static OKResponse fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const OKResponse &) const = default;
};

struct InboxResponse
{
    static constexpr const char *kRecord = "InboxResponse";
    QList<TransferMeta> items;
    static InboxResponse fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const InboxResponse &) const = default;
};

struct AccountTransfersResponse
{
    static constexpr const char *kRecord = "AccountTransfersResponse";
    QList<TransferMeta> transfers;
    static AccountTransfersResponse fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const AccountTransfersResponse &) const = default;
};

struct UserInfo
{
    static constexpr const char *kRecord = "UserInfo";
    QString id;
    std::optional<QString> email;
    std::optional<QString> name;
    std::optional<QString> picture;
    static UserInfo fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const UserInfo &) const = default;
};

struct Limits
{
    static constexpr const char *kRecord = "Limits";
    qint64 maxBytes = 0;
    QList<qint64> expiries; // seconds
    static Limits fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const Limits &) const = default;
};

struct MeResponse
{
    static constexpr const char *kRecord = "MeResponse";
    std::optional<bool> signedIn;
    std::optional<UserInfo> user;
    std::optional<QMap<QString, QString>> plans;
    std::optional<Limits> limits;
    static MeResponse fromJson(const QJsonObject &object);
    QJsonObject toJson() const; // also the cached account
    bool operator==(const MeResponse &) const = default;
};

struct DeviceLoginStart
{
    static constexpr const char *kRecord = "DeviceLoginStart";
    QString deviceCode;
    QString userCode;
    QString verifyUrl;
    std::optional<QString> verifyUrlComplete;
    std::optional<double> interval;  // seconds
    std::optional<double> expiresIn; // seconds
    static DeviceLoginStart fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const DeviceLoginStart &) const = default;
};

struct DeviceLoginToken
{
    static constexpr const char *kRecord = "DeviceLoginToken";
    std::optional<QString> token;
    std::optional<UserInfo> user;
    std::optional<QMap<QString, QString>> plans;
    std::optional<Limits> limits;
    std::optional<QString> error;
    std::optional<QString> message;
    static DeviceLoginToken fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const DeviceLoginToken &) const = default;
};

struct ErrorBody
{
    static constexpr const char *kRecord = "ErrorBody";
    std::optional<QString> error;
    std::optional<QString> message;
    std::optional<qint64> limit;
    static ErrorBody fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const ErrorBody &) const = default;
};

struct UpdateInfo
{
    static constexpr const char *kRecord = "UpdateInfo";
    QString version;
    std::optional<QString> mac;
    std::optional<QString> notes;
    static UpdateInfo fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const UpdateInfo &) const = default;
};

// Requests. encode() gives the bytes sent on the wire.

struct CreateTransferBody
{
    static constexpr const char *kRecord = "CreateTransferBody";
    QString name;
    qint64 size = 0;
    std::optional<QString> mime;
    QList<FileEntry> files;
    std::optional<QString> title;
    std::optional<QString> message;
    qint64 expiresIn = 0; // seconds
    int maxDownloads = 0;
    std::optional<QString> password;
    qint64 partSize = 0;
    QString source;
    std::optional<bool> toSelf;
    std::optional<QString> device;
    static CreateTransferBody fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    // Keys in the service's documented order (QJsonObject would sort them).
    QByteArray encode() const;
    bool operator==(const CreateTransferBody &) const = default;
};

struct PartETag
{
    static constexpr const char *kRecord = "PartETag";
    int partNumber = 0; // 1-based
    QString etag;
    static PartETag fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const PartETag &) const = default;
};

struct CompleteBody
{
    static constexpr const char *kRecord = "CompleteBody";
    QList<PartETag> parts; // ascending partNumber
    static CompleteBody fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    QByteArray encode() const;
    bool operator==(const CompleteBody &) const = default;
};

struct PasswordBody
{
    static constexpr const char *kRecord = "PasswordBody";
    QString password;
    static PasswordBody fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    QByteArray encode() const;
    bool operator==(const PasswordBody &) const = default;
};

// Device sign-in start.
struct DeviceLoginBody
{
    static constexpr const char *kRecord = "DeviceLoginBody";
    QString name;
    static DeviceLoginBody fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    QByteArray encode() const;
    bool operator==(const DeviceLoginBody &) const = default;
};

// Device sign-in poll.
struct DevicePollBody
{
    static constexpr const char *kRecord = "DevicePollBody";
    QString deviceCode;
    static DevicePollBody fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    QByteArray encode() const;
    bool operator==(const DevicePollBody &) const = default;
};

// Parses a whole answer body; anything but a JSON object at the top is a DecodeError.
QJsonObject parseJsonObject(const QByteArray &body, const char *record);

template<typename T>
T decode(const QByteArray &body)
{
    return T::fromJson(parseJsonObject(body, T::kRecord));
}

} // namespace lofthaven
