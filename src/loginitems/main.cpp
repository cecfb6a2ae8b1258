// vantor-login-items: run once at session start; opens the user's login items and exits.
// The started applications live on in sessions of their own.

#include "loginitems/LoginItemsAgent.h"

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vantor-login-items"));
    LoginItemsAgent().openAll();
    return 0;
}
