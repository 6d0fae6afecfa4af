#include "splitcommand.h"

#include <QtTest/QtTest>

using vpncore::SplitCommand;

/// Command lines without a shell.
class SplitCommandTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void textIsSplitByQtsRules_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("words");
        const auto row = [](const char *name, const char *text, const char *words) {
            QTest::newRow(name) << QString::fromLatin1(text) << QString::fromLatin1(words);
        };
        row("words", "p a b", "<p><a><b>");
        row("several blanks", "  p   a ", "<p><a>");
        row("double quotes", R"("a program" "a  b" c"d e"f)", "<a program><a  b><cd ef>");
        row("three double quotes", R"(p """a""")", "<p><\"a\">");
        row("empty argument", R"(p a "" b)", "<p><a><b>");
        row("single quotes and backslashes", R"(p 'a b' c\d)", R"(<p><'a><b'><c\d>)");
        row("a shell's characters", "p a | b > /c; $d `e` *", "<p><a><|><b><>></c;><$d><`e`><*>");
        row("nothing", "  ", "<>");
    }

    void textIsSplitByQtsRules()
    {
        QFETCH(QString, text);
        QFETCH(QString, words);
        const SplitCommand command(text);
        QString split = QLatin1Char('<') + command.program;
        for (const QString &argument : command.arguments)
            split += QStringLiteral("><") + argument;
        QCOMPARE(split + QLatin1Char('>'), words);
    }

    void executionBlocksUntilTheEnd()
    {
        const QTemporaryDir folder;
        const QString made = folder.filePath(QStringLiteral("made"));
        vpncore::executeCommand(
            QStringLiteral("/bin/sh -c \"sleep 0.1; echo >'%1'; exit 3\"").arg(made));
        QVERIFY(QFile::exists(made));
    }

    void executionOfAMissingProgramReturns()
    {
        vpncore::executeCommand(QStringLiteral("/no/such/program"));
        vpncore::executeCommand(QString());
    }
};

QTEST_GUILESS_MAIN(SplitCommandTest)
#include "tst_splitcommand.moc"
