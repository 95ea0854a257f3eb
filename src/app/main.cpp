#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QTextStream(stderr) << "The desktop screens are not built yet; use --selftest-offline.\n";
    return 1;
}
