#include "subject.h"

#include "ipcurls.h"

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtNetwork/QLocalSocket>

#include <ctime>
#include <thread>

namespace {

using namespace std::chrono_literals;

constexpr auto kStartLimit = 20s;

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    require(file.open(QIODevice::ReadOnly), "a file of /proc could not be read");
    return file.readAll();
}

/// @return the number after "<field>:" in a text of /proc.
qint64 fieldOf(const QByteArray &text, const QByteArray &field)
{
    for (const QByteArray &line : text.split('\n')) {
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).simplified().split(' ').first().toLongLong();
    }
    throw MeasurementFailed("a field of /proc is missing");
}

bool accepts(const QString &socketName)
{
    QLocalSocket socket;
    socket.connectToServer(socketName);
    return socket.waitForConnected();
}

void place(const QString &from, const QString &to)
{
    QFile::remove(to);
    require(QFile::copy(from, to), "the bundle could not be made");
}

/// A daemon that was killed leaves the names of its sockets, and they are taken.
void removeSockets()
{
    const QFileInfo socket(shared::getIpcServiceUrl());
    const QStringList names = socket.dir().entryList({socket.fileName() + QLatin1Char('*')},
                                                     QDir::System | QDir::AllEntries);
    for (const QString &name : names)
        socket.dir().remove(name);
}

} // namespace

void require(bool holds, const char *text)
{
    if (!holds)
        throw MeasurementFailed(text);
}

Subject::Subject(const QStringList &command, const QString &socketName)
{
    static int subjects = 0;
    m_logName = QDir::tempPath() + QStringLiteral("/subject%1.log").arg(++subjects);
    m_process.setStandardErrorFile(m_logName);

    QElapsedTimer timer;
    timer.start();
    m_process.start(command.first(), command.mid(1));
    while (!accepts(socketName)) {
        require(!timer.hasExpired(std::chrono::milliseconds(kStartLimit).count()),
                "the program does not listen");
        std::this_thread::sleep_for(200us);
    }
    m_startTime = static_cast<double>(timer.nsecsElapsed()) / 1e6;
    require(m_process.waitForStarted(), "the program could not be started");
}

Subject::~Subject()
{
    m_process.kill();
    m_process.waitForFinished();
    QFile::remove(m_logName);
}

std::chrono::nanoseconds Subject::processorTime() const
{
    clockid_t clock = {};
    timespec time = {};
    require(clock_getcpuclockid(static_cast<pid_t>(pid()), &clock) == 0
                && clock_gettime(clock, &time) == 0,
            "the program has ended");
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

qint64 Subject::voluntarySwitches() const
{
    const QString tasks = QStringLiteral("/proc/%1/task/").arg(pid());
    qint64 switches = 0;
    for (const QString &task : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot))
        switches +=
            fieldOf(contentOf(tasks + task + QStringLiteral("/status")), "voluntary_ctxt_switches");
    return switches;
}

int Subject::threads() const
{
    return static_cast<int>(
        fieldOf(contentOf(QStringLiteral("/proc/%1/status").arg(pid())), "Threads"));
}

qint64 Subject::proportionalMemory() const
{
    return memory("Pss");
}

qint64 Subject::residentMemory() const
{
    return memory("Rss");
}

qint64 Subject::memory(const QByteArray &field) const
{
    return fieldOf(contentOf(QStringLiteral("/proc/%1/smaps_rollup").arg(pid())), field);
}

qint64 Subject::logSize() const
{
    return QFileInfo(m_logName).size();
}

QByteArray Subject::logFrom(qint64 start) const
{
    return contentOf(m_logName).mid(static_cast<int>(start));
}

Daemon::Daemon(Openvpn openvpn, Waits waits, const QStringList &wrapper)
    : Subject(install(openvpn, waits, wrapper), shared::getIpcServiceUrl())
{
}

QStringList Daemon::install(Openvpn openvpn, Waits waits, const QStringList &wrapper)
{
    const QString programs = QFileInfo(openvpnProgram()).path();
    const QString resources = programs + QStringLiteral("/../Resources");
    QDir().mkpath(programs);
    QDir().mkpath(QDir::cleanPath(resources));
    for (const QString &script :
         {QStringLiteral("/update_conf_up"), QStringLiteral("/update_conf_down")})
        place(QStringLiteral(TALVEX_RESOURCES) + script, resources + script);

    const QString program = programs + QStringLiteral("/talvexvpnd");
    place(waits == Waits::Sleeping ? QStringLiteral(TALVEX_DAEMON)
                                   : QStringLiteral(TALVEX_SPINNING_DAEMON),
          program);
    QFile::remove(openvpnProgram());
    require(QFile::link(openvpn == Openvpn::Real ? QStringLiteral(TALVEX_OPENVPN)
                                                 : QStringLiteral(TALVEX_STANDIN_OPENVPN),
                        openvpnProgram()),
            "the bundle could not be made");
    removeSockets();
    return wrapper + QStringList{program};
}

QString Daemon::openvpnProgram()
{
    return QStringLiteral("/Applications/Talvex VPN.app/Contents/MacOS/openvpn");
}

MinimalHost::MinimalHost(Commands commands)
    : Subject({QStringLiteral(TALVEX_MINIMAL_HOST),
               commands == Commands::Read ? QStringLiteral("read") : QStringLiteral("unread"),
               shared::getIpcProcessUrl(kEndpoint)},
              shared::getIpcProcessUrl(kEndpoint))
{
}
