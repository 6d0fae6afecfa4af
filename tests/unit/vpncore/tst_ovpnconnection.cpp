#include "ovpnconnection.h"

#include "configtext.h"
#include "eventwait.h"
#include "logcapture.h"
#include "privateroot.h"
#include "standins.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>
#include <QtCore/QTranslator>
#include <QtTest/QtTest>

#include <csignal>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace std::chrono_literals;

using standins::serverFor;
using std::chrono::milliseconds;
using vpncore::OvpnConnection;
using vpncore::OvpnLimits;

using Limit = milliseconds OvpnLimits::*;
using Operation = std::function<OperationResult(OvpnConnection &)>;

Q_DECLARE_METATYPE(std::chrono::milliseconds)
Q_DECLARE_METATYPE(Limit)
Q_DECLARE_METATYPE(Operation)

namespace {

const QString kUdp = QStringLiteral("UDP");

const QString kCannotCreateConfig = QStringLiteral("label.can_not_create_config_for_open_vpn");
const QString kCannotStart = QStringLiteral("warning.open_vpn_running_fails_check_apps");
const QString kDoesNotExist =
    QStringLiteral("warning.open_vpn_does_not_exists_try_another_protocol");
const QString kTimeOut = QStringLiteral("warning.open_vpn_connection_time_out");
const QString kNoResponse = QStringLiteral("warning.open_vpn_server_does_not_respond");
const QString kAttemptFailed = QStringLiteral("warning.can_not_open_vpn_check_is_admin_granted");

const QString kSeparator =
    QStringLiteral("\r\n----------------- New Connection -----------------\r\n");
const QString kDnsRestored = QStringLiteral("result output  true");
const QString kRequestIsOver = QStringLiteral("Connecting timeout, stop processing");

/// What is shorter than this was not held up by any of the limits.
constexpr qint64 kSoonMs = 10'000;

/// Limits that no test reaches, but for those that it shortens.
OvpnLimits patient()
{
    OvpnLimits limits;
    limits.poll = 10ms;
    limits.firstOutput = limits.attempt = limits.request = limits.terminate = limits.start = 30s;
    return limits;
}

QString programPath()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/openvpn");
}

QString configTextFor(const QString &scenario)
{
    return QStringLiteral("remote %1 1194\n").arg(scenario);
}

QStringList filesIn(const QString &folder)
{
    return QDir(folder).entryList(QDir::Files | QDir::Hidden);
}

bool create(const QString &path, const QByteArray &content = {})
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size()
        && file.setPermissions(QFile::ReadOwner | QFile::ExeOwner);
}

/// Mounts something while it lives; what is there is hidden.
class Mount
{
public:
    Mount(const QStringList &arguments, const QString &place)
        : m_place(place)
    {
        if (QProcess::execute(QStringLiteral("mount"), arguments + QStringList{place}) != 0)
            qFatal("cannot mount over %s", qPrintable(place));
    }
    ~Mount() { QProcess::execute(QStringLiteral("umount"), {m_place}); }

private:
    QString m_place;
    Q_DISABLE_COPY(Mount)
};

/// A file that nobody can execute until it is released, as on a disk that hangs: exec(2) waits.
class HangingFile
{
public:
    explicit HangingFile(const QString &path)
    {
        std::signal(SIGIO, SIG_IGN); // which asks to let go
        m_file = ::open(path.toLocal8Bit().constData(), O_RDONLY | O_CLOEXEC);
        if (::fcntl(m_file, F_SETLEASE, F_WRLCK) != 0)
            qFatal("no lease on %s", qPrintable(path));
    }
    ~HangingFile() { ::close(m_file); }
    void letGo() { ::fcntl(m_file, F_SETLEASE, F_UNLCK); }

private:
    int m_file;
    Q_DISABLE_COPY(HangingFile)
};

/// Translates each text into itself, followed by a place for the protocol's name.
class PlaceForTheProtocol : public QTranslator
{
public:
    QString translate(const char *context, const char *text, const char *, int) const override
    {
        return qstrcmp(context, "QObject") == 0 ? QString::fromLatin1(text) + QStringLiteral(" %1")
                                                : QString();
    }
    bool isEmpty() const override { return false; }
};

/// Ends nothing.
class CountingConnection : public OvpnConnection
{
public:
    using OvpnConnection::OvpnConnection;

    OperationResult disconnect() override
    {
        ++disconnects;
        return OperationResult::succeeded();
    }

    int disconnects = 0;
};

} // namespace

/// What a connection does with each way in which `openvpn` can behave.
class TestOvpnConnection : public QObject
{
    Q_OBJECT

private:
    void use(const OvpnLimits &limits) { m_connection.reset(new OvpnConnection(limits)); }

    OperationResult connectTo(const QString &scenario)
    {
        return m_connection->connectUdp(serverFor(scenario));
    }

    /// Runs @p operation once, from inside the wait in which @p isTime comes true.
    void when(const std::function<bool()> &isTime, const std::function<void()> &operation)
    {
        auto *timer = new QTimer(m_timers.data());
        connect(timer, &QTimer::timeout, timer, [timer, isTime, operation] {
            if (!isTime())
                return;
            timer->stop();
            operation();
        });
        timer->start(5ms);
    }

    bool hasLogged(const QString &text) const { return !m_log->lines().filter(text).isEmpty(); }

    QScopedPointer<QObject> m_timers;
    QScopedPointer<LogCapture> m_log;
    QScopedPointer<OvpnConnection> m_connection;

private Q_SLOTS:
    void init()
    {
        lab::resetPrivateRoot();
        qputenv("TALVEX_STANDIN_SCALE", "40");
        m_timers.reset(new QObject);
        m_log.reset(new LogCapture);
        use(patient());
    }

    void cleanup()
    {
        m_timers.reset();
        m_connection.reset();
        m_log.reset();
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    // The limits.

    void usualLimits()
    {
        const OvpnLimits limits;
        QCOMPARE(limits.poll.count(), 500);
        QCOMPARE(limits.firstOutput.count(), 10'000);
        QCOMPARE(limits.attempt.count(), 16'000);
        QCOMPARE(limits.request.count(), 16'000);
        QCOMPARE(limits.terminate.count(), 15'000);
        QCOMPARE(limits.start.count(), 2'000);
    }

    void requestEndsAtItsLimit_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<Limit>("limit");
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("isStopped");
        const auto row = [](const char *name, const char *scenario, Limit limit,
                            const QString &message, bool isStopped) {
            QTest::newRow(name) << QString::fromLatin1(scenario) << limit << message << isStopped;
        };
        const Limit attempt = &OvpnLimits::attempt;
        row("silence", "silent", &OvpnLimits::firstOutput, kNoResponse, false);
        row("closed output", "only-empty", &OvpnLimits::firstOutput, kNoResponse, false);
        row("undecided output", "chatty", attempt, kTimeOut, false);
        row("excused errors", "ipv6-error", attempt, kTimeOut, false);
        row("success line after a zero byte", "nul-bytes", attempt, kTimeOut, false);
        row("program that ends", "exits-at-once", &OvpnLimits::request, kTimeOut, true);
        row("program that crashes", "crashes", &OvpnLimits::request, kTimeOut, true);
    }

    void requestEndsAtItsLimit()
    {
        QFETCH(QString, scenario);
        QFETCH(Limit, limit);
        QFETCH(QString, message);
        QFETCH(bool, isStopped);
        OvpnLimits limits = patient();
        limits.*limit = 60ms;
        use(limits);
        QElapsedTimer timer;
        timer.start();
        const OperationResult result = connectTo(scenario);
        QVERIFY2(timer.elapsed() >= 60 && timer.elapsed() < kSoonMs,
                 qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(result.code, 1);
        QCOMPARE(result.success, message.isEmpty());
        QCOMPARE(result.message, message);
        QCOMPARE(m_log->count(kRequestIsOver), isStopped ? 1 : 0);
        QCOMPARE(standins::runningOpenvpns(), isStopped ? 0 : 1);
        QCOMPARE(filesIn(QStringLiteral("/tmp")), QStringList());
    }

    void requestWhoseTimeIsOverStopsOpenvpn()
    {
        OvpnLimits limits = patient();
        limits.request = 50ms;
        limits.firstOutput = 100ms;
        use(limits);
        QCOMPARE(connectTo(QStringLiteral("silent")).message, kTimeOut);
        QCOMPARE(m_log->count(kRequestIsOver), 1);
        QCOMPARE(standins::runningOpenvpns(), 0);
    }

    void onlySuccessEndsAPassEarly_data()
    {
        QTest::addColumn<bool>("isEarly");
        QTest::newRow("prints-at-once-success") << true;
        QTest::newRow("split-marker") << true;
        QTest::newRow("success-and-error") << true;
        QTest::newRow("error") << false; // a line that excuses it may follow
        QTest::newRow("exits-at-once") << false;
    }

    void onlySuccessEndsAPassEarly()
    {
        QFETCH(bool, isEarly);
        OvpnLimits limits = patient();
        limits.poll = 400ms;
        use(limits);
        QElapsedTimer timer;
        timer.start();
        bool retry = false;
        const OperationResult result = m_connection->tryConnectOneTime(
            configTextFor(QString::fromLatin1(QTest::currentDataTag())), kUdp, retry);
        QCOMPARE(result.success, isEarly);
        QVERIFY2((timer.elapsed() < 400) == isEarly, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(m_log->count(QStringLiteral("openvpn state:  QProcess::Running")), 1);
    }

    void silentAttemptTakesAllItsPasses()
    {
        OvpnLimits limits = patient();
        limits.poll = 50ms;
        limits.firstOutput = 480ms;
        use(limits);
        QCOMPARE(connectTo(QStringLiteral("silent")).message, kNoResponse);
        QCOMPARE(m_log->count(QStringLiteral("openvpn state:  QProcess::Running")), 10);
    }

    /// Each row is about what has come about when the first wait is over.
    void firstOfSeveralReasonsCounts_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<milliseconds>("attempt");
        QTest::addColumn<milliseconds>("firstOutput");
        QTest::addColumn<QString>("message");
        QTest::newRow("attempt limit before silence")
            << QStringLiteral("silent") << milliseconds(30) << milliseconds(20) << kTimeOut;
        QTest::newRow("attempt limit before the end of the program")
            << QStringLiteral("exits-at-once") << milliseconds(30) << milliseconds(30s) << kTimeOut;
        QTest::newRow("silence before the end of the program")
            << QStringLiteral("exits-at-once") << milliseconds(30s) << milliseconds(30)
            << kNoResponse;
    }

    void firstOfSeveralReasonsCounts()
    {
        QFETCH(QString, scenario);
        QFETCH(milliseconds, attempt);
        QFETCH(milliseconds, firstOutput);
        QFETCH(QString, message);
        OvpnLimits limits = patient();
        limits.poll = 100ms;
        limits.attempt = attempt;
        limits.firstOutput = firstOutput;
        use(limits);
        bool retry = true;
        QCOMPARE(m_connection->tryConnectOneTime(configTextFor(scenario), kUdp, retry).message,
                 message);
        QVERIFY(!retry);
        QCOMPARE(m_log->lines().filter(QStringLiteral("openvpn state")).size(), 1);
    }

    void outputEarnsAWholeAttempt()
    {
        OvpnLimits limits = patient();
        limits.firstOutput = 300ms;
        limits.attempt = 350ms;
        use(limits);
        QCOMPARE(connectTo(QStringLiteral("chatty")).message, kTimeOut);
    }

    void successThatComesAfterTheRequestLimitIsASuccess()
    {
        OvpnLimits limits = patient();
        limits.request = 20ms;
        use(limits);
        QVERIFY(connectTo(QStringLiteral("late-success")).success);
        QCOMPARE(m_log->count(kRequestIsOver), 0);
    }

    void protocolIsNamedWhereATranslationHasAPlaceForIt_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<Limit>("limit");
        QTest::newRow("attempt") << QStringLiteral("chatty") << Limit(&OvpnLimits::attempt);
        QTest::newRow("request") << QStringLiteral("exits-at-once") << Limit(&OvpnLimits::request);
    }

    void protocolIsNamedWhereATranslationHasAPlaceForIt()
    {
        QFETCH(QString, scenario);
        QFETCH(Limit, limit);
        OvpnLimits limits = patient();
        limits.*limit = 20ms;
        use(limits);
        QCOMPARE(connectTo(scenario).message, kTimeOut);
        const QString warning = QStringLiteral("QString::arg: Argument missing: %1, UDP");
        QVERIFY(m_log->lines(QtWarningMsg).contains(warning.arg(kTimeOut)));

        PlaceForTheProtocol translator;
        QCoreApplication::installTranslator(&translator);
        QCOMPARE(connectTo(scenario).message, kTimeOut + QStringLiteral(" UDP"));
        QCOMPARE(m_connection->connectTcp(serverFor(scenario)).message,
                 kTimeOut + QStringLiteral(" TCP"));
    }

    // An attempt.

    void outcomeIsKnownWithoutAnyLimit_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<QString>("message");
        QTest::addColumn<int>("starts");
        const auto row = [](const char *name, const char *scenario, const QString &message,
                            int starts) {
            QTest::newRow(name) << QString::fromLatin1(scenario) << message << starts;
        };
        row("success", "prints-at-once-success", {}, 1);
        row("success in two pieces", "split-marker", {}, 1);
        row("success after a zero byte and a look", "nul-then-success", {}, 1);
        row("success beside an error", "success-and-error", {}, 1);
        row("success after an excused error", "ipv6-error-then-success", {}, 1);
        row("success of the third start", "exits-twice-then-connects", {}, 3);
        row("error", "error", kAttemptFailed, 1);
        row("coming retry", "will-retry", kAttemptFailed, 1);
    }

    void outcomeIsKnownWithoutAnyLimit()
    {
        QFETCH(QString, scenario);
        QFETCH(QString, message);
        QFETCH(int, starts);
        const OperationResult result = connectTo(scenario);
        QCOMPARE(result.code, 1);
        QCOMPARE(result.success, message.isEmpty());
        QCOMPARE(result.message, message);
        QCOMPARE(standins::openvpnStarts().size(), starts);
        QCOMPARE(m_log->count(kSeparator), starts);
        // A failed one is left to the next disconnect.
        QCOMPARE(standins::runningOpenvpns(), 1);
        QVERIFY(m_connection->hasProcess());
        QVERIFY(m_connection->disconnect().success);
        QVERIFY(!m_connection->hasProcess());
    }

    void onlyAProgramThatEndsByItselfIsToBeTriedAgain_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("retry");
        QTest::newRow("ends") << QStringLiteral("exits-at-once") << kAttemptFailed << true;
        QTest::newRow("reports an error") << QStringLiteral("error") << kAttemptFailed << false;
        QTest::newRow("connects") << QStringLiteral("prints-at-once-success") << QString() << false;
    }

    void onlyAProgramThatEndsByItselfIsToBeTriedAgain()
    {
        QFETCH(QString, scenario);
        QFETCH(QString, message);
        QFETCH(bool, retry);
        bool isToBeTriedAgain = !retry;
        QCOMPARE(m_connection->tryConnectOneTime(configTextFor(scenario), kUdp, isToBeTriedAgain)
                     .message,
                 message);
        QCOMPARE(isToBeTriedAgain, retry);
    }

    void attemptLogsItsCourse()
    {
        OvpnLimits limits = patient();
        limits.poll = 250ms;
        use(limits);
        QVERIFY(connectTo(QStringLiteral("prints-at-once-success")).success);
        const QString program = programPath();
        const QString config = standins::openvpnStarts().last().arguments.value(2);
        QCOMPARE(m_log->lines(QtWarningMsg),
                 QStringList{QStringLiteral("Resources folder doesn't exist")});
        QCOMPARE(
            m_log->lines(QtDebugMsg),
            (QStringList{
                kSeparator,
                QStringLiteral("\"%1\" \"\\\"%1\\\" --config \\\"%2\\\"\"").arg(program, config),
                QStringLiteral("openvpn state:  QProcess::Running"),
                QStringLiteral("outputString:  \"Initialization Sequence Completed\\n\""),
                QStringLiteral("readAll:  \"\"")}));
    }

    void attemptsThatFailLogTheirCourse()
    {
        OvpnLimits limits = patient();
        limits.poll = 200ms;
        limits.request = 380ms; // during the second attempt
        use(limits);
        QCOMPARE(connectTo(QStringLiteral("exits-with-output")).message, kTimeOut);
        QStringList lines = m_log->lines();
        lines = lines.mid(lines.indexOf(kSeparator));
        const QStringList starts = lines.filter(QStringLiteral("--config"));
        QCOMPARE(starts.size(), 2);
        const QString running = QStringLiteral("openvpn state:  QProcess::Running");
        const QString output = QStringLiteral("outputString:  \"OpenVPN 2.6.14 stand-in\\nExiting "
                                              "due to fatal error\\n\"");
        const QString rest = QStringLiteral("readAll:  \"\"");
        const QString ended = QStringLiteral("openvpn state:  QProcess::NotRunning");
        const QString scriptOutput = QStringLiteral("\"\"");
        QCOMPARE(
            lines,
            (QStringList{kSeparator, starts.at(0), running, output, rest, ended, kSeparator,
                         scriptOutput, kDnsRestored, starts.at(1), running, output, rest, ended,
                         kRequestIsOver, scriptOutput, kDnsRestored,
                         QStringLiteral("QString::arg: Argument missing: %1, UDP").arg(kTimeOut)}));
    }

    void openvpnGetsTheConfigurationInAPrivateFile_data()
    {
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<QByteArray>("remote");
        const VpnServerInformation server = serverFor(QStringLiteral("prints-at-once-success"));
        QTest::newRow("UDP") << Operation([server](auto &c) { return c.connectUdp(server); })
                             << QByteArray("proto udp\nremote prints-at-once-success 1194\n");
        QTest::newRow("TCP") << Operation([server](auto &c) { return c.connectTcp(server); })
                             << QByteArray("proto tcp\nremote prints-at-once-success 443\n");
    }

    void openvpnGetsTheConfigurationInAPrivateFile()
    {
        QFETCH(Operation, operation);
        QFETCH(QByteArray, remote);
        QVERIFY(operation(*m_connection).success);
        QCOMPARE(standins::openvpnStarts().size(), 1);
        const auto start = standins::openvpnStarts().first();
        QCOMPARE(start.arguments.size(), 3);
        QCOMPARE(start.arguments.at(0), programPath());
        QCOMPARE(start.arguments.at(1), QStringLiteral("--config"));
        QCOMPARE(standins::configurationModeOf(start), QByteArray("600"));
        const QByteArray config = standins::configurationOf(start);
        QVERIFY(config.startsWith("client \ndev tun \n" + remote));
        QVERIFY(config.endsWith("</key>\n"));
        QCOMPARE(filesIn(QStringLiteral("/tmp")), QStringList());
    }

    void configurationIsWrittenInTheWordsOfToday_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QByteArray>("written");
        QTest::addColumn<QStringList>("logged");
        const auto row = [](const char *name, const QString &text, const QByteArray &written,
                            const QStringList &logged = {}) {
            QTest::newRow(name) << text << written << logged;
        };
        row("plain", QStringLiteral("verb 3\r\na\rb\n\n\nc"), "verb 3\r\na\rb\n\n\nc");
        row("old words", QStringLiteral("compress lzo\nverb 0\n#verb 00\ncompress lzo\n"),
            "comp-lzo\nverb 1\n#verb 10\ncomp-lzo\n",
            {QStringLiteral("replace verb 1"), QStringLiteral("replace comp-lzo")});
        row("old words in capitals", QStringLiteral("Verb 0\nCOMPRESS lzo\n"),
            "Verb 0\nCOMPRESS lzo\n");
        row("Latin-1", QStringLiteral("# \u00e9\u00ff\u00a0\u0085\n"),
            "# \xc3\xa9\xc3\xbf\xc2\xa0\xc2\x85\n");
        row("beyond Latin-1", QStringLiteral("# \u20ac\u0416\u010a\u2028\U0001f600\n"),
            "# ??????\n");
        row("half a surrogate pair", QStringLiteral("# ") + QChar(0xd800), "# ?");
        row("NUL", QStringLiteral("a") + QChar(0) + QStringLiteral("verb 0\n"), "a");
    }

    void configurationIsWrittenInTheWordsOfToday()
    {
        QFETCH(QString, text);
        QFETCH(QByteArray, written);
        QFETCH(QStringList, logged);
        text.prepend(configTextFor(QStringLiteral("prints-at-once-success")));
        written.prepend("remote prints-at-once-success 1194\n");
        QVERIFY(m_connection->connect(text, kUdp).success);
        QCOMPARE(standins::configurationOf(standins::openvpnStarts().first()), written);
        QCOMPARE(m_log->lines().filter(QStringLiteral("replace ")), logged);
        QCOMPARE(configtext::written(text), written); // on which other tests rely
    }

    // What keeps an attempt from starting.

    void programThatCannotBeStartedFailsAtOnce_data()
    {
        QTest::addColumn<bool>("isThere");
        QTest::newRow("missing") << false;
        QTest::newRow("no program") << true;
    }

    void programThatCannotBeStartedFailsAtOnce()
    {
        QFETCH(bool, isThere);
        const QString folder = QStringLiteral("/tmp/folder");
        QVERIFY(QDir().mkdir(folder));
        QVERIFY(!isThere || create(folder + QStringLiteral("/openvpn"), "no program\n"));
        {
            const Mount mount({QStringLiteral("--bind"), folder},
                              QFileInfo(QFile::symLinkTarget(programPath())).path());
            const OperationResult result = connectTo(QStringLiteral("connects"));
            QCOMPARE(result.code, 1);
            QVERIFY(!result.success);
            QCOMPARE(result.message, kCannotStart);
        }
        QCOMPARE(m_log->lines().filter(QStringLiteral("openvpn state")), QStringList());
        QCOMPARE(filesIn(QStringLiteral("/tmp")), QStringList());
    }

    /// The attempt's own limits have passed, too, when the start turns out to have failed.
    void startThatFailsLateIsToldApart()
    {
        OvpnLimits limits = patient();
        limits.start = 50ms;
        limits.poll = 200ms;
        limits.attempt = limits.firstOutput = 50ms;
        use(limits);
        const QString file = QStringLiteral("/tmp/openvpn");
        QVERIFY(create(file, "no program\n"));
        const Mount mount({QStringLiteral("--bind"), file}, programPath());
        HangingFile hanging(file);
        QTimer::singleShot(0, this, [&hanging] { hanging.letGo(); });
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(connectTo(QStringLiteral("connects")).message, kDoesNotExist);
        QVERIFY2(timer.elapsed() >= 250 && timer.elapsed() < kSoonMs,
                 qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(m_log->lines().filter(QStringLiteral("openvpn state")),
                 QStringList{QStringLiteral("openvpn state:  QProcess::Starting")});
    }

    void configurationThatCannotBeWrittenIsReported_data()
    {
        QTest::addColumn<QStringList>("disk");
        QTest::newRow("read-only folder")
            << QStringList{QStringLiteral("-t"), QStringLiteral("tmpfs"), QStringLiteral("-o"),
                           QStringLiteral("ro"), QStringLiteral("tmpfs")};
        QTest::newRow("full disk")
            << QStringList{QStringLiteral("-t"), QStringLiteral("tmpfs"), QStringLiteral("-o"),
                           QStringLiteral("size=4k"), QStringLiteral("tmpfs")};
    }

    void configurationThatCannotBeWrittenIsReported()
    {
        QFETCH(QStringList, disk);
        const Mount mount(disk, QStringLiteral("/tmp"));
        const OperationResult result =
            m_connection->connect(configTextFor(QStringLiteral("connects"))
                                      + QString(20'000, QLatin1Char('#')) + QLatin1Char('\n'),
                                  kUdp);
        QVERIFY(!result.success);
        QCOMPARE(result.message, kCannotCreateConfig);
        QCOMPARE(standins::openvpnStarts().size(), 0);
        QCOMPARE(filesIn(QStringLiteral("/tmp")), QStringList());
    }

    void tunnelLeavesTwentyDescriptors_data()
    {
        QTest::addColumn<rlim_t>("left");
        QTest::addColumn<QString>("message");
        QTest::newRow("20 above the file's") << rlim_t(20) << QString();
        QTest::newRow("19 above the file's") << rlim_t(19) << kCannotStart;
    }

    void tunnelLeavesTwentyDescriptors()
    {
        QFETCH(rlim_t, left);
        QFETCH(QString, message);
        const int lowest = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ::close(lowest);
        rlimit usual{};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &usual), 0);
        int end = lowest + 1;
        for (rlim_t free = 0; free < left; ++end)
            free += ::fcntl(end, F_GETFD) < 0;
        const rlimit few{static_cast<rlim_t>(end), usual.rlim_max};
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &few), 0);
        const OperationResult result = connectTo(QStringLiteral("prints-at-once-success"));
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &usual), 0);
        QCOMPARE(result.message, message);
        QCOMPARE(standins::openvpnStarts().size(), message.isEmpty() ? 1 : 0);
        QCOMPARE(filesIn(QStringLiteral("/tmp")), QStringList());
    }

    // The name of the configuration file.

    void fileOfTheLatestAttemptIsDeletedOnce_data()
    {
        QTest::addColumn<Operation>("request");
        QTest::addColumn<Operation>("deletion");
        QTest::addColumn<bool>("isDeleted");
        const Operation connect = [](OvpnConnection &connection) {
            return connection.connect(configTextFor(QStringLiteral("error")), kUdp);
        };
        const Operation forceConnect = [](OvpnConnection &connection) {
            return connection.forceConnect(configTextFor(QStringLiteral("error")), kUdp);
        };
        const Operation deleteConfigFile = [](OvpnConnection &connection) {
            connection.deleteConfigFile();
            return OperationResult::succeeded();
        };
        const Operation disconnect = [](OvpnConnection &c) { return c.disconnect(); };
        QTest::newRow("remembered by forceConnect, deleted")
            << forceConnect << deleteConfigFile << true;
        QTest::newRow("remembered by forceConnect, disconnected")
            << forceConnect << disconnect << true;
        QTest::newRow("forgotten by connect, deleted") << connect << deleteConfigFile << false;
        QTest::newRow("forgotten by connect, disconnected") << connect << disconnect << false;
    }

    void fileOfTheLatestAttemptIsDeletedOnce()
    {
        QFETCH(Operation, request);
        QFETCH(Operation, deletion);
        QFETCH(bool, isDeleted);
        request(*m_connection);
        const QString path = standins::openvpnStarts().last().arguments.value(2);
        QVERIFY(!QFile::exists(path));
        QVERIFY(create(path));
        deletion(*m_connection);
        QCOMPARE(QFile::exists(path), !isDeleted);
        QVERIFY(QFile::exists(path) || create(path));
        deletion(*m_connection);
        QVERIFY(QFile::exists(path));
    }

    void nameIsForgottenEvenIfNothingCouldBeDeleted()
    {
        m_connection->forceConnect(configTextFor(QStringLiteral("error")), kUdp);
        const QString path = standins::openvpnStarts().last().arguments.value(2);
        QVERIFY(QDir().mkdir(path));
        m_connection->deleteConfigFile();
        QVERIFY(QDir().rmdir(path));
        QVERIFY(create(path));
        m_connection->deleteConfigFile();
        QVERIFY(QFile::exists(path));
    }

    void connectionWithoutAnAttemptTouchesNoFile()
    {
        // Qt logs the attempt to remove a file without a name.
        m_connection->deleteConfigFile();
        QCOMPARE(m_log->lines(), QStringList());
    }

    // The end of a tunnel.

    void disconnectWithoutProcessLeavesDnsAlone()
    {
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.53\n");
        const OperationResult result = m_connection->disconnect();
        m_connection.reset();
        QVERIFY(result.success);
        QCOMPARE(result.code, 1);
        QCOMPARE(result.message, QString());
        QCOMPARE(m_log->lines(), QStringList());
        QCOMPARE(standins::networksetupCalls(), QStringList());
        QCOMPARE(standins::backupFiles(), {QStringLiteral("TalvexFreeVPN_dns_Wi-Fi")});
    }

    void openvpnEndsAndThenDnsIsGivenBack_data()
    {
        QTest::addColumn<bool>("isDestroyed");
        QTest::newRow("disconnect") << false;
        QTest::newRow("destruction") << true;
    }

    void openvpnEndsAndThenDnsIsGivenBack()
    {
        QFETCH(bool, isDestroyed);
        qputenv("TALVEX_STANDIN_SCALE", "20");
        standins::setDns(QStringLiteral("Wi-Fi"), {QStringLiteral("192.0.2.53")}, {});
        QVERIFY(connectTo(QStringLiteral("slow-to-stop")).success);
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1 192.0.2.2\n");
        m_log->clear();
        QElapsedTimer timer;
        timer.start();
        if (isDestroyed)
            m_connection.reset();
        else
            QVERIFY(m_connection->disconnect().success);
        QVERIFY(timer.elapsed() < kSoonMs);
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(standins::dnsServers(QStringLiteral("Wi-Fi")),
                 (QStringList{QStringLiteral("192.0.2.1"), QStringLiteral("192.0.2.2")}));
        QCOMPARE(standins::backupFiles(), QStringList());
        const QStringList lines = m_log->lines();
        QVERIFY(lines.first().startsWith(QStringLiteral("\"Still closing, second 0\\n")));
        QCOMPARE(lines.indexOf(kDnsRestored), lines.size() - 1);
    }

    void tunnelThatEndsByItselfGivesDnsBackOnce()
    {
        QVERIFY(connectTo(QStringLiteral("prints-at-once-success")).success);
        standins::writeBackup(QStringLiteral("TalvexFreeVPN_dns_Wi-Fi"), "192.0.2.1\n");
        m_log->clear();
        QCOMPARE(::kill(pid_t(standins::openvpnStarts().last().pid), SIGKILL), 0);
        QTRY_COMPARE(m_log->count(kDnsRestored), 1);
        QCOMPARE(m_log->lines().first(),
                 QStringLiteral("The tunnel has ended by itself, the DNS settings are given back"));
        QCOMPARE(standins::dnsServers(QStringLiteral("Wi-Fi")),
                 QStringList{QStringLiteral("192.0.2.1")});
        QCOMPARE(standins::backupFiles(), QStringList());
        // The next command finds an openvpn that has ended, as after an attempt.
        QVERIFY(m_connection->hasProcess());
        QVERIFY(m_connection->disconnect().success);
        QCOMPARE(m_log->count(kDnsRestored), 2);
    }

    void tunnelThatIsTakenDownGivesDnsBackOnce()
    {
        QVERIFY(connectTo(QStringLiteral("prints-at-once-success")).success);
        QVERIFY(m_connection->disconnect().success);
        QCOMPARE(m_log->count(kDnsRestored), 1);
        QVERIFY(!hasLogged(QStringLiteral("by itself")));
    }

    void processThatDoesNotEndIsKilledAtTheLimit_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::newRow("ignores SIGTERM") << QStringLiteral("ignores-term");
        QTest::newRow("is stopped") << QStringLiteral("stops-itself");
    }

    void processThatDoesNotEndIsKilledAtTheLimit()
    {
        QFETCH(QString, scenario);
        OvpnLimits limits = patient();
        limits.terminate = 100ms;
        use(limits);
        QVERIFY(connectTo(scenario).success);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(m_connection->disconnect().success);
        QVERIFY2(timer.elapsed() >= 100 && timer.elapsed() < kSoonMs,
                 qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(standins::runningOpenvpns(), 0);
        QCOMPARE(m_log->lines().last(), kDnsRestored);
    }

    void childThatHoldsThePipeDoesNotHoldUpADisconnect()
    {
        QVERIFY(connectTo(QStringLiteral("child-holds-pipe")).success);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(m_connection->disconnect().success);
        QVERIFY(timer.elapsed() < 2'000);
    }

    void ofOutputOutsideOfAnAttemptTheLast256KiBAreKept_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::newRow("tunnel") << QStringLiteral("flood-when-connected");
        QTest::newRow("failed attempt") << QStringLiteral("flood-after-error");
    }

    void ofOutputOutsideOfAnAttemptTheLast256KiBAreKept()
    {
        QFETCH(QString, scenario);
        connectTo(scenario);
        // QTRY_VERIFY would read the flood at one piece in ten milliseconds.
        bool hasPrintedAll = false;
        when(
            [] {
                const QStringList journal = standins::stateLines(QStringLiteral("openvpn/journal"));
                return journal.last().endsWith(QStringLiteral("has printed all"));
            },
            [&hasPrintedAll] { hasPrintedAll = true; });
        QVERIFY(
            vpncore::waitUntil(QDeadlineTimer(20s), [&hasPrintedAll] { return hasPrintedAll; }));
        m_log->clear();
        QVERIFY(m_connection->disconnect().success);
        const QString line = QStringLiteral("TLS: a line of no consequence, one of very many\\n");
        const int bytes = m_log->lines().value(0).count(line) * 48;
        QVERIFY2(bytes > 200 * 1024 && bytes <= 256 * 1024, qPrintable(QString::number(bytes)));
        QCOMPARE(m_log->lines().size(), 3); // with the script's output, and that DNS is restored
    }

    void secondConnectReplacesTheFirstTunnel()
    {
        QVERIFY(connectTo(QStringLiteral("prints-at-once-success")).success);
        const qint64 first = standins::openvpnStarts().first().pid;
        QVERIFY(connectTo(QStringLiteral("prints-at-once-success")).success);
        QCOMPARE(standins::openvpnStarts().size(), 2);
        QVERIFY(!standins::isAlive(first));
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    // Operations called from inside the waits of others, on the same connection.

    void newestOperationDecides_data()
    {
        QTest::addColumn<bool>("isSlowToStop"); // a tunnel that the outer operation ends first
        QTest::addColumn<Operation>("outer");
        QTest::addColumn<QString>("outerMessage");
        QTest::addColumn<Operation>("inner");
        QTest::addColumn<int>("newStarts");
        QTest::addColumn<bool>("isConnected");
        const auto connectTo = [](const char *scenario) {
            const VpnServerInformation server = serverFor(QString::fromLatin1(scenario));
            return Operation([server](OvpnConnection &c) { return c.connectUdp(server); });
        };
        const Operation disconnect = [](OvpnConnection &c) { return c.disconnect(); };
        const Operation silent = connectTo("silent");
        const Operation successful = connectTo("prints-at-once-success");
        const QString failed = kAttemptFailed;

        QTest::newRow("disconnect in a connect")
            << false << silent << failed << disconnect << 0 << false;
        QTest::newRow("disconnect in a connect that tries again")
            << false << connectTo("exits-at-once") << failed << disconnect << 0 << false;
        QTest::newRow("disconnect in the first step of a connect")
            << true << successful << failed << disconnect << 0 << false;
        QTest::newRow("disconnect in a disconnect")
            << true << disconnect << QString() << disconnect << 0 << false;
        QTest::newRow("connect in a connect")
            << false << silent << failed << successful << 1 << true;
        QTest::newRow("connect in a connect whose time is up when it is through")
            << false << silent << failed << connectTo("late-success") << 1 << true;
        QTest::newRow("connect in a disconnect")
            << true << disconnect << QString() << successful << 1 << true;
    }

    void newestOperationDecides()
    {
        QFETCH(bool, isSlowToStop);
        QFETCH(Operation, outer);
        QFETCH(QString, outerMessage);
        QFETCH(Operation, inner);
        QFETCH(int, newStarts);
        QFETCH(bool, isConnected);
        OvpnLimits limits = patient();
        limits.request = 250ms;
        use(limits);
        if (isSlowToStop) {
            qputenv("TALVEX_STANDIN_SCALE", "1"); // The second SIGTERM will cut it short.
            QVERIFY(connectTo(QStringLiteral("slow-to-stop")).success);
            qputenv("TALVEX_STANDIN_SCALE", "40");
        }

        int startsBefore = 0;
        bool hasInnerSucceeded = false;
        when(
            [this, isSlowToStop] {
                return isSlowToStop ? hasLogged(QStringLiteral("Still closing"))
                                    : !standins::openvpnStarts().isEmpty();
            },
            [this, inner, &startsBefore, &hasInnerSucceeded] {
                startsBefore = standins::openvpnStarts().size();
                hasInnerSucceeded = inner(*m_connection).success;
            });
        const OperationResult result = outer(*m_connection);
        QCOMPARE(result.message, outerMessage);
        QCOMPARE(result.success, outerMessage.isEmpty());
        QVERIFY(hasInnerSucceeded);
        const int starts = standins::openvpnStarts().size();
        QCOMPARE(starts - startsBefore, newStarts);
        QCOMPARE(standins::runningOpenvpns(), isConnected ? 1 : 0);
        // Once for each process that has ended, also when two operations have ended it.
        QCOMPARE(m_log->count(kDnsRestored), starts - (isConnected ? 1 : 0));
        QCOMPARE(m_log->count(kRequestIsOver), 0);
    }

    void attemptOvertakenInItsFirstStepStartsNothing()
    {
        QVERIFY(connectTo(QStringLiteral("slow-to-stop")).success);
        const QString told =
            QStringLiteral("%1 is told to end").arg(standins::openvpnStarts().first().pid);
        when(
            [told] {
                return standins::stateLines(QStringLiteral("openvpn/journal")).contains(told);
            },
            [this] { m_connection->disconnect(); });
        QCOMPARE(connectTo(QStringLiteral("prints-at-once-success")).message, kAttemptFailed);
        QVERIFY(!m_connection->hasProcess());
        QCOMPARE(standins::openvpnStarts().size(), 1);
    }

    void eachOvertakenAttemptGivesUp()
    {
        const auto isStarted = [](int starts) {
            return [starts] { return standins::openvpnStarts().size() == starts; };
        };
        OperationResult second;
        OperationResult third;
        when(isStarted(1), [this, &second] {
            second = m_connection->connectTcp(serverFor(QStringLiteral("silent")));
        });
        when(isStarted(2),
             [this, &third] { third = connectTo(QStringLiteral("prints-at-once-success")); });
        const OperationResult first = connectTo(QStringLiteral("silent"));
        QCOMPARE(first.message, kAttemptFailed);
        QCOMPARE(second.message, kAttemptFailed);
        QVERIFY(third.success);
        QCOMPARE(standins::openvpnStarts().size(), 3);
        QCOMPARE(standins::runningOpenvpns(), 1);
    }

    /// Whoever overrides it decides what ends, and an attempt is not overtaken by what is older.
    void disconnectIsCalledThroughItsSlot()
    {
        OvpnLimits limits = patient();
        limits.request = 100ms;
        CountingConnection connection(limits);
        QCOMPARE(connection.connectUdp(serverFor(QStringLiteral("exits-at-once"))).message,
                 kTimeOut);
        const int attempts = m_log->count(kSeparator);
        QVERIFY(attempts > 1);
        QCOMPARE(connection.disconnects, attempts + 1);
    }
};

QTEST_GUILESS_MAIN(TestOvpnConnection)
#include "tst_ovpnconnection.moc"
