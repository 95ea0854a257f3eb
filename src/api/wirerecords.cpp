#include "api/wirerecords.h"

#include <QJsonArray>
#include <QJsonParseError>
#include <QJsonValue>

#include <limits>
#include <type_traits>

namespace lofthaven {

namespace {

template<typename T>
struct IsList : std::false_type
{
};
template<typename T>
struct IsList<QList<T>> : std::true_type
{
};

[[noreturn]] void wrongType(const char *record, const QString &field, const char *expected)
{
    throw DecodeError(QString::fromLatin1(record), field,
                      QStringLiteral("is not %1").arg(QLatin1String(expected)));
}

template<typename T>
T convert(const QJsonValue &value, const char *record, const QString &field)
{
    if constexpr (std::is_same_v<T, QString>) {
        if (!value.isString())
            wrongType(record, field, "a string");
        return value.toString();
    } else if constexpr (std::is_same_v<T, bool>) {
        if (!value.isBool())
            wrongType(record, field, "true or false");
        return value.toBool();
    } else if constexpr (std::is_same_v<T, double>) {
        if (!value.isDouble())
            wrongType(record, field, "a number");
        return value.toDouble();
    } else if constexpr (std::is_same_v<T, qint64> || std::is_same_v<T, int>) {
        // Never through double: toInteger() keeps all 64 bits and refuses fractions and
        // numbers that do not fit.
        if (!value.isDouble())
            wrongType(record, field, "a whole number");
        const qint64 a = value.toInteger(0);
        const qint64 b = value.toInteger(1);
        if (a != b)
            wrongType(record, field, "a whole number in range");
        if constexpr (std::is_same_v<T, int>) {
            if (a < std::numeric_limits<int>::min() || a > std::numeric_limits<int>::max())
                wrongType(record, field, "a whole number in range");
            return int(a);
        } else {
            return a;
        }
    } else if constexpr (std::is_same_v<T, QMap<QString, QString>>) {
        if (!value.isObject())
            wrongType(record, field, "an object");
        const QJsonObject object = value.toObject();
        QMap<QString, QString> map;
        for (auto it = object.begin(); it != object.end(); ++it)
            map.insert(it.key(), convert<QString>(it.value(), record, field + u'.' + it.key()));
        return map;
    } else if constexpr (IsList<T>::value) {
        if (!value.isArray())
            wrongType(record, field, "a list");
        const QJsonArray array = value.toArray();
        T list;
        list.reserve(array.size());
        for (qsizetype i = 0; i < array.size(); ++i)
            list.append(convert<typename T::value_type>(array.at(i), record,
                                                        field + QStringLiteral("[%1]").arg(i)));
        return list;
    } else {
        if (!value.isObject())
            wrongType(record, field, "an object");
        return T::fromJson(value.toObject());
    }
}

class Reader
{
public:
    Reader(const QJsonObject &object, const char *record)
        : m_object(object)
        , m_record(record)
    {}

    template<typename T>
    void get(const char *key, T &out) const
    {
        const QJsonValue value = m_object.value(QLatin1String(key));
        if (value.isUndefined())
            throw DecodeError(QString::fromLatin1(m_record), QString::fromLatin1(key),
                              QStringLiteral("is missing"));
        out = convert<T>(value, m_record, QString::fromLatin1(key));
    }

    template<typename T>
    void get(const char *key, std::optional<T> &out) const
    {
        const QJsonValue value = m_object.value(QLatin1String(key));
        if (value.isUndefined() || value.isNull())
            out.reset();
        else
            out = convert<T>(value, m_record, QString::fromLatin1(key));
    }

private:
    const QJsonObject &m_object;
    const char *m_record;
};

template<typename T>
QJsonValue toValue(const T &value)
{
    if constexpr (std::is_same_v<T, QString> || std::is_same_v<T, bool> ||
                  std::is_same_v<T, double> || std::is_same_v<T, qint64> ||
                  std::is_same_v<T, int>) {
        return QJsonValue(value);
    } else if constexpr (std::is_same_v<T, QMap<QString, QString>>) {
        QJsonObject object;
        for (auto it = value.begin(); it != value.end(); ++it)
            object.insert(it.key(), it.value());
        return object;
    } else if constexpr (IsList<T>::value) {
        QJsonArray array;
        for (const auto &item : value)
            array.append(toValue(item));
        return array;
    } else {
        return value.toJson();
    }
}

class Writer
{
public:
    template<typename T>
    void put(const char *key, const T &value)
    {
        m_object.insert(QLatin1String(key), toValue(value));
    }
    template<typename T>
    void put(const char *key, const std::optional<T> &value)
    {
        if (value)
            put(key, *value);
    }
    QJsonObject object() const { return m_object; }

private:
    QJsonObject m_object;
};

// Writes keys in the order they are added, which QJsonObject cannot.
class OrderedWriter
{
public:
    template<typename T>
    void put(const char *key, const T &value)
    {
        m_bytes += m_bytes.size() > 1 ? "," : "";
        m_bytes += scalar(QJsonValue(QLatin1String(key))) + ':' + scalar(toValue(value));
    }
    template<typename T>
    void put(const char *key, const std::optional<T> &value)
    {
        if (value)
            put(key, *value);
    }
    QByteArray bytes() const { return m_bytes + '}'; }

private:
    static QByteArray scalar(const QJsonValue &value)
    {
        // QJsonDocument only writes arrays and objects: wrap the value and strip the brackets.
        const QByteArray wrapped = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
        return wrapped.mid(1, wrapped.size() - 2);
    }
    QByteArray m_bytes = "{";
};

QByteArray compact(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

} // namespace

QJsonObject parseJsonObject(const QByteArray &body, const char *record)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError)
        throw DecodeError(QString::fromLatin1(record), QString(),
                          QStringLiteral("is not valid JSON: %1").arg(error.errorString()));
    if (!document.isObject())
        throw DecodeError(QString::fromLatin1(record), QString(),
                          QStringLiteral("is not a JSON object"));
    return document.object();
}

FileEntry FileEntry::fromJson(const QJsonObject &object)
{
    const Reader r(object, kRecord);
    FileEntry v;
    r.get("name", v.name);
    r.get("size", v.size);
    return v;
}

QJsonObject FileEntry::toJson() const
{
    Writer w;
    w.put("name", name);
    w.put("size", size);
    return w.object();
}

TransferMeta TransferMeta::fromJson(const QJsonObject &object)
{
    const Reader r(object, kRecord);
    TransferMeta v;
    r.get("id", v.id);
    r.get("name", v.name);
    r.get("size", v.size);
    r.get("mime", v.mime);
    r.get("isZip", v.isZip);
    r.get("fileCount", v.fileCount);
    r.get("files", v.files);
    r.get("title", v.title);
    r.get("message", v.message);
    r.get("createdAt", v.createdAt);
    r.get("expiresAt", v.expiresAt);
    r.get("downloads", v.downloads);
    r.get("maxDownloads", v.maxDownloads);
    r.get("hasPassword", v.hasPassword);
    r.get("code", v.code);
    r.get("url", v.url);
    r.get("status", v.status);
    r.get("toSelf", v.toSelf);
    r.get("device", v.device);
    return v;
}

QJsonObject TransferMeta::toJson() const
{
    Writer w;
    w.put("id", id);
    w.put("name", name);
    w.put("size", size);
    w.put("mime", mime);
    w.put("isZip", isZip);
    w.put("fileCount", fileCount);
    w.put("files", files);
    w.put("title", title);
    w.put("message", message);
    w.put("createdAt", createdAt);
    w.put("expiresAt", expiresAt);
    w.put("downloads", downloads);
    w.put("maxDownloads", maxDownloads);
    w.put("hasPassword", hasPassword);
    w.put("code", code);
    w.put("url", url);
    w.put("status", status);
    w.put("toSelf", toSelf);
    w.put("device", device);
    return w.object();
}

CodeLookup CodeLookup::fromJson(const QJsonObject &object)
{
    CodeLookup v;
    Reader(object, kRecord).get("id", v.id);
    return v;
}

QJsonObject CodeLookup::toJson() const
{
    return QJsonObject{{QStringLiteral("id"), id}};
}

UnlockResponse UnlockResponse::fromJson(const QJsonObject &object)
{
    UnlockResponse v;
    Reader(object, kRecord).get("token", v.token);
    return v;
}

QJsonObject UnlockResponse::toJson() const
{
    return QJsonObject{{QStringLiteral("token"), token}};
}

CreatedTransfer CreatedTransfer::fromJson(const QJsonObject &object)
{
    const Reader r(object, kRecord);
    CreatedTransfer v;
    r.get("id", v.id);
    r.get("code", v.code);
    r.get("ownerToken", v.ownerToken);
    r.get("partSize", v.partSize);
    r.get("partCount", v.partCount);
    r.get("url", v.url);
    r.get("codeUrl", v.codeUrl);
    r.get("expiresAt", v.expiresAt);
    return v;
}

QJsonObject CreatedTransfer::toJson() const
{
    Writer w;
    w.put("id", id);
    w.put("code", code);
    w.put("ownerToken", ownerToken);
    w.put("partSize", partSize);
    w.put("partCount", partCount);
    w.put("url", url);
    w.put("codeUrl", codeUrl);
    w.put("expiresAt", expiresAt);
    return w.object();
}

PartResponse PartResponse::fromJson(const QJsonObject &object)
{
    PartResponse v;
    Reader(object, kRecord).get("etag", v.etag);
    return v;
}

QJsonObject PartResponse::toJson() const
{
    return QJsonObject{{QStringLiteral("etag"), etag}};
}

CompletedTransfer CompletedTransfer::fromJson(const QJsonObject &object)
{
    const Reader r(object, kRecord);
    CompletedTransfer v;
    r.get("id", v.id);
    r.get("code", v.code);
    r.get("url", v.url);
    r.get("codeUrl", v.codeUrl);
    r.get("expiresAt", v.expiresAt);
    r.get("size", v.size);
    return v;
}

QJsonObject CompletedTransfer::toJson() const
{
    Writer w;
    w.put("id", id);
    w.put("code", code);
    w.put("url", url);
    w.put("codeUrl", codeUrl);
    w.put("expiresAt", expiresAt);
    w.put("size", size);
    return w.object();
}

ExtendResponse ExtendResponse::fromJson(const QJsonObject &object)
{
    ExtendResponse v;
    Reader(object, kRecord).get("expiresAt", v.expiresAt);
    return v;
}

QJsonObject ExtendResponse::toJson() const
{
    return QJsonObject{{QStringLiteral("expiresAt"), expiresAt}};
}

OKResponse OKResponse::fromJson(const QJsonObject &object)
{
    OKResponse v;
    Reader(object, kRecord).get("ok", v.ok);
    return v;
}

QJsonObject OKResponse::toJson() const
{
    Writer w;
    w.put("ok", ok);
    return w.object();
}

InboxResponse InboxResponse::fromJson(const QJsonObject &object)
{
    InboxResponse v;
    Reader(object, kRecord).get("items", v.items);
    return v;
}

QJsonObject InboxResponse::toJson() const
{
    Writer w;
    w.put("items", items);
    return w.object();
}

AccountTransfersResponse AccountTransfersResponse::fromJson(const QJsonObject &object)
{
    AccountTransfersResponse v;
    Reader(object, kRecord).get("transfers", v.transfers);
    return v;
}

QJsonObject AccountTransfersResponse::toJson() const
{
    Writer w;
    w.put("transfers", transfers);
    return w.object();
}

UserInfo UserInfo::fromJson(const QJsonObject &object)
{
    const Reader r(object, kRecord);
    UserInfo v;
    r.get("id", v.id);
    r.get("email", v.email);
    r.get("name", v.name);
    r.get("picture", v.picture);
    return v;
}

QJsonObject UserInfo::toJson() const
{
    Writer w;
    w.put("id", id);
    w.put("email", email);
    w.put("name", name);
    w.put("picture", picture);
    return w.object();
}

Limits Limits::fromJson(const QJsonObject &object)
{
    const Reader r(object, kRecord);
    Limits v;
    r.get("maxBytes", v.maxBytes);
    r.get("expiries", v.expiries);
    return v;
}

QJsonObject Limits::toJson() const
{
    Writer w;
    w.put("maxBytes", maxBytes);
    w.put("expiries", expiries);
    return w.object();
}

MeResponse MeResponse::fromJson(const QJsonObject &object)
{
    const Reader r(object, kRecord);
    MeResponse v;
    r.get("signedIn", v.signedIn);
    r.get("user", v.user);
    r.get("plans", v.plans);
    r.get("limits", v.limits);
    return v;
}

QJsonObject MeResponse::toJson() const
{
    Writer w;
    w.put("signedIn", signedIn);
    w.put("user", user);
    w.put("plans", plans);
    w.put("limits", limits);
    return w.object();
}

DeviceLoginStart DeviceLoginStart::fromJson(const QJsonObject &object)
{
    const Reader r(object, kRecord);
    DeviceLoginStart v;
    r.get("deviceCode", v.deviceCode);
    r.get("userCode", v.userCode);
    r.get("verifyUrl", v.verifyUrl);
    r.get("verifyUrlComplete", v.verifyUrlComplete);
    r.get("interval", v.interval);
    r.get("expiresIn", v.expiresIn);
    return v;
}

QJsonObject DeviceLoginStart::toJson() const
{
    Writer w;
    w.put("deviceCode", deviceCode);
    w.put("userCode", userCode);
    w.put("verifyUrl", verifyUrl);
    w.put("verifyUrlComplete", verifyUrlComplete);
    w.put("interval", interval);
    w.put("expiresIn", expiresIn);
    return w.object();
}

DeviceLoginToken DeviceLoginToken::fromJson(const QJsonObject &object)
{
    const Reader r(object, kRecord);
    DeviceLoginToken v;
    r.get("token", v.token);
    r.get("user", v.user);
    r.get("plans", v.plans);
    r.get("limits", v.limits);
    r.get("error", v.error);
    r.get("message", v.message);
    return v;
}

QJsonObject DeviceLoginToken::toJson() const
{
    Writer w;
    w.put("token", token);
    w.put("user", user);
    w.put("plans", plans);
    w.put("limits", limits);
    w.put("error", error);
    w.put("message", message);
    return w.object();
}

ErrorBody ErrorBody::fromJson(const QJsonObject &object)
{
    const Reader r(object, kRecord);
    ErrorBody v;
    r.get("error", v.error);
    r.get("message", v.message);
    r.get("limit", v.limit);
    return v;
}

QJsonObject ErrorBody::toJson() const
{
    Writer w;
    w.put("error", error);
    w.put("message", message);
    w.put("limit", limit);
    return w.object();
}

UpdateInfo UpdateInfo::fromJson(const QJsonObject &object)
{
    const Reader r(object, kRecord);
    UpdateInfo v;
    r.get("version", v.version);
    r.get("mac", v.mac);
    r.get("notes", v.notes);
    return v;
}

QJsonObject UpdateInfo::toJson() const
{
    Writer w;
    w.put("version", version);
    w.put("mac", mac);
    w.put("notes", notes);
    return w.object();
}

CreateTransferBody CreateTransferBody::fromJson(const QJsonObject &object)
{
    const Reader r(object, kRecord);
    CreateTransferBody v;
    r.get("name", v.name);
    r.get("size", v.size);
    r.get("mime", v.mime);
    r.get("files", v.files);
    r.get("title", v.title);
    r.get("message", v.message);
    r.get("expiresIn", v.expiresIn);
    r.get("maxDownloads", v.maxDownloads);
    r.get("password", v.password);
    r.get("partSize", v.partSize);
    r.get("source", v.source);
    r.get("toSelf", v.toSelf);
    r.get("device", v.device);
    return v;
}

template<typename W>
static void writeCreateTransferBody(W &w, const CreateTransferBody &b)
{
    w.put("name", b.name);
    w.put("size", b.size);
    w.put("mime", b.mime);
    w.put("files", b.files);
    w.put("title", b.title);
    w.put("message", b.message);
    w.put("expiresIn", b.expiresIn);
    w.put("maxDownloads", b.maxDownloads);
    w.put("password", b.password);
    w.put("partSize", b.partSize);
    w.put("source", b.source);
    w.put("toSelf", b.toSelf);
    w.put("device", b.device);
}

QJsonObject CreateTransferBody::toJson() const
{
    Writer w;
    writeCreateTransferBody(w, *this);
    return w.object();
}

QByteArray CreateTransferBody::encode() const
{
    OrderedWriter w;
    writeCreateTransferBody(w, *this);
    return w.bytes();
}

PartETag PartETag::fromJson(const QJsonObject &object)
{
    const Reader r(object, kRecord);
    PartETag v;
    r.get("partNumber", v.partNumber);
    r.get("etag", v.etag);
    return v;
}

QJsonObject PartETag::toJson() const
{
    Writer w;
    w.put("partNumber", partNumber);
    w.put("etag", etag);
    return w.object();
}

CompleteBody CompleteBody::fromJson(const QJsonObject &object)
{
    CompleteBody v;
    Reader(object, kRecord).get("parts", v.parts);
    return v;
}

QJsonObject CompleteBody::toJson() const
{
    Writer w;
    w.put("parts", parts);
    return w.object();
}

QByteArray CompleteBody::encode() const
{
    return compact(toJson());
}

PasswordBody PasswordBody::fromJson(const QJsonObject &object)
{
    PasswordBody v;
    Reader(object, kRecord).get("password", v.password);
    return v;
}

QJsonObject PasswordBody::toJson() const
{
    return QJsonObject{{QStringLiteral("password"), password}};
}

QByteArray PasswordBody::encode() const
{
    return compact(toJson());
}

DeviceLoginBody DeviceLoginBody::fromJson(const QJsonObject &object)
{
    DeviceLoginBody v;
    Reader(object, kRecord).get("name", v.name);
    return v;
}

QJsonObject DeviceLoginBody::toJson() const
{
    return QJsonObject{{QStringLiteral("name"), name}};
}

QByteArray DeviceLoginBody::encode() const
{
    return compact(toJson());
}

DevicePollBody DevicePollBody::fromJson(const QJsonObject &object)
{
    DevicePollBody v;
    Reader(object, kRecord).get("deviceCode", v.deviceCode);
    return v;
}

QJsonObject DevicePollBody::toJson() const
{
    return QJsonObject{{QStringLiteral("deviceCode"), deviceCode}};
}

QByteArray DevicePollBody::encode() const
{
    return compact(toJson());
}

} // namespace lofthaven
