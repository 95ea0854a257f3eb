#pragma once

#include <QException>

namespace lofthaven {

// The user (or an owner) cancelled the operation. Never retried, never shown as a failure.
class Cancelled : public QException
{
public:
    const char *what() const noexcept override { return "cancelled"; }
    void raise() const override { throw *this; }
    Cancelled *clone() const override { return new Cancelled(*this); }
};

} // namespace lofthaven
