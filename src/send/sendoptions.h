#pragma once

#include <QString>

namespace lofthaven {

// What the user chose for one send. The engine does not interpret it; the uploader hands it
// to the service when the transfer is created.
struct SendOptions
{
    qint64 expiresIn = 0; // seconds
    qint64 maxDownloads = 0;
    QString password;
    QString title;
    QString message;
    bool toSelf = false;

    friend bool operator==(const SendOptions &, const SendOptions &) = default;
};

} // namespace lofthaven
