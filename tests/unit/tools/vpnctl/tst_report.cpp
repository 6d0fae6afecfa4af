#include "report.h"

#include <QtTest/QtTest>

#include <functional>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

using namespace vpnctl;

namespace {

using namespace std::chrono_literals;
using Form = Report::Form;
using Print = std::function<void(Report &)>;

/// Reads what is written to a descriptor of this process until it is asked for it.
class Capture
{
public:
    explicit Capture(int descriptor)
        : m_descriptor(descriptor)
        , m_saved(::dup(descriptor))
    {
        std::fflush(nullptr);
        int ends[2];
        if (::pipe(ends) != 0)
            qFatal("there is no pipe");
        ::dup2(ends[1], descriptor);
        ::close(ends[1]);
        m_reader = std::thread([this, end = ends[0]] {
            char bytes[32'768];
            for (ssize_t size; (size = ::read(end, bytes, sizeof bytes)) > 0;) {
                m_text.append(bytes, static_cast<int>(size));
                std::this_thread::sleep_for(1ms); // so that the pipe is full at times
            }
            ::close(end);
        });
    }

    ~Capture() { text(); }

    QByteArray text()
    {
        if (m_reader.joinable()) {
            ::dup2(m_saved, m_descriptor); // closes the pipe, which ends the reader
            ::close(m_saved);
            m_reader.join();
        }
        return m_text;
    }

private:
    int m_descriptor;
    int m_saved;
    QByteArray m_text;
    std::thread m_reader;
};

QByteArray outputOf(Form form, const Print &print)
{
    Capture capture(STDOUT_FILENO);
    Report report(form);
    print(report);
    return capture.text();
}

OperationResult failure()
{
    return OperationResult::failed(QStringLiteral("warning.open_vpn_connection_time_out"));
}

Target someTarget()
{
    Target target;
    target.server.host = QStringLiteral("a");
    target.server.udpPort = 1194;
    return target;
}

void printEverything(Report &report)
{
    report.note(QStringLiteral("note"));
    report.problem({ExitCode::NoDaemon, QStringLiteral("text"), QStringLiteral("advice")});
    report.weaknesses({{QStringLiteral("auth"), QStringLiteral("text")}});
    report.pong(1ms);
    report.endpoint(1);
    report.connecting(someTarget(), 1, 2);
    report.waiting(QStringLiteral("activity"), 1s, 16s);
    report.answer(QStringLiteral("{}"), failure(), 1s);
    report.holding(1);
    report.detached(1);
    report.watching(1);
    report.disconnecting();
    report.cleaningUp();
    report.takenDown(1);
    report.lapsed(1, 30s);
}

/// @param path below the project's folder.
QString contentOf(const char *path)
{
    QFile file(QStringLiteral(TALVEX_SOURCES "/") + QLatin1String(path));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

/// @return the names of all events, some more than once.
QStringList eventsInSource()
{
    static const QRegularExpression event(
        QStringLiteral("print\\(QStringLiteral\\(\"([A-Za-z]+)\"\\)"));
    QStringList events;
    QRegularExpressionMatchIterator matches =
        event.globalMatch(contentOf("tools/vpnctl/report.cpp"));
    while (matches.hasNext())
        events.append(matches.next().captured(1));
    if (events.isEmpty())
        qFatal("no event was found in report.cpp");
    return events;
}

/// @return what the manual page says of an event of the JSON output.
QString manualEntryOf(const QString &event)
{
    const QString section =
        contentOf("docs/man/vpnctl.1.md").section(QStringLiteral("# JSON OUTPUT"), 1);
    return section.section(QStringLiteral("\n**%1**\n").arg(event), 1)
        .section(QStringLiteral("\n\n"), 0, 0);
}

} // namespace

/// What the program prints.
class VpnctlReport : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyEventHasTheKeysOfTheManualPage()
    {
        QStringList lines =
            QString::fromUtf8(outputOf(Form::Json, printEverything)).split(QLatin1Char('\n'));
        QCOMPARE(lines.takeLast(), QString());
        QStringList events;
        for (const QString &line : qAsConst(lines)) {
            QJsonObject object = QJsonDocument::fromJson(line.toUtf8()).object();
            const QString event = object.take(QStringLiteral("event")).toString();
            events.append(event);
            const QString entry = manualEntryOf(event);
            QVERIFY2(!entry.isEmpty(), qPrintable(line));
            for (const QString &key : object.keys())
                QVERIFY2(entry.contains(QStringLiteral("\"%1\"").arg(key)), qPrintable(line));
        }
        for (const QString &event : eventsInSource())
            QVERIFY2(events.contains(event), qPrintable(event));
    }

    void jsonIsExactlyThis_data()
    {
        QTest::addColumn<Print>("print");
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("problem") << Print([](Report &report) {
            report.problem({ExitCode::WrongUse, QStringLiteral("x"), {}});
        }) << QByteArray("{'advice':'','event':'error','exit':2,'text':'x'}");
        QTest::newRow("success")
            << Print([](Report &report) {
                   report.answer(QStringLiteral("{}"), OperationResult::succeeded(), 1'234ms);
               })
            << QByteArray("{'code':1,'command':'','event':'answer','key':'','message':'{}',"
                          "'seconds':1.2,'success':true}");
        QTest::newRow("failure of somebody else's command")
            << Print([](Report &report) {
                   report.answer(QStringLiteral("{}"),
                                 OperationResult::failed(QStringLiteral("no luck")), std::nullopt);
               })
            << QByteArray("{'advice':'','code':1,'command':'','event':'answer','key':'no luck',"
                          "'message':'{}','success':false,'text':'no luck'}");
        QTest::newRow("waiting") << Print([](Report &report) {
            report.waiting(QStringLiteral("x"), 4'512ms, 16s);
        }) << QByteArray("{'event':'waiting','limit':16,'seconds':4.5,'text':'x'}");
    }

    void jsonIsExactlyThis()
    {
        QFETCH(Print, print);
        QFETCH(QByteArray, line);
        QCOMPARE(outputOf(Form::Json, print).replace('"', '\''), line + '\n');
    }

    void answerIsNamedByItsCommand_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::addColumn<bool>("success");
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("connect") << R"({"cmd":"connect"})" << true
                                 << QByteArray("Connected after 1.2 s.\n");
        QTest::newRow("failed connect") << R"({"cmd":"connect"})" << false
                                        << QByteArray("Not connected after 1.2 s: no luck\n");
        QTest::newRow("disconnect")
            << R"({"cmd":"disconnect"})" << true << QByteArray("Disconnected after 1.2 s.\n");
        QTest::newRow("failed disconnect") << R"({"cmd":"disconnect"})" << false
                                           << QByteArray("Not disconnected after 1.2 s: no luck\n");
        QTest::newRow("another") << R"({"cmd":"status"})" << true
                                 << QByteArray("Answer {\"cmd\":\"status\"} after 1.2 s.\n");
        QTest::newRow("none") << R"({"x":1})" << false
                              << QByteArray("Answer {\"x\":1} after 1.2 s: no luck\n");
        QTest::newRow("no JSON") << "pardon?" << true
                                 << QByteArray("Answer pardon? after 1.2 s.\n");
    }

    void answerIsNamedByItsCommand()
    {
        QFETCH(QString, answer);
        QFETCH(bool, success);
        QFETCH(QByteArray, line);
        const OperationResult result = success ? OperationResult::succeeded()
                                               : OperationResult::failed(QStringLiteral("no luck"));
        QCOMPARE(
            outputOf(Form::Text, [&](Report &report) { report.answer(answer, result, 1'234ms); }),
            line);
    }

    void progressIsAPlainLineWithoutATerminal()
    {
        QCOMPARE(outputOf(Form::Text,
                          [](Report &report) {
                              QVERIFY(!report.isLive());
                              report.waiting(QStringLiteral("openvpn is starting"), 400ms, 16s);
                              report.waiting(QStringLiteral("openvpn is stopping"), 12s, 0s);
                          }),
                 QByteArray("   0.4 s of 16 s: openvpn is starting\n"
                            "  12.0 s: openvpn is stopping\n"));
    }

    void notesAndProblemsGoToStandardError()
    {
        Capture errors(STDERR_FILENO);
        const QByteArray output = outputOf(Form::Text, [](Report &report) {
            report.note(QStringLiteral("n"));
            report.problem({ExitCode::Failed, QStringLiteral("p"), QStringLiteral("a")});
        });
        QCOMPARE(output, QByteArray());
        QCOMPARE(errors.text(), QByteArray("Note: n\nvpnctl: p\nWhat to do: a\n"));
    }

    void outputThatDoesNotBlockIsWaitedFor()
    {
        const QString longText(1'000'000, QLatin1Char('x'));
        const QByteArray output = outputOf(Form::Text, [&](Report &report) {
            ::fcntl(STDOUT_FILENO, F_SETFL, ::fcntl(STDOUT_FILENO, F_GETFL) | O_NONBLOCK);
            report.answer(longText, OperationResult::succeeded(), std::nullopt);
        });
        QCOMPARE(output, "Answer " + longText.toUtf8() + ".\n");
    }
};

Q_DECLARE_METATYPE(Print)

QTEST_GUILESS_MAIN(VpnctlReport)
#include "tst_report.moc"
