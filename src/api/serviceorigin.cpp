#include "api/serviceorigin.h"

#include "api/apperror.h"
#include "platform/preferences.h"

#include <mutex>

namespace lofthaven {

namespace {

std::mutex s_mutex;
QUrl s_origin; // guarded by s_mutex; empty until configured

bool isLoopback(const QString &host)
{
    return host.compare(u"localhost", Qt::CaseInsensitive) == 0 || host == u"::1" ||
           host.startsWith(u"127.");
}

QString pick(const QStringList &arguments)
{
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        if (argument == u"--origin") {
            if (i + 1 >= arguments.size())
                throw AppError(QStringLiteral("--origin needs a service address, for example "
                                              "--origin https://lofthaven.app."));
            return arguments.at(i + 1);
        }
        if (argument.startsWith(u"--origin="))
            return argument.mid(9);
    }
    const QString environment = qEnvironmentVariable("LOFTHAVEN_ORIGIN");
    if (!environment.isEmpty())
        return environment;
    const QString setting = stringPreference(Preference::ServiceOrigin);
    if (!setting.isEmpty())
        return setting;
    return QString::fromLatin1(ServiceOrigin::kDefault);
}

} // namespace

QUrl ServiceOrigin::validated(const QString &value)
{
    const QString trimmed = value.trimmed();
    const QUrl url(trimmed, QUrl::StrictMode);
    const auto refuse = [&](const QString &why) -> QUrl {
        throw AppError(
            QStringLiteral("The service address \"%1\" can't be used: %2").arg(trimmed, why));
    };
    if (!url.isValid() || url.host().isEmpty())
        return refuse(QStringLiteral("it is not a web address like https://lofthaven.app."));
    const QString scheme = url.scheme().toLower();
    if (scheme != u"https" && !(scheme == u"http" && isLoopback(url.host())))
        return refuse(QStringLiteral("it must start with https:// (http:// is only allowed for "
                                     "this computer)."));
    if (!url.userInfo().isEmpty() || url.hasQuery() || url.hasFragment() ||
        (!url.path().isEmpty() && url.path() != u"/"))
        return refuse(QStringLiteral("give only the scheme, host and port, without a path."));
    QUrl origin;
    origin.setScheme(scheme);
    origin.setHost(url.host());
    origin.setPort(url.port());
    return origin;
}

void ServiceOrigin::configure(const QStringList &arguments)
{
    const QUrl origin = validated(pick(arguments));
    std::lock_guard lock(s_mutex);
    s_origin = origin;
}

void ServiceOrigin::setUrl(const QString &value)
{
    const QUrl origin = validated(value);
    std::lock_guard lock(s_mutex);
    s_origin = origin;
}

QUrl ServiceOrigin::url()
{
    {
        std::lock_guard lock(s_mutex);
        if (!s_origin.isEmpty())
            return s_origin;
    }
    configure({});
    std::lock_guard lock(s_mutex);
    return s_origin;
}

QString ServiceOrigin::host()
{
    return url().host();
}

} // namespace lofthaven
