#include "explain.h"

#include <QtCore/QProcess>
#include <QtTest/QtTest>

using namespace vpnctl;

/// What people are told in place of the daemon's localisation keys.
class VpnctlExplain : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyKeyInTheDaemonsSourcesIsExplained()
    {
        QProcess grep;
        grep.setWorkingDirectory(QStringLiteral(TALVEX_SOURCES));
        grep.start(QStringLiteral("grep"),
                   {QStringLiteral("-rhoE"), QStringLiteral(R"("(label|warning)\.[a-z0-9_]+")"),
                    QStringLiteral("commands"), QStringLiteral("daemon"), QStringLiteral("ipc"),
                    QStringLiteral("privileges"), QStringLiteral("vpncore")});
        QVERIFY(grep.waitForFinished());
        QStringList keys = QString::fromUtf8(grep.readAllStandardOutput())
                               .remove(QLatin1Char('"'))
                               .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        keys.removeDuplicates();
        keys.sort();
        QCOMPARE(
            keys,
            (QStringList{QStringLiteral("label.can_not_create_config_for_open_vpn"),
                         QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted"),
                         QStringLiteral("warning.l2tp_connection_fail"),
                         QStringLiteral("warning.open_vpn_connection_time_out"),
                         QStringLiteral("warning.open_vpn_does_not_exists_try_another_protocol"),
                         QStringLiteral("warning.open_vpn_running_fails_check_apps"),
                         QStringLiteral("warning.open_vpn_server_does_not_respond")}));
        for (const QString &key : qAsConst(keys)) {
            const Explanation explanation = explain(key);
            QVERIFY2(explanation.text.endsWith(QLatin1Char('.')), qPrintable(key));
            QVERIFY2(explanation.advice.endsWith(QLatin1Char('.')), qPrintable(key));
            QVERIFY2(!explanation.text.contains(key), qPrintable(key));
        }
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
