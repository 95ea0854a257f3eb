#include "model/updatecheck.h"

#include "api/apiclient.h"
#include "api/cancelled.h"
#include "api/httptransport.h"
#include "api/serviceorigin.h"

#include <QJsonDocument>
#include <QSysInfo>

#ifndef LOFTHAVEN_VERSION
#define LOFTHAVEN_VERSION "1.0.0"
#endif

namespace lofthaven {

namespace {

QList<qint64> versionPieces(const QString &version)
{
    QList<qint64> pieces;
    for (const QString &piece : version.split(QLatin1Char('.'), Qt::SkipEmptyParts)) {
        bool ok = false;
        const qint64 number = piece.toLongLong(&ok);
        pieces.append(ok ? number : 0);
    }
    return pieces;
}

bool isWebLink(const QString &text)
{
    const QUrl url(text, QUrl::StrictMode);
    return url.isValid() && (url.scheme() == u"https" || url.scheme() == u"http") &&
           !url.host().isEmpty();
}

QString debianArchitecture()
{
    const QString cpu = QSysInfo::buildCpuArchitecture();
    if (cpu == u"x86_64")
        return QStringLiteral("amd64");
    if (cpu == u"i386")
        return QStringLiteral("i386");
    return cpu; // arm64, riscv64 and others carry the same word in Debian
}

} // namespace

QString UpdateCheck::currentVersion()
{
    const QString version = QStringLiteral(LOFTHAVEN_VERSION);
    return version.isEmpty() ? QStringLiteral("1.0.0") : version;
}

bool UpdateCheck::isNewer(const QString &candidate, const QString &current)
{
    const QList<qint64> a = versionPieces(candidate);
    const QList<qint64> b = versionPieces(current);
    for (qsizetype i = 0; i < std::max(a.size(), b.size()); ++i) {
        const qint64 x = i < a.size() ? a.at(i) : 0;
        const qint64 y = i < b.size() ? b.at(i) : 0;
        if (x != y)
            return x > y;
    }
    return false;
}

QString UpdateCheck::downloadLink(const QJsonObject &manifest, const QString &version,
                                  const QUrl &origin)
{
    for (const char *key : {"linux", "mac"}) {
        const QJsonValue value = manifest.value(QLatin1String(key));
        if (value.isString() && isWebLink(value.toString()))
            return value.toString();
    }
    return origin.toString(QUrl::StripTrailingSlash) + QStringLiteral("/downloads/lofthaven_") +
           version + u'_' + debianArchitecture() + QStringLiteral(".deb");
}

std::optional<UpdateNotice> UpdateCheck::evaluate(int status, const QByteArray &body,
                                                  const QString &current, const QString &dismissed,
                                                  const QUrl &origin)
{
    if (status != 200)
        return std::nullopt;
    UpdateNotice notice;
    QJsonObject manifest;
    try {
        manifest = parseJsonObject(body, UpdateInfo::kRecord);
        notice.info = UpdateInfo::fromJson(manifest);
    } catch (const DecodeError &) {
        return std::nullopt;
    }
    if (!isNewer(notice.info.version, current) || notice.info.version == dismissed)
        return std::nullopt;
    notice.downloadLink = downloadLink(manifest, notice.info.version, origin);
    return notice;
}

QCoro::Task<std::optional<UpdateNotice>> UpdateCheck::run(QString current, QString dismissed,
                                                          std::stop_token stop)
{
    // No token goes with it; a CDN may redirect within https.
    HttpRequest request = APIClient().makeRequest(QStringLiteral("/downloads/desktop.json"));
    request.followRedirects = true;
    request.totalTimeout = kTimeout;
    request.connectTimeout = kTimeout;
    request.idleTimeout = kTimeout;
    const QUrl origin = ServiceOrigin::url();
    try {
        auto fetching = HttpTransport::instance().send(std::move(request), stop);
        const HttpResponse response = co_await fetching;
        co_return evaluate(response.status, response.body, current, dismissed, origin);
    } catch (const Cancelled &) {
        throw;
    } catch (...) {
        co_return std::nullopt;
    }
}

} // namespace lofthaven
