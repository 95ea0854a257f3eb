#include "platform/bytecount.h"

#include <cmath>

namespace lofthaven {

QString formatByteCount(qint64 bytes, QLocale locale)
{
    if (locale.language() == QLocale::C)
        locale = QLocale(QLocale::English, QLocale::UnitedStates);
    if (bytes == 0)
        return QStringLiteral("Zero KB");
    if (bytes == 1 || bytes == -1)
        return locale.toString(bytes) + QStringLiteral(" byte");
    const double magnitude = std::abs(double(bytes));
    if (magnitude < 1024)
        return locale.toString(bytes) + QStringLiteral(" bytes");

    static const char *const units[] = {"KB", "MB", "GB", "TB", "PB", "EB"};
    constexpr int lastUnit = 5;
    const auto decimalsFor = [](int unit) { return unit == 0 ? 0 : (unit == 1 ? 1 : 2); };

    double value = magnitude;
    int unit = -1;
    while (value >= 1024 && unit < lastUnit) {
        value /= 1024;
        ++unit;
    }
    int decimals = decimalsFor(unit);
    double scale = std::pow(10.0, decimals);
    double rounded = std::round(value * scale) / scale;
    // 1,048,575 bytes rounds to 1024 KB: show it in the next unit instead.
    if (rounded >= 1024 && unit < lastUnit) {
        ++unit;
        decimals = decimalsFor(unit);
        scale = std::pow(10.0, decimals);
        rounded = std::round(rounded / 1024 * scale) / scale;
    }
    QString text = locale.toString(bytes < 0 ? -rounded : rounded, 'f', decimals);
    if (decimals > 0) {
        const QString point = locale.decimalPoint();
        while (text.endsWith(u'0'))
            text.chop(1);
        if (text.endsWith(point))
            text.chop(point.size());
    }
    return text + u' ' + QLatin1String(units[unit]);
}

} // namespace lofthaven
