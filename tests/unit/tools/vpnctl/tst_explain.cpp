#include "explain.h"

#include <QtCore/QDirIterator>
#include <QtCore/QRegularExpression>
#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

/// @return what looks like a localisation key in the daemon's sources.
QStringList keysInSources()
{
    static const QRegularExpression key(QStringLiteral("\"((?:label|warning)\\.[a-z0-9_]+)\""));
    QStringList keys;
    for (const char *folder : {"commands", "daemon", "ipc", "privileges", "vpncore"}) {
        QDirIterator files(QStringLiteral(TALVEX_SOURCES "/") + QString::fromLatin1(folder),
                           {QStringLiteral("*.cpp"), QStringLiteral("*.mm"), QStringLiteral("*.h")},
                           QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            QFile file(files.next());
            if (!file.open(QIODevice::ReadOnly))
                qFatal("cannot read %s", qPrintable(file.fileName()));
            QRegularExpressionMatchIterator matches =
                key.globalMatch(QString::fromUtf8(file.readAll()));
            while (matches.hasNext())
                keys.append(matches.next().captured(1));
        }
    }
    keys.removeDuplicates();
    return keys;
}

} // namespace

/// What people are told in place of the daemon's localisation keys.
class VpnctlExplain : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyKeyInTheDaemonsSourcesIsExplained()
    {
        const QStringList keys = keysInSources();
        QVERIFY2(keys.contains(QStringLiteral("warning.open_vpn_connection_time_out")),
                 "the search finds not even a key that is known to be there");
        for (const QString &key : keys)
            QVERIFY2(explainedKeys().contains(key), qPrintable(key));
    }

    void everyKeyOfTheProtocolIsExplained_data()
    {
        QTest::addColumn<QString>("key");
        for (const char *key :
             {"label.can_not_create_config_for_open_vpn",
              "warning.open_vpn_running_fails_check_apps",
              "warning.open_vpn_does_not_exists_try_another_protocol",
              "warning.open_vpn_connection_time_out", "warning.open_vpn_server_does_not_respond",
              "warning.can_not_open_vpn_check_is_admin_granted", "warning.l2tp_connection_fail"}) {
            QTest::newRow(key) << QString::fromLatin1(key);
        }
    }

    void everyKeyOfTheProtocolIsExplained()
    {
        QFETCH(QString, key);
        const Explanation explanation = explain(key);
        QVERIFY(explanation.text.endsWith(QLatin1Char('.')));
        QVERIFY(!explanation.text.contains(key));
        QVERIFY(explanation.advice.endsWith(QLatin1Char('.')));
    }

    void otherMessageIsShownAsItIs()
    {
        const Explanation explanation = explain(QStringLiteral("warning.something_new"));
        QCOMPARE(explanation.text, QStringLiteral("warning.something_new"));
        QCOMPARE(explanation.advice, QString());
    }
};

QTEST_GUILESS_MAIN(VpnctlExplain)
#include "tst_explain.moc"
