#include "macplatform.h"

#include <QtCore/QDebug>
#include <QtCore/QUrl>
#include <QtGui/QDesktopServices>

namespace vpncore {

void MacPlatform::openMacOSStoreOnAppPage()
{
    const QUrl page(QStringLiteral("macappstore://apps.apple.com/app/id" TALVEX_MAC_APP_STORE_ID));
    const bool opened = QDesktopServices::openUrl(page);
    qDebug() << "Open MacOS Store:" << (opened ? "true" : "false");
}

} // namespace vpncore
