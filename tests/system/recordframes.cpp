/// Writes what a client sends into files, as seeds for the fuzz targets and for the tests.
///
///     lab/private-root --bind BUILD --bind-rw FOLDER -- BUILD/.../recordframes FOLDER

#include "daemonprocess.h"
#include "framerecording.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>

namespace {

/// The first byte of a seed says which interface the rest is for.
bool write(const QDir &folder, const QByteArray &prefix, char interface,
           const QVector<framerecording::Frame> &frames)
{
    QByteArray all(1, interface);
    for (const framerecording::Frame &frame : frames) {
        QFile file(folder.filePath(QString::fromLatin1(prefix + '-' + frame.name)));
        if (!file.open(QIODevice::WriteOnly) || file.write(interface + frame.bytes) < 0)
            return false;
        all += frame.bytes;
    }
    QFile file(folder.filePath(QString::fromLatin1(prefix + "-all")));
    return file.open(QIODevice::WriteOnly) && file.write(all) == all.size();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 2)
        qFatal("Usage: recordframes FOLDER");
    DaemonProcess daemon;
    if (!daemon.start())
        qFatal("the daemon does not listen");
    const framerecording::Recording recording = framerecording::record();
    if (recording.endpoint.isEmpty())
        qFatal("a step of the conversation failed");
    const QDir folder(arguments.at(1));
    return write(folder, "main", '\0', recording.mainSocket)
            && write(folder, "endpoint", '\1', recording.endpoint)
        ? 0
        : 1;
}
