#include "logcapture.h"
#include "macplatform.h"

#include <QtCore/QUrl>
#include <QtGui/QDesktopServices>
#include <QtTest/QtTest>

using vpncore::MacPlatform;

/// The store page. A handler of this test takes the place of the App Store.
class MacPlatformStore : public QObject
{
    Q_OBJECT

public Q_SLOTS:
    void open(const QUrl &url) { m_opened.append(url); }

private:
    static QString scheme() { return QStringLiteral("macappstore"); }

    QVector<QUrl> m_opened;

private Q_SLOTS:
    void init()
    {
        m_opened.clear();
        QDesktopServices::setUrlHandler(scheme(), this, "open");
    }

    void cleanup() { QDesktopServices::unsetUrlHandler(scheme()); }

    void thePageIsTheApplicationsInTheStore()
    {
        MacPlatform::openMacOSStoreOnAppPage();
        QCOMPARE(m_opened.size(), 1);
        QVERIFY(m_opened[0].isValid());
        QCOMPARE(m_opened[0].scheme(), QStringLiteral("macappstore"));
        QCOMPARE(m_opened[0].host(), QStringLiteral("apps.apple.com"));
        QCOMPARE(m_opened[0].path(), QStringLiteral("/app/id" TALVEX_MAC_APP_STORE_ID));
        QVERIFY(!m_opened[0].hasQuery());
    }

    void successIsLogged()
    {
        LogCapture log;
        MacPlatform::openMacOSStoreOnAppPage();
        QCOMPARE(log.lines(QtDebugMsg), QStringList{QStringLiteral("Open MacOS Store: true")});
    }

    void failureIsLogged()
    {
        // Without a handler, and without a desktop in this program, nothing opens the page.
        QDesktopServices::unsetUrlHandler(scheme());
        LogCapture log;
        MacPlatform::openMacOSStoreOnAppPage();
        QCOMPARE(log.lines(QtDebugMsg), QStringList{QStringLiteral("Open MacOS Store: false")});
        QCOMPARE(m_opened.size(), 0);
    }
};

QTEST_GUILESS_MAIN(MacPlatformStore)
#include "tst_macplatform_store.moc"
