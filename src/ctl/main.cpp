// vantorctl: Vantor from the command line, with no display needed.
#include "ctl/VantorCtl.h"

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QList<QByteArray> arguments;
    for (int i = 1; i < argc; ++i)
        arguments.append(QByteArray(argv[i]));
    return VantorCtl().run(arguments);
}
