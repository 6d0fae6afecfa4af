/// What the platform layer does for a client on macOS: questions that anybody may ask, what acts on
/// the user's own session, and what macOS asks an administrator's password for.
///
///     platform_layer status
///     platform_layer login-item on|off
///     platform_layer kill-switch on|off                    (as root)
///     platform_layer l2tp SERVER USER PASSWORD SECRET      (as root, with ./macosvpn)
///     platform_layer hang-up                               (as root)
///     platform_layer administrator COMMAND                 (in a shell)
///     platform_layer install            (runs vpninstallhelper of the bundle's Resources)

#include "macplatform.h"
#include "popoverwindow.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QTextStream>

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList words = application.arguments().mid(1);
    const QString operation = words.value(0);
    const bool on = words.value(1) == QLatin1String("on");
    const bool isSwitch = words.size() == 2 && (on || words[1] == QLatin1String("off"));

    // A client holds the interface, so that another system is another class.
    vpncore::MacPlatform mac;
    vpncore::IPlatform &platform = mac;
    const auto report = [](const OperationResult &result) {
        QTextStream(stdout) << (result.success ? QStringLiteral("done") : result.message) << '\n';
        return result.success ? 0 : 1;
    };

    if (operation == QLatin1String("status")) {
        const std::pair<const char *, bool> answers[] = {
            {"installed", mac.isDemonPlistExist()},
            {"running", mac.isDemonLoad()},
            {"starts with the session", platform.isRunOnStart()},
            {"speaks L2TP", platform.l2tpSupports()},
            {"speaks PPTP", platform.pptpSupports()},
        };
        for (const auto &[question, isSo] : answers)
            QTextStream(stdout) << question << (isSo ? ": yes\n" : ": no\n");
        return 0;
    }
    if (operation == QLatin1String("login-item") && isSwitch) {
        platform.setRunOnStart(on);
        return platform.isRunOnStart() == on ? 0 : 1;
    }
    if (operation == QLatin1String("kill-switch") && isSwitch) {
        bool isDone = false;
        return report(on ? platform.turnOffInternet() : platform.turnOnInternet(isDone));
    }
    if (operation == QLatin1String("l2tp") && words.size() == 5)
        return report(platform.connectL2tp(words[1], words[2], words[3], words[4]));
    if (operation == QLatin1String("hang-up"))
        return report(platform.disconnect());

    // Quotes and backslashes in a command are the caller's to escape: see popoverwindow.h.
    if (operation == QLatin1String("administrator") && words.size() == 2)
        return PopoverWindow().runAppScript(words[1], {}) ? 0 : 1;
    if (operation == QLatin1String("install"))
        return vpncore::MacPlatform::runAsAdmin({}) ? 0 : 1;

    QTextStream(stderr) << "usage: see the head of platform_layer.cpp\n";
    return 2;
}
