#include "api/wirerecords.h"

#include <QJsonArray>
#include <QJsonParseError>
#include <QJsonValue>

#include <limits>
#include <tuple>
#include <type_traits>

namespace lofthaven {

namespace {

template<typename T>
constexpr bool kIsList = false;
template<typename T>
constexpr bool kIsList<QList<T>> = true;

template<typename T>
constexpr bool kIsOptional = false;
template<typename T>
constexpr bool kIsOptional<std::optional<T>> = true;

// One entry of a record's field list: its key, its member, and whether a value below zero is
// refused. Whether it may be absent follows from the member's type: std::optional members are
// optional, every other member is required.
template<typename R, typename T>
struct Field
{
    const char *key;
    T R::*member;
    bool nonNegative;
};

template<typename R, typename T>
constexpr Field<R, T> field(const char *key, T R::*member)
{
    return {key, member, false};
}

// Sizes and counts: a negative one would turn size checks and limits off downstream.
template<typename R, typename T>
constexpr Field<R, T> amount(const char *key, T R::*member)
{
    return {key, member, true};
}

[[noreturn]] void fail(const char *record, const QString &key, const QString &problem)
{
    throw DecodeError(QString::fromLatin1(record), key, problem);
}

[[noreturn]] void wrongType(const char *record, const QString &key, const char *expected)
{
    fail(record, key, QStringLiteral("is not %1").arg(QLatin1String(expected)));
}

template<typename T>
T convert(const QJsonValue &value, const char *record, const QString &key)
{
    if constexpr (std::is_same_v<T, QString>) {
        if (!value.isString())
            wrongType(record, key, "a string");
        return value.toString();
    } else if constexpr (std::is_same_v<T, bool>) {
        if (!value.isBool())
            wrongType(record, key, "true or false");
        return value.toBool();
    } else if constexpr (std::is_same_v<T, double>) {
        if (!value.isDouble())
            wrongType(record, key, "a number");
        return value.toDouble();
    } else if constexpr (std::is_same_v<T, qint64> || std::is_same_v<T, int>) {
        // Never through double: toInteger() keeps all 64 bits and refuses fractions and
        // numbers that do not fit.
        if (!value.isDouble())
            wrongType(record, key, "a whole number");
        const qint64 a = value.toInteger(0);
        const qint64 b = value.toInteger(1);
        if (a != b)
            wrongType(record, key, "a whole number in range");
        if constexpr (std::is_same_v<T, int>) {
            if (a < std::numeric_limits<int>::min() || a > std::numeric_limits<int>::max())
                wrongType(record, key, "a whole number in range");
            return int(a);
        } else {
            return a;
        }
    } else if constexpr (std::is_same_v<T, QMap<QString, QString>>) {
        if (!value.isObject())
            wrongType(record, key, "an object");
        const QJsonObject object = value.toObject();
        QMap<QString, QString> map;
        for (auto it = object.begin(); it != object.end(); ++it)
            map.insert(it.key(), convert<QString>(it.value(), record, key + u'.' + it.key()));
        return map;
    } else if constexpr (kIsList<T>) {
        if (!value.isArray())
            wrongType(record, key, "a list");
        const QJsonArray array = value.toArray();
        T list;
        list.reserve(array.size());
        for (qsizetype i = 0; i < array.size(); ++i)
            list.append(convert<typename T::value_type>(array.at(i), record,
                                                        key + QStringLiteral("[%1]").arg(i)));
        return list;
    } else {
        if (!value.isObject())
            wrongType(record, key, "an object");
        return T::fromJson(value.toObject());
    }
}

template<typename T>
QJsonValue toValue(const T &value)
{
    if constexpr (std::is_same_v<T, QMap<QString, QString>>) {
        QJsonObject object;
        for (auto it = value.begin(); it != value.end(); ++it)
            object.insert(it.key(), it.value());
        return object;
    } else if constexpr (kIsList<T>) {
        QJsonArray array;
        for (const auto &item : value)
            array.append(toValue(item));
        return array;
    } else if constexpr (std::is_class_v<T> && !std::is_same_v<T, QString>) {
        return value.toJson();
    } else {
        return QJsonValue(value);
    }
}

template<typename T>
struct Unwrapped
{
    using type = T;
};
template<typename T>
struct Unwrapped<std::optional<T>>
{
    using type = T;
};

template<typename R, typename T>
void readField(const QJsonObject &object, R &record, const Field<R, T> &f)
{
    using V = typename Unwrapped<T>::type;
    const QJsonValue value = object.value(QLatin1String(f.key));
    const QString key = QString::fromLatin1(f.key);
    if (value.isUndefined() || value.isNull()) {
        if constexpr (kIsOptional<T>) {
            (record.*f.member).reset();
            return;
        }
        // A required null falls through to the type check.
        if (value.isUndefined())
            fail(R::kRecord, key, QStringLiteral("is missing"));
    }
    V converted = convert<V>(value, R::kRecord, key);
    if constexpr (std::is_same_v<V, qint64> || std::is_same_v<V, int>) {
        if (f.nonNegative && converted < 0)
            fail(R::kRecord, key, QStringLiteral("is below zero"));
    }
    record.*f.member = std::move(converted);
}

// Hands each present field to put(key, value) in field-list order; absent optionals are left out.
template<typename R, typename T, typename Put>
void writeField(const R &record, const Field<R, T> &f, Put &put)
{
    const T &value = record.*f.member;
    if constexpr (kIsOptional<T>) {
        if (value)
            put(f.key, toValue(*value));
    } else {
        put(f.key, toValue(value));
    }
}

template<typename R>
constexpr auto fieldsOf();

template<typename R>
R readRecord(const QJsonObject &object)
{
    R record;
    std::apply([&](const auto &...f) { (readField(object, record, f), ...); }, fieldsOf<R>());
    return record;
}

template<typename R, typename Put>
void writeRecord(const R &record, Put put)
{
    std::apply([&](const auto &...f) { (writeField(record, f, put), ...); }, fieldsOf<R>());
}

template<typename R>
QJsonObject jsonObject(const R &record)
{
    QJsonObject object;
    writeRecord(record, [&](const char *key, const QJsonValue &value) {
        object.insert(QLatin1String(key), value);
    });
    return object;
}

QByteArray compactScalar(const QJsonValue &value)
{
    // QJsonDocument only writes arrays and objects: wrap the value and strip the brackets.
    const QByteArray wrapped = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return wrapped.mid(1, wrapped.size() - 2);
}

// Request bodies keep the keys in field-list order, which QJsonObject (sorted) cannot.
template<typename R>
QByteArray orderedBytes(const R &record)
{
    QByteArray bytes = "{";
    writeRecord(record, [&](const char *key, const QJsonValue &value) {
        if (bytes.size() > 1)
            bytes += ',';
        bytes += compactScalar(QJsonValue(QLatin1String(key))) + ':' + compactScalar(value);
    });
    return bytes + '}';
}

// The field lists. Keys are the service's names; order is the order request bodies are sent in.

template<>
constexpr auto fieldsOf<FileEntry>()
{
    using R = FileEntry;
    return std::tuple{field("name", &R::name), amount("size", &R::size)};
}

template<>
constexpr auto fieldsOf<TransferMeta>()
{
    using R = TransferMeta;
    return std::tuple{
        field("id", &R::id),
        field("name", &R::name),
        amount("size", &R::size),
        field("mime", &R::mime),
        field("isZip", &R::isZip),
        amount("fileCount", &R::fileCount),
        field("files", &R::files),
        field("title", &R::title),
        field("message", &R::message),
        field("createdAt", &R::createdAt),
        field("expiresAt", &R::expiresAt),
        amount("downloads", &R::downloads),
        amount("maxDownloads", &R::maxDownloads),
        field("hasPassword", &R::hasPassword),
        field("code", &R::code),
        field("url", &R::url),
        field("status", &R::status),
        field("toSelf", &R::toSelf),
        field("device", &R::device),
    };
}

template<>
constexpr auto fieldsOf<CodeLookup>()
{
    return std::tuple{field("id", &CodeLookup::id)};
}

template<>
constexpr auto fieldsOf<UnlockResponse>()
{
    return std::tuple{field("token", &UnlockResponse::token)};
}

template<>
constexpr auto fieldsOf<CreatedTransfer>()
{
    using R = CreatedTransfer;
    return std::tuple{
        field("id", &R::id),
        field("code", &R::code),
        field("ownerToken", &R::ownerToken),
        amount("partSize", &R::partSize),
        amount("partCount", &R::partCount),
        field("url", &R::url),
        field("codeUrl", &R::codeUrl),
        field("expiresAt", &R::expiresAt),
    };
}

template<>
constexpr auto fieldsOf<PartResponse>()
{
    return std::tuple{field("etag", &PartResponse::etag)};
}

template<>
constexpr auto fieldsOf<CompletedTransfer>()
{
    using R = CompletedTransfer;
    return std::tuple{
        field("id", &R::id),           field("code", &R::code),           field("url", &R::url),
        field("codeUrl", &R::codeUrl), field("expiresAt", &R::expiresAt), amount("size", &R::size),
    };
}

template<>
constexpr auto fieldsOf<ExtendResponse>()
{
    return std::tuple{field("expiresAt", &ExtendResponse::expiresAt)};
}

template<>
constexpr auto fieldsOf<OKResponse>()
{
    return std::tuple{field("ok", &OKResponse::ok)};
}

template<>
constexpr auto fieldsOf<InboxResponse>()
{
    return std::tuple{field("items", &InboxResponse::items)};
}

template<>
constexpr auto fieldsOf<AccountTransfersResponse>()
{
    return std::tuple{field("transfers", &AccountTransfersResponse::transfers)};
}

template<>
constexpr auto fieldsOf<UserInfo>()
{
    using R = UserInfo;
    return std::tuple{field("id", &R::id), field("email", &R::email), field("name", &R::name),
                      field("picture", &R::picture)};
}

template<>
constexpr auto fieldsOf<Limits>()
{
    return std::tuple{amount("maxBytes", &Limits::maxBytes), field("expiries", &Limits::expiries)};
}

template<>
constexpr auto fieldsOf<MeResponse>()
{
    using R = MeResponse;
    return std::tuple{field("signedIn", &R::signedIn), field("user", &R::user),
                      field("plans", &R::plans), field("limits", &R::limits)};
}

template<>
constexpr auto fieldsOf<DeviceLoginStart>()
{
    using R = DeviceLoginStart;
    return std::tuple{
        field("deviceCode", &R::deviceCode), field("userCode", &R::userCode),
        field("verifyUrl", &R::verifyUrl),   field("verifyUrlComplete", &R::verifyUrlComplete),
        field("interval", &R::interval),     field("expiresIn", &R::expiresIn),
    };
}

template<>
constexpr auto fieldsOf<DeviceLoginToken>()
{
    using R = DeviceLoginToken;
    return std::tuple{field("token", &R::token), field("user", &R::user),
                      field("plans", &R::plans), field("limits", &R::limits),
                      field("error", &R::error), field("message", &R::message)};
}

template<>
constexpr auto fieldsOf<ErrorBody>()
{
    using R = ErrorBody;
    return std::tuple{field("error", &R::error), field("message", &R::message),
                      field("limit", &R::limit)};
}

template<>
constexpr auto fieldsOf<UpdateInfo>()
{
    using R = UpdateInfo;
    return std::tuple{field("version", &R::version), field("mac", &R::mac),
                      field("notes", &R::notes)};
}

template<>
constexpr auto fieldsOf<CreateTransferBody>()
{
    using R = CreateTransferBody;
    return std::tuple{
        field("name", &R::name),           amount("size", &R::size),
        field("mime", &R::mime),           field("files", &R::files),
        field("title", &R::title),         field("message", &R::message),
        field("expiresIn", &R::expiresIn), amount("maxDownloads", &R::maxDownloads),
        field("password", &R::password),   amount("partSize", &R::partSize),
        field("source", &R::source),       field("toSelf", &R::toSelf),
        field("device", &R::device),
    };
}

template<>
constexpr auto fieldsOf<PartETag>()
{
    return std::tuple{field("partNumber", &PartETag::partNumber), field("etag", &PartETag::etag)};
}

template<>
constexpr auto fieldsOf<CompleteBody>()
{
    return std::tuple{field("parts", &CompleteBody::parts)};
}

template<>
constexpr auto fieldsOf<PasswordBody>()
{
    return std::tuple{field("password", &PasswordBody::password)};
}

template<>
constexpr auto fieldsOf<DeviceLoginBody>()
{
    return std::tuple{field("name", &DeviceLoginBody::name)};
}

template<>
constexpr auto fieldsOf<DevicePollBody>()
{
    return std::tuple{field("deviceCode", &DevicePollBody::deviceCode)};
}

} // namespace

QJsonObject parseJsonObject(const QByteArray &body, const char *record)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError)
        fail(record, QString(), QStringLiteral("is not valid JSON: %1").arg(error.errorString()));
    if (!document.isObject())
        fail(record, QString(), QStringLiteral("is not a JSON object"));
    return document.object();
}

// Every record decodes and encodes by walking its field list.
#define LOFTHAVEN_RECORD(R)                                                                        \
    R R::fromJson(const QJsonObject &object)                                                       \
    {                                                                                              \
        return readRecord<R>(object);                                                              \
    }                                                                                              \
    QJsonObject R::toJson() const                                                                  \
    {                                                                                              \
        return jsonObject(*this);                                                                  \
    }
#define LOFTHAVEN_REQUEST(R)                                                                       \
    LOFTHAVEN_RECORD(R)                                                                            \
    QByteArray R::encode() const                                                                   \
    {                                                                                              \
        return orderedBytes(*this);                                                                \
    }

LOFTHAVEN_RECORD(FileEntry)
LOFTHAVEN_RECORD(TransferMeta)
LOFTHAVEN_RECORD(CodeLookup)
LOFTHAVEN_RECORD(UnlockResponse)
LOFTHAVEN_RECORD(CreatedTransfer)
LOFTHAVEN_RECORD(PartResponse)
LOFTHAVEN_RECORD(CompletedTransfer)
LOFTHAVEN_RECORD(ExtendResponse)
LOFTHAVEN_RECORD(OKResponse)
LOFTHAVEN_RECORD(InboxResponse)
LOFTHAVEN_RECORD(AccountTransfersResponse)
LOFTHAVEN_RECORD(UserInfo)
LOFTHAVEN_RECORD(Limits)
LOFTHAVEN_RECORD(MeResponse)
LOFTHAVEN_RECORD(DeviceLoginStart)
LOFTHAVEN_RECORD(DeviceLoginToken)
LOFTHAVEN_RECORD(ErrorBody)
LOFTHAVEN_RECORD(UpdateInfo)
LOFTHAVEN_RECORD(PartETag)
LOFTHAVEN_REQUEST(CreateTransferBody)
LOFTHAVEN_REQUEST(CompleteBody)
LOFTHAVEN_REQUEST(PasswordBody)
LOFTHAVEN_REQUEST(DeviceLoginBody)
LOFTHAVEN_REQUEST(DevicePollBody)

#undef LOFTHAVEN_REQUEST
#undef LOFTHAVEN_RECORD

} // namespace lofthaven
