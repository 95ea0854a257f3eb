#pragma once

#include <QException>
#include <QString>

namespace lofthaven {

// A local problem that must reach the user as a complete sentence ("Nothing to send
// (empty folder?)."). Derives from QException so it crosses QtConcurrent::run intact.
class AppError : public QException
{
public:
    explicit AppError(QString message);

    QString message() const { return m_message; }
    const char *what() const noexcept override { return m_utf8.constData(); }
    void raise() const override { throw *this; }
    AppError *clone() const override { return new AppError(*this); }

private:
    QString m_message;
    QByteArray m_utf8;
};

} // namespace lofthaven
