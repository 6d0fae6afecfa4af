#include "options.h"

#include "report.h"

#include <QtCore/QProcess>
#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

std::variant<Options, QString> read(const QString &arguments, int width = 80)
{
    const QStringList words = arguments.split(' ', Qt::SkipEmptyParts);
    return readCommandLine(QStringList{"vpnctl"} + words, width);
}

/// @return what a program in the sources' folder prints, sorted, each line once.
QStringList linesOf(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setWorkingDirectory(QStringLiteral(TALVEX_SOURCES));
    process.start(program, arguments);
    process.waitForFinished();
    QStringList lines =
        QString::fromUtf8(process.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
    lines.removeDuplicates();
    lines.sort();
    return lines;
}

} // namespace

/// What the command line means, what is offered for it, and what the program knows by heart.
class VpnctlOptions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void whatCannotWorkIsSaidAtOnce_data()
    {
        QTest::addColumn<QString>("start");
        const auto row = [](const QString &arguments, const QString &start) {
            QTest::newRow(qPrintable(arguments)) << start;
        };
        for (const char *arguments : {"--help", "-h", "help", "help --json"})
            row(arguments, "Drive the VPN daemon");
        for (const char *arguments : {"connect --help", "help connect", "connect a --udp -h"})
            row(arguments, "Bring a tunnel up");
        for (const char *arguments : {"-v", "-V", "--version"})
            row(arguments, "vpnctl ");
        row("", "The command is missing.");
        row("--json", "The command is missing.");
        row("dance", "There is no command \"dance\".");
        row("ping --loud", "The following argument was not expected: --loud.");
        row("connect a b", "The following argument was not expected: b.");
        row("disconnect", "--endpoint is required.");
        row("raw", "TEXT is required.");
        row("raw {} --timeout x", "--timeout: Value x not in range 1 to 3600.");
        row("connect", "Nothing says where to connect to.");
        row("connect a --server b", "There is more than one place to connect to.");
        row("connect --server b --host a --ca c --cert d --key e",
            "There is more than one place to connect to.");
        row("connect a --udp --tcp", "--udp excludes --tcp.");
        row("connect a --port 1", "--port requires --host.");
        row("connect --host a --cert b --key c", "--host requires --ca.");
        row("connect --host a --port 65536", "--port: Value 65536 not in range 1 to 65535.");
        row("connect --host a --port 0", "--port: Value 0 not in range 1 to 65535.");
    }

    void whatCannotWorkIsSaidAtOnce()
    {
        QFETCH(QString, start);
        QString said;
        try {
            said = std::get<QString>(read(QString::fromLatin1(QTest::currentDataTag())));
        } catch (const Problem &problem) {
            said = problem.text;
            QVERIFY(problem.exitCode == ExitCode::WrongUse);
        }
        QVERIFY2(said.startsWith(start), qPrintable(said));
    }

    void helpIsAsWideAsTheTerminal()
    {
        const QString wide = std::get<QString>(read("connect --help", 0));
        const QString narrow = std::get<QString>(read("connect --help", 50));
        QCOMPARE(narrow.simplified(), wide.simplified());
        for (const QString &line : narrow.section("Examples", 0, 0).split('\n'))
            QVERIFY2(line.size() <= 50, qPrintable(line));
        QCOMPARE(wrapped("a bc defgh i", 4), "a bc\ndefgh\ni");
    }

    void bashOffersWhatFits_data()
    {
        QTest::addColumn<QString>("offers");
        const auto row = [](const char *words, const char *offers) {
            QTest::newRow(words) << QString::fromLatin1(offers);
        };
        row("", "--help --json --version connect disconnect ping raw report status watch");
        row("conn", "connect");
        row("--json conn", "connect");
        row("ping ", "--help --json");
        row("connect --de", "--detach");
        row("raw x --e", "--endpoint");
        row("raw --timeout ", "");
        row("connect docs/packages.", "docs/packages.txt");
        row("connect --json --ca docs/packages.", "docs/packages.txt");
    }

    void bashOffersWhatFits()
    {
        QFETCH(QString, offers);
        const QStringList words = QString::fromLatin1(QTest::currentDataTag()).split(' ');
        const QStringList lines =
            linesOf("/bin/bash",
                    QStringList{"--norc", "-c",
                                "source tools/vpnctl/completion/vpnctl.bash; "
                                "COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _vpnctl; "
                                "printf '%s\\n' \"${COMPREPLY[@]}\"",
                                "bash", QStringLiteral(TALVEX_VPNCTL)}
                        + words);
        QCOMPARE(lines.join(' '), offers);
    }

    void everyKeyInTheDaemonsSourcesIsExplained()
    {
        // The platform's services have a key of their own, which no client of the daemon sees.
        const QStringList keys =
            linesOf("/bin/sh",
                    {"-c",
                     "grep -rhoE '\"(label|warning)\\.[a-z0-9_]+\"' --include=*.cpp "
                     "--exclude=macplatform_services.cpp commands daemon ipc "
                     "privileges vpncore | tr -d '\"'"});
        QCOMPARE(explanations().keys(), keys);
        for (const auto &[text, advice] : explanations())
            QVERIFY2(text.endsWith('.') && advice.endsWith('.'), qPrintable(text));
        QCOMPARE(keys.size(), 6);
    }
};

QTEST_GUILESS_MAIN(VpnctlOptions)
#include "tst_options.moc"
