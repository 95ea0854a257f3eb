#include "localservice.h"

#include "platform/waitfortask.h"

#include "api/httptransport.h"

#include <QCoroTask>
#include <QDeadlineTimer>
#include <QJsonDocument>
#include <QUrl>

namespace lofthaven::testing {

LocalService::LocalService()
    : LocalService(Options{})
{}

LocalService::LocalService(Options options)
    : m_options(std::move(options))
{}

LocalService::~LocalService()
{
    stop();
}

bool LocalService::start()
{
    m_process = std::make_unique<QProcess>();
    m_process->setProgram(QStringLiteral(LOFTHAVEN_BIN_DIR "/lofthaven-service"));
    QStringList arguments{QStringLiteral("--listen"),
                          m_listen,
                          QStringLiteral("--data"),
                          m_data.path(),
                          QStringLiteral("--test-hooks"),
                          QStringLiteral("--min-part-size"),
                          QString::number(m_options.minPartSize)};
    m_process->setArguments(arguments + m_options.extraArguments);
    m_process->setProcessChannelMode(QProcess::SeparateChannels);
    m_process->setStandardErrorFile(m_data.path() + QStringLiteral("/service.log"),
                                    QIODevice::Append);
    m_process->start();
    if (!m_process->waitForStarted(5000)) {
        m_error = m_process->errorString();
        return false;
    }
    QDeadlineTimer deadline(10000);
    QByteArray output;
    while (!output.contains('\n') && !deadline.hasExpired()) {
        if (!m_process->waitForReadyRead(int(deadline.remainingTime())))
            break;
        output += m_process->readAllStandardOutput();
    }
    const int at = output.indexOf("http");
    if (at < 0) {
        m_error = QStringLiteral("no ready line: ") + QString::fromUtf8(output);
        return false;
    }
    m_origin = QString::fromUtf8(output.mid(at, output.indexOf('\n', at) - at)).trimmed();
    // Restarts keep the port so that a client riding through the outage finds it again.
    m_listen = QUrl(m_origin).host() + QLatin1Char(':') + QString::number(QUrl(m_origin).port());
    return true;
}

void LocalService::stop()
{
    if (!m_process)
        return;
    m_process->terminate();
    if (!m_process->waitForFinished(5000))
        m_process->kill();
    m_process->waitForFinished(2000);
    m_process.reset();
}

void LocalService::kill()
{
    if (!m_process)
        return;
    m_process->kill();
    m_process->waitForFinished(5000);
    m_process.reset();
}

bool LocalService::restart()
{
    stop();
    return start();
}

QJsonObject LocalService::control(const QByteArray &method, const QString &path,
                                  const QJsonObject &body)
{
    HttpRequest request;
    request.method = method;
    request.url = QUrl(m_origin + path);
    if (!body.isEmpty()) {
        request.body = QJsonDocument(body).toJson(QJsonDocument::Compact);
        request.headers.append({QByteArray("Content-Type"), QByteArray("application/json")});
    }
    const HttpResponse response = waitForTask(HttpTransport::instance().send(std::move(request)));
    const QJsonDocument document = QJsonDocument::fromJson(response.body);
    if (document.isArray())
        return QJsonObject{{QStringLiteral("items"), document.array()}};
    return document.object();
}

bool LocalService::addFault(const QJsonObject &rule)
{
    return !control("POST", QStringLiteral("/__test/faults"), rule)
                .contains(QStringLiteral("error"));
}

void LocalService::clearFaults()
{
    control("DELETE", QStringLiteral("/__test/faults"));
}

QJsonArray LocalService::log()
{
    const QJsonObject answer = control("GET", QStringLiteral("/__test/log"));
    for (const QString &key : {QStringLiteral("items"), QStringLiteral("entries"),
                               QStringLiteral("log"), QStringLiteral("requests")})
        if (answer.value(key).isArray())
            return answer.value(key).toArray();
    return {};
}

QJsonArray LocalService::requests(const QString &method, const QString &pathPart)
{
    QJsonArray matching;
    for (const QJsonValue &entry : log()) {
        const QJsonObject request = entry.toObject();
        if ((method.isEmpty() || request.value(QStringLiteral("method")).toString() == method) &&
            request.value(QStringLiteral("path")).toString().contains(pathPart))
            matching.append(request);
    }
    return matching;
}

void LocalService::clearLog()
{
    control("DELETE", QStringLiteral("/__test/log"));
}

} // namespace lofthaven::testing
