// Calls an operation that depends on where its executable lies: the test copies this program there.

#include "macplatform.h"

#include <QtCore/QCoreApplication>

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    vpncore::MacPlatform().setRunOnStart(true);
    return 0;
}
