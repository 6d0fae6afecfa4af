#include "logcapture.h"
#include "macplatform.h"

#include <QtCore/QUrl>
#include <QtGui/QDesktopServices>
#include <QtTest/QtTest>

/// The store page. A handler of this test takes the place of the App Store.
class MacPlatformStore : public QObject
{
    Q_OBJECT

public Q_SLOTS:
    void open(const QUrl &url) { m_opened.append(url); }

private:
    QList<QUrl> m_opened;

private Q_SLOTS:
    void thePageIsTheApplicationsInTheStore()
    {
        const LogCapture log;
        QDesktopServices::setUrlHandler("macappstore", this, "open");
        vpncore::MacPlatform::openMacOSStoreOnAppPage();
        QCOMPARE(m_opened,
                 QList<QUrl>{QUrl("macappstore://apps.apple.com/app/id" TALVEX_MAC_APP_STORE_ID)});
        // Without a handler, and without a desktop in this program, nothing opens the page.
        QDesktopServices::unsetUrlHandler("macappstore");
        vpncore::MacPlatform::openMacOSStoreOnAppPage();
        QCOMPARE(m_opened.size(), 1);
        QCOMPARE(log.lines(QtDebugMsg),
                 (QStringList{"Open MacOS Store: true", "Open MacOS Store: false"}));
    }
};

QTEST_GUILESS_MAIN(MacPlatformStore)
#include "tst_macplatform_store.moc"
