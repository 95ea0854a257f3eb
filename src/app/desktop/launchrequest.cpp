#include "app/desktop/launchrequest.h"

#include <QFileInfo>
#include <QUrl>

namespace lofthaven {

namespace {

const QString kBackground = QStringLiteral("--background");
const QString kShow = QStringLiteral("--show");
const QString kSendFiles = QStringLiteral("--send-files");
const QString kReceive = QStringLiteral("--receive");
const QString kGetLink = QStringLiteral("--get-link");
const QString kSendToDevices = QStringLiteral("--send-to-devices");
const QString kOrigin = QStringLiteral("--origin");
// Only ever written by a second start for the running instance.
const QString kLaunchFeedback = QStringLiteral("--launch-feedback=");

QString absolutePath(const QString &given, const QDir &workingDirectory)
{
    const QUrl url(given);
    const QString path = url.isLocalFile() ? url.toLocalFile() : given;
    return QDir::cleanPath(workingDirectory.absoluteFilePath(path));
}

// A link keeps its text; anything else is a path. An existing file wins over a name that
// merely looks like a URL ("notes:2024.txt").
QString openItem(const QString &given, const QDir &workingDirectory)
{
    const QUrl url(given);
    const bool link = url.isValid() && url.scheme().size() > 1 && !url.isLocalFile();
    if (link && !QFileInfo::exists(workingDirectory.absoluteFilePath(given)))
        return given;
    return absolutePath(given, workingDirectory);
}

} // namespace

bool LaunchRequest::isWindowOption(const QString &argument)
{
    return argument == kBackground || argument == kShow || argument == kSendFiles ||
           argument == kReceive || argument == kGetLink || argument == kSendToDevices;
}

LaunchRequest LaunchRequest::parse(const QStringList &arguments, const QDir &workingDirectory)
{
    LaunchRequest request;
    bool collectingFiles = false;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        if (argument == kOrigin) {
            ++i; // each process reads its own origin
            continue;
        }
        if (argument.startsWith(QString(kOrigin + u'=')))
            continue;
        if (argument.startsWith(kLaunchFeedback)) {
            request.m_launchFeedback = argument.mid(kLaunchFeedback.size());
            continue;
        }
        if (argument == kGetLink || argument == kSendToDevices) {
            request.m_services.append(ServiceSend{argument == kSendToDevices, {}});
            collectingFiles = true;
            continue;
        }
        if (isWindowOption(argument)) {
            collectingFiles = false;
            if (argument == kBackground)
                request.m_background = true;
            else if (argument == kShow)
                request.m_show = true;
            else if (argument == kSendFiles)
                request.m_tab = Tab::SendFiles;
            else if (argument == kReceive)
                request.m_tab = Tab::Receive;
            continue;
        }
        if (argument.isEmpty())
            continue;
        if (collectingFiles)
            request.m_services.last().files.append(absolutePath(argument, workingDirectory));
        else if (!argument.startsWith(u'-'))
            request.m_open.append(openItem(argument, workingDirectory));
    }
    return request;
}

QStringList LaunchRequest::toArguments() const
{
    QStringList arguments;
    if (!m_launchFeedback.isEmpty())
        arguments << kLaunchFeedback + m_launchFeedback;
    if (m_background)
        arguments << kBackground;
    if (m_show)
        arguments << kShow;
    if (m_tab == Tab::SendFiles)
        arguments << kSendFiles;
    else if (m_tab == Tab::Receive)
        arguments << kReceive;
    // Items come before the first file list, which takes every argument after it.
    arguments << m_open;
    for (const ServiceSend &send : m_services)
        arguments << (send.toDevices ? kSendToDevices : kGetLink) << send.files;
    return arguments;
}

bool LaunchRequest::showsWindow() const
{
    if (m_show || m_tab != Tab::None || !m_open.isEmpty())
        return true;
    return !m_background && m_services.isEmpty();
}

} // namespace lofthaven
