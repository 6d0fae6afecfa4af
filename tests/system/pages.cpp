#include "operationresult.h"
#include "vpnserverinformation.h"
#include "rep_ipcinterface_source.h"
#include "rep_serviceinterface_source.h"

#include <QtCore/QRegularExpression>
#include <QtTest/QtTest>

namespace {

QString contentOf(const QString &path)
{
    QFile file(QStringLiteral(TALVEX_SOURCES "/") + path);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read %s", qPrintable(path));
    return QString::fromUtf8(file.readAll());
}

/// The sources of the folders, one after the other.
QString sourcesOf(const QStringList &folders)
{
    QString text;
    for (const QString &folder : folders) {
        const QDir dir(QStringLiteral(TALVEX_SOURCES "/") + folder);
        for (const QString &name : dir.entryList({QStringLiteral("*.cpp"), QStringLiteral("*.mm")}))
            text += contentOf(folder + QLatin1Char('/') + name);
    }
    return text;
}

/// What the first group captures, for every match.
QStringList allMatches(const QString &pattern, const QString &text)
{
    QStringList found;
    QRegularExpressionMatchIterator matches =
        QRegularExpression(pattern, QRegularExpression::MultilineOption).globalMatch(text);
    while (matches.hasNext())
        found.append(matches.next().captured(1));
    return found;
}

QString protocol()
{
    return contentOf(QStringLiteral("docs/protocol.md"));
}

QString operations()
{
    return contentOf(QStringLiteral("docs/operations.md"));
}

/// A dump of a record in the page: its bytes, and the values that stand beside them.
struct Dump
{
    QByteArray bytes;
    QStringList fields;
    QMap<QString, QString> values;
};

Dump dumpUnder(const QString &heading)
{
    const QString section = protocol().section(QStringLiteral("\n### ") + heading, 1);
    const QString block =
        section.section(QStringLiteral("```text\n"), 1).section(QStringLiteral("```"), 0, 0);
    Dump dump;
    for (const QString &line : block.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        static const QRegularExpression parts(
            QStringLiteral("^((?:[0-9a-f]{2} ?)+)(?: +(\\w+) +(.*))?$"));
        const QRegularExpressionMatch match = parts.match(line);
        if (!match.hasMatch())
            qFatal("not a line of a dump: %s", qPrintable(line));
        dump.bytes += QByteArray::fromHex(match.captured(1).toLatin1());
        if (match.capturedLength(2) > 0) {
            dump.fields.append(match.captured(2));
            dump.values.insert(match.captured(2), match.captured(3));
        }
    }
    return dump;
}

QString textOf(const QString &value)
{
    return value == QLatin1String("null") ? QString() : value.mid(1, value.size() - 2);
}

template<typename Record>
QByteArray written(const Record &record)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << record;
    return bytes;
}

QString signatureOf(const QMetaObject &meta)
{
    return QString::fromLatin1(
        meta.classInfo(meta.indexOfClassInfo("RemoteObject Signature")).value());
}

} // namespace

/// The pages say what the code does.
class Pages : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void dumpOfTheServerRecordIsWhatTheStreamWrites()
    {
        const Dump dump = dumpUnder(QStringLiteral("VpnServerInformation"));
        VpnServerInformation server;
        server.name = textOf(dump.values[QStringLiteral("name")]);
        server.id = dump.values[QStringLiteral("id")].toInt();
        server.info = textOf(dump.values[QStringLiteral("info")]);
        server.host = textOf(dump.values[QStringLiteral("host")]);
        server.ca = textOf(dump.values[QStringLiteral("ca")]);
        server.key = textOf(dump.values[QStringLiteral("key")]);
        server.cert = textOf(dump.values[QStringLiteral("cert")]);
        server.udpPort = dump.values[QStringLiteral("udpPort")].toInt();
        server.tcpPort = dump.values[QStringLiteral("tcpPort")].toInt();
        QVERIFY(!server.host.isEmpty());
        QCOMPARE(dump.bytes.toHex(' '), written(server).toHex(' '));
    }

    void itemsOfTheServerRecordAreInTheOrderOfTheDump()
    {
        const QString section =
            protocol().section(QStringLiteral("\n### "), 1, 1); // up to the next record
        const QStringList items = allMatches(QStringLiteral("^\\| \\d+ \\| `(\\w+)` \\|"), section);
        QCOMPARE(items, dumpUnder(QStringLiteral("VpnServerInformation")).fields);
    }

    void dumpOfTheResultIsWhatTheStreamWrites()
    {
        const Dump dump = dumpUnder(QStringLiteral("OperationResult"));
        OperationResult result;
        result.code = dump.values[QStringLiteral("code")].toInt();
        result.success = dump.values[QStringLiteral("success")] == QLatin1String("true");
        result.message = textOf(dump.values[QStringLiteral("message")]);
        QVERIFY(!result.message.isEmpty());
        QCOMPARE(dump.bytes.toHex(' '), written(result).toHex(' '));
    }

    void everySlotAndSignalIsInTheProtocol()
    {
        const QStringList members =
            allMatches(QStringLiteral("^ +((?:SLOT|SIGNAL)\\(.*\\));$"),
                       contentOf(QStringLiteral("ipc/ipcinterface.rep"))
                           + contentOf(QStringLiteral("ipc/serviceinterface.rep")));
        QCOMPARE(members.size(), 5);
        for (const QString &member : members)
            QVERIFY2(protocol().contains(QLatin1Char('`') + member + QLatin1Char('`')),
                     qPrintable(member));
    }

    void signaturesAreThoseOfTheBuild()
    {
        const QStringList signatures = allMatches(
            QStringLiteral("^\\| `\\w+Interface` \\| `([0-9a-f]{40})` \\|$"), protocol());
        QCOMPARE(signatures,
                 (QStringList{signatureOf(IpcInterfaceSource::staticMetaObject),
                              signatureOf(ServiceInterfaceSource::staticMetaObject)}));
    }

    void numberOfWaitingCommandsIsThatOfTheCode()
    {
        const QStringList limits =
            allMatches(QStringLiteral("^constexpr int kMostWaitingCommands = ([\\d']+);$"),
                       contentOf(QStringLiteral("commands/serviceinterfacemanager.cpp")));
        QCOMPARE(limits.size(), 1);
        QString inThePage = limits[0];
        inThePage.replace(QLatin1Char('\''), QLatin1Char(','));
        QCOMPARE(allMatches(QStringLiteral("At most ([\\d,]+) commands wait"), protocol()),
                 QStringList{inThePage});
    }

    void everyKeyOfTheDaemonIsInBothPages()
    {
        QStringList keys = allMatches(QStringLiteral("\"((?:label|warning)\\.[a-z0-9_]+)\""),
                                      sourcesOf({QStringLiteral("vpncore")}));
        keys.removeDuplicates();
        QCOMPARE(keys.size(), 7);
        for (const QString &key : keys) {
            const QString quoted = QLatin1Char('`') + key + QLatin1Char('`');
            QVERIFY2(operations().contains(quoted), qPrintable(key));
            // This one belongs to the platform layer and travels to no client.
            if (key != QLatin1String("warning.l2tp_connection_fail"))
                QVERIFY2(protocol().contains(quoted), qPrintable(key));
        }
    }

    void everyLogLineOfTheRequestPathIsExplained()
    {
        const QString sources = sourcesOf({QStringLiteral("daemon"), QStringLiteral("ipc"),
                                           QStringLiteral("commands"), QStringLiteral("vpncore")});
        QStringList texts = allMatches(
            QStringLiteral("q(?:Debug|Warning)\\(\\)\\s*<< (?:QStringLiteral\\()?\"(.*?)\""),
            sources);
        // Why a connection was closed, or a socket not opened.
        texts += allMatches(QStringLiteral("QStringLiteral\\(\"((?:the|it|its|there|clients|too|a "
                                           "frame) [^\"]*)\"\\)"),
                            sourcesOf({QStringLiteral("ipc")}));
        QVERIFY2(texts.size() > 40, qPrintable(QString::number(texts.size())));
        const QString page = operations();
        for (QString text : texts) {
            text.remove(QStringLiteral("\\r")).remove(QStringLiteral("\\n"));
            for (const QString &piece : text.split(QRegularExpression(QStringLiteral("%\\d"))))
                QVERIFY2(page.contains(piece.trimmed()), qPrintable(text));
        }
    }

    void changesNameTheVersion()
    {
        QVERIFY(contentOf(QStringLiteral("CHANGELOG.md"))
                    .contains(QStringLiteral("\n## " TALVEX_VERSION)));
    }
};

QTEST_GUILESS_MAIN(Pages)
#include "pages.moc"
