#pragma once

#include <QDir>
#include <QList>
#include <QStringList>

namespace lofthaven {

// What one start of `lofthaven` asks of the window process: files and links to open, files to
// send from the file manager, and whether the window shows. Parsed once in the process that
// was started, then handed as canonical arguments to the running instance, so every path in it
// is already absolute.
//
// Window options: --background, --show, --send-files, --receive, --get-link FILE...,
// --send-to-devices FILE... (each takes every argument after it up to the next window option).
// Other arguments are files or folders (plain or file: URLs) and links such as lofthaven://...
class LaunchRequest
{
public:
    struct ServiceSend
    {
        bool toDevices = false;
        QStringList files; // absolute
    };

    enum class Tab
    {
        None,
        SendFiles, // the send tab with the file chooser
        Receive,
    };

    // `arguments` without the program name; relative paths are taken from `workingDirectory`.
    static LaunchRequest parse(const QStringList &arguments, const QDir &workingDirectory);
    // Whether `argument` is one of the options above (so it belongs to the window process).
    static bool isWindowOption(const QString &argument);

    // Canonical arguments; parse() of them gives the same request.
    QStringList toArguments() const;

    bool background() const { return m_background; }
    bool show() const { return m_show; }
    Tab tab() const { return m_tab; }
    // Absolute paths and non-file URLs, in the order given.
    const QStringList &openItems() const { return m_open; }
    const QList<ServiceSend> &serviceSends() const { return m_services; }
    // A request without anything to open or send (a plain `lofthaven`) shows the window too.
    bool showsWindow() const;

    // What the launcher gave the process it started (see LaunchFeedback), handed on with the
    // request so that the running instance can finish the launch.
    const QString &launchFeedback() const { return m_launchFeedback; }
    void setLaunchFeedback(const QString &token) { m_launchFeedback = token; }

private:
    bool m_background = false;
    bool m_show = false;
    Tab m_tab = Tab::None;
    QStringList m_open;
    QList<ServiceSend> m_services;
    QString m_launchFeedback;
};

} // namespace lofthaven
