#pragma once

#include <QString>

namespace lofthaven {

// The word that names the platform in texts the user or the service sees ("Linux" here).
QString platformWord();

// This computer's name as the user gave it: the pretty host name of /etc/machine-info (what
// the desktop's settings show), else the host name.
QString computerName();

// "Lofthaven for Linux (" + the computer's name + ")", cut to its first 60 characters.
QString deviceNameFor(const QString &computer);

// deviceNameFor(computerName()), computed once per process: the name the service lists this
// computer under. Threads: any.
QString deviceName();

} // namespace lofthaven
