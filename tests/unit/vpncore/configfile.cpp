#include "logcapture.h"
#include "standins.h"
#include "ovpnconnection.h"

#include <QtTest/QtTest>

using vpncore::OvpnConnection;

namespace {

const QString kConfigText = QStringLiteral("remote prints-at-once-success 1\n");

bool create(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly);
}

} // namespace

/// What becomes of the file that a configuration is handed to `openvpn` in.
class ConfigFile : public QObject
{
    Q_OBJECT

private:
    /// Makes a request that remembers its configuration file, and notes the file's name.
    bool makeRequest()
    {
        if (!m_connection->forceConnect(kConfigText, QStringLiteral("UDP")).success)
            return false;
        m_path = standins::openvpnStarts().last().arguments.value(2);
        return !m_path.isEmpty();
    }

    QScopedPointer<OvpnConnection> m_connection;
    QString m_path;

private Q_SLOTS:
    void init() { m_connection.reset(new OvpnConnection); }
    void cleanup() { m_connection.reset(); }

    void attemptRemovesItsFileByItself()
    {
        QVERIFY(makeRequest());
        QVERIFY(!QFile::exists(m_path));
    }

    void fileThatIsBackIsDeleted()
    {
        QVERIFY(makeRequest());
        QVERIFY(create(m_path));
        m_connection->deleteConfigFile();
        QVERIFY(!QFile::exists(m_path));
    }

    void secondCallDeletesNothing()
    {
        QVERIFY(makeRequest());
        m_connection->deleteConfigFile();
        QVERIFY(create(m_path));
        m_connection->deleteConfigFile();
        QVERIFY(QFile::exists(m_path));
    }

    void nameIsForgottenEvenIfNothingCouldBeDeleted()
    {
        QVERIFY(makeRequest());
        QVERIFY(QDir().mkdir(m_path));
        m_connection->deleteConfigFile();
        QVERIFY(QFileInfo(m_path).isDir());
        QVERIFY(QDir().rmdir(m_path));
        QVERIFY(create(m_path));
        m_connection->deleteConfigFile();
        QVERIFY(QFile::exists(m_path));
    }

    void connectionWithoutAnAttemptTouchesNoFile()
    {
        // Qt logs the attempt to remove a file without a name.
        const LogCapture log;
        m_connection->deleteConfigFile();
        QCOMPARE(log.lines(), QStringList());
    }

    void disconnectDeletesTheFileToo()
    {
        QVERIFY(makeRequest());
        QVERIFY(create(m_path));
        QVERIFY(m_connection->disconnect().success);
        QVERIFY(!QFile::exists(m_path));
    }

    void eachAttemptHasAFileOfItsOwn()
    {
        QVERIFY(makeRequest());
        const QString first = m_path;
        QVERIFY(create(first));
        QVERIFY(makeRequest());
        QVERIFY(m_path != first);
    }
};

QTEST_GUILESS_MAIN(ConfigFile)
#include "configfile.moc"
