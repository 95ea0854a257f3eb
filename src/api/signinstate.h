#pragma once

#include <QString>
#include <QUrl>

namespace lofthaven {

// Progress of one device sign-in, shown by the sign-in sheet and the command line. Absent
// (an empty optional where it is held) when no sign-in is under way.
struct SignInState
{
    enum class Phase
    {
        Starting, // asking the service for a code
        Waiting,  // the user approves `userCode` at `url`
        Failed,   // `message` says why
    };

    Phase phase = Phase::Starting;
    QString userCode;
    QUrl url;
    QString message;

    bool operator==(const SignInState &) const = default;
};

} // namespace lofthaven
