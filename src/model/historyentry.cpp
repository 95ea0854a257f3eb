#include "model/historyentry.h"

#include "api/decodeerror.h"

#include <QJsonValue>

namespace lofthaven {

namespace {

class EntryReader
{
public:
    explicit EntryReader(const QJsonObject &object)
        : m_object(object)
    {}

    QJsonValue required(const char *key) const
    {
        const QJsonValue value = m_object.value(QLatin1String(key));
        if (value.isUndefined() || value.isNull())
            fail(key, "is missing");
        return value;
    }
    QJsonValue optional(const char *key) const { return m_object.value(QLatin1String(key)); }
    static bool absent(const QJsonValue &value) { return value.isUndefined() || value.isNull(); }

    QString string(const char *key, const QJsonValue &value) const
    {
        if (!value.isString())
            fail(key, "is not a string");
        return value.toString();
    }
    double number(const char *key, const QJsonValue &value) const
    {
        if (!value.isDouble())
            fail(key, "is not a number");
        return value.toDouble();
    }
    qint64 whole(const char *key, const QJsonValue &value) const
    {
        if (!value.isDouble() || value.toInteger(0) != value.toInteger(1))
            fail(key, "is not a whole number");
        return value.toInteger();
    }
    bool boolean(const char *key, const QJsonValue &value) const
    {
        if (!value.isBool())
            fail(key, "is not true or false");
        return value.toBool();
    }

private:
    [[noreturn]] static void fail(const char *key, const char *problem)
    {
        throw DecodeError(QString::fromLatin1(HistoryEntry::kRecord), QString::fromLatin1(key),
                          QString::fromLatin1(problem));
    }

    const QJsonObject &m_object;
};

} // namespace

HistoryEntry HistoryEntry::fromJson(const QJsonObject &object)
{
    const EntryReader in(object);
    HistoryEntry entry;
    entry.id = in.string("id", in.required("id"));
    entry.code = in.string("code", in.required("code"));
    entry.url = in.string("url", in.required("url"));
    if (const QJsonValue v = in.optional("codeUrl"); !EntryReader::absent(v))
        entry.codeUrl = in.string("codeUrl", v);
    entry.name = in.string("name", in.required("name"));
    entry.size = in.whole("size", in.required("size"));
    entry.ownerToken = in.string("ownerToken", in.required("ownerToken"));
    entry.expiresAt = in.number("expiresAt", in.required("expiresAt"));
    entry.createdAt = in.number("createdAt", in.required("createdAt"));
    if (const QJsonValue v = in.optional("fileCount"); !EntryReader::absent(v))
        entry.fileCount = int(in.whole("fileCount", v));
    if (const QJsonValue v = in.optional("toSelf"); !EntryReader::absent(v))
        entry.toSelf = in.boolean("toSelf", v);
    if (const QJsonValue v = in.optional("extended"); !EntryReader::absent(v))
        entry.extended = in.boolean("extended", v);
    return entry;
}

QJsonObject HistoryEntry::toJson() const
{
    QJsonObject object{
        {QStringLiteral("id"), id},
        {QStringLiteral("code"), code},
        {QStringLiteral("url"), url},
        {QStringLiteral("name"), name},
        {QStringLiteral("size"), size},
        {QStringLiteral("ownerToken"), ownerToken},
        {QStringLiteral("expiresAt"), expiresAt},
        {QStringLiteral("createdAt"), createdAt},
    };
    if (codeUrl)
        object.insert(QStringLiteral("codeUrl"), *codeUrl);
    if (fileCount)
        object.insert(QStringLiteral("fileCount"), *fileCount);
    if (toSelf)
        object.insert(QStringLiteral("toSelf"), *toSelf);
    if (extended)
        object.insert(QStringLiteral("extended"), *extended);
    return object;
}

HistoryEntry HistoryEntry::fromUpload(const UploadResult &result, const SendPlan &plan,
                                      const SendOptions &options, double createdAtMs)
{
    const CompletedTransfer &done = result.completed;
    HistoryEntry entry;
    entry.id = done.id;
    entry.code = done.code;
    entry.url = done.url;
    entry.codeUrl = done.codeUrl ? done.codeUrl : result.created.codeUrl;
    entry.name = plan.name;
    entry.size = done.size.value_or(plan.size);
    entry.ownerToken = result.created.ownerToken;
    entry.expiresAt = done.expiresAt;
    entry.createdAt = createdAtMs;
    entry.fileCount = int(plan.items.size());
    if (options.toSelf)
        entry.toSelf = true;
    return entry;
}

QList<HistoryEntry> unexpiredEntries(const QList<HistoryEntry> &history, double nowMs,
                                     qsizetype limit)
{
    QList<HistoryEntry> kept;
    for (const HistoryEntry &entry : history) {
        if (kept.size() == limit)
            break;
        if (entry.expiresAt >= nowMs)
            kept.append(entry);
    }
    return kept;
}

} // namespace lofthaven
