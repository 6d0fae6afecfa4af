#include "serverfields.h"

#include "configtext.h"
#include "hostilerecords.h"
#include "openvpnparser.h"
#include "pemtexts.h"

#include <QtTest/QtTest>

#include <random>

using vpncore::OvpnConnection;

namespace {

/// Of one seed.
constexpr int kRecords = 1'000;

VpnServerInformation goodServer()
{
    VpnServerInformation server;
    server.host = QStringLiteral("vpn.example.net");
    server.ca = pemtexts::certificate();
    server.cert = QStringLiteral("subject=CN = client\n\n")
        + pemtexts::certificate(QString(64, QLatin1Char('Q')));
    server.key = pemtexts::key();
    server.udpPort = 1194;
    server.tcpPort = 443;
    return server;
}

/// Makes records that are hostile, broken, odd or good, always the same ones for a seed.
class RecordMaker
{
private:
    int number(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(m_random); }

    bool chance(int oneIn) { return number(oneIn) == 0; }

    template<typename Container>
    auto pick(const Container &container)
    {
        return container[number(static_cast<int>(std::size(container)))];
    }

public:
    explicit RecordMaker(quint32 seed)
        : m_random(seed)
    {
        const auto directive = [](int) { return QStringLiteral("plugin /tmp/hostile.so"); };
        for (const QString &field : hostilerecords::fields())
            m_tricks += hostilerecords::of(field, goodServer(), directive);
    }

    VpnServerInformation make()
    {
        VpnServerInformation server = chance(3) ? pick(m_tricks).server : goodServer();
        for (const QString &field : hostilerecords::fields()) {
            QString &text = hostilerecords::fieldOf(server, field);
            if (chance(4))
                text = field == QLatin1String("host") ? randomHost() : randomText();
            for (int changes = chance(2) ? number(4) : 0; changes > 0; --changes)
                change(text);
        }
        if (chance(5))
            server.udpPort = static_cast<qint32>(m_random());
        if (chance(5))
            server.tcpPort = static_cast<qint32>(m_random());
        return server;
    }

private:
    QString fragment()
    {
        static const QStringList fragments{QStringLiteral("</ca>"),
                                           QStringLiteral("</cert>"),
                                           QStringLiteral("</key>"),
                                           QStringLiteral("<ca>"),
                                           QStringLiteral("</CA>"),
                                           QStringLiteral("<"),
                                           QStringLiteral("</"),
                                           QStringLiteral("/ca>"),
                                           QStringLiteral("\n"),
                                           QStringLiteral("\r\n"),
                                           QStringLiteral("\r"),
                                           QStringLiteral(" "),
                                           QStringLiteral("\t"),
                                           QStringLiteral("\""),
                                           QStringLiteral("'"),
                                           QStringLiteral("\\"),
                                           QStringLiteral("#"),
                                           QStringLiteral(";"),
                                           QStringLiteral("%1"),
                                           QStringLiteral("%2"),
                                           QStringLiteral("%6"),
                                           QStringLiteral("%7"),
                                           QStringLiteral("%%"),
                                           QStringLiteral("%L1"),
                                           QStringLiteral("\nup /tmp/run\n"),
                                           QStringLiteral("\nplugin /tmp/hostile.so\n"),
                                           QStringLiteral("\nscript-security 2\n"),
                                           QStringLiteral("verb 0"),
                                           QStringLiteral("compress lzo"),
                                           QStringLiteral("-----BEGIN CERTIFICATE-----\n"),
                                           QStringLiteral("\n-----END CERTIFICATE-----\n"),
                                           QStringLiteral("-----BEGIN -----\n"),
                                           QStringLiteral("Comment: a\n"),
                                           QStringLiteral("1194 "),
                                           QStringLiteral("QUJD\n")};
        return pick(fragments);
    }

    QChar character()
    {
        // Those that a conversion could turn into something else, more often than others.
        static const ushort special[] = {0,      '\n',   '\r',   0x0b,   0x0c,   0x1a,
                                         '<',    0x7f,   0x85,   0xa0,   0xe9,   0xff,
                                         0x10a,  0x10d,  0x13c,  0x2028, 0x2029, 0x220a,
                                         0xd800, 0xdc3c, 0xfeff, 0xff1c, 0xfffe, 0xffff};
        switch (number(3)) {
        case 0:
            return pick(special);
        case 1:
            return QChar(static_cast<ushort>(number(0x10000)));
        default:
            return QChar(static_cast<ushort>(number(0x80)));
        }
    }

    QString run()
    {
        static const int lengths[] = {1,   100, 246, 247, 248, 249, 253,
                                      254, 255, 256, 509, 510, 511};
        static const ushort characters[] = {'A', ' ', '#', 0xe9, 0x416, '='};
        return QString(pick(lengths), QChar(pick(characters)));
    }

    QString randomText()
    {
        QString text;
        for (int parts = number(12); parts > 0; --parts) {
            switch (number(3)) {
            case 0:
                text += fragment();
                break;
            case 1:
                text += character();
                break;
            default:
                text += run();
            }
        }
        return text;
    }

    QString randomHost()
    {
        static const QString letters = QStringLiteral("abcXYZ019.-_:");
        QString host;
        for (int length = chance(2) ? number(20) : 225 + number(40); length > 0; --length)
            host += letters.at(number(letters.size()));
        return host;
    }

    void change(QString &text)
    {
        const int position = number(text.size() + 1);
        switch (number(6)) {
        case 0:
            text.insert(position, fragment());
            break;
        case 1:
            text.insert(position, character());
            break;
        case 2:
            text.insert(position, run());
            break;
        case 3:
            text.remove(position, 1 + number(20));
            break;
        case 4:
            text.insert(number(text.size() + 1), text.mid(position, number(80)));
            break;
        default:
            if (position < text.size())
                text[position] = character();
        }
    }

    std::mt19937 m_random;
    QVector<hostilerecords::Record> m_tricks;
};

/// A warning for each field that is left out would be the whole output.
class Silence
{
public:
    Silence()
        : m_former(
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {}))
    {
    }
    ~Silence() { qInstallMessageHandler(m_former); }

private:
    QtMessageHandler m_former;
    Q_DISABLE_COPY(Silence)
};

/// @return what is wrong with the first bad one of a seed's records; empty when none is.
QByteArray problemOfSeed(quint32 seed)
{
    const Silence silence;
    RecordMaker maker(seed);
    for (int number = 0; number < kRecords; ++number) {
        const VpnServerInformation server = maker.make();
        for (const auto type : {OvpnConnection::Udp, OvpnConnection::Tcp}) {
            const QByteArray file = configtext::written(configtext::generated(type, server));
            const QByteArray problem = configtext::problem(type, server, file);
            if (!problem.isEmpty())
                return "record " + QByteArray::number(number) + ": " + problem;
        }
    }
    return {};
}

bool hasPlugin(const VpnServerInformation &server)
{
    const auto directives = openvpnparser::parse(
        configtext::written(configtext::unchecked(OvpnConnection::Udp, server)));
    return std::any_of(directives.begin(), directives.end(),
                       [](const auto &directive) { return directive.words.first() == "plugin"; });
}

} // namespace

/// Whatever a record holds, OpenVPN finds the template's directives and no other. Seeds are counted
/// up from TALVEX_SEED, by default a random one; TALVEX_SEEDS says how many.
class TestServerFieldsProperty : public QObject
{
    Q_OBJECT

private:
    quint32 m_seed = 0;
    int m_seeds = 10;

private Q_SLOTS:
    void initTestCase()
    {
        bool isGiven = false;
        m_seed = qEnvironmentVariable("TALVEX_SEED").toUInt(&isGiven);
        if (!isGiven)
            m_seed = std::random_device()();
        const int seeds = qEnvironmentVariableIntValue("TALVEX_SEEDS", &isGiven);
        if (isGiven)
            m_seeds = seeds;
        QVERIFY(m_seeds > 0);
        qInfo("%d seeds from %u on", m_seeds, m_seed);
    }

    void noRecordGetsADirectiveIn()
    {
        for (int i = 0; i < m_seeds; ++i) {
            const quint32 seed = m_seed + static_cast<quint32>(i);
            const QByteArray problem = problemOfSeed(seed);
            QVERIFY2(problem.isEmpty(),
                     qPrintable(QStringLiteral("TALVEX_SEED=%1, %2")
                                    .arg(QString::number(seed), QString::fromLatin1(problem))));
        }
    }

    /// Else the property would hold because nothing got in, or because nothing was tried.
    void recordsAreAcceptedRefusedAndHostile()
    {
        const Silence silence;
        RecordMaker maker(m_seed);
        QMap<QString, int> accepted;
        int injected = 0;
        for (int number = 0; number < kRecords; ++number) {
            VpnServerInformation server = maker.make();
            injected += hasPlugin(server);
            for (const QString &field : hostilerecords::fields()) {
                const QString text = hostilerecords::fieldOf(server, field);
                accepted[field] += field == QLatin1String("host")
                    ? vpncore::fitsRemoteLine(text, server.udpPort)
                    : vpncore::fitsInlineBlock(text, QLatin1String(field.toLatin1()));
            }
        }
        const QByteArray seed = "seed " + QByteArray::number(m_seed) + ", ";
        for (const QString &field : hostilerecords::fields()) {
            const int number = accepted.value(field);
            QVERIFY2(number > kRecords / 4 && number < kRecords * 97 / 100,
                     (seed + field.toLatin1() + ": " + QByteArray::number(number)).constData());
        }
        QVERIFY2(injected > kRecords / 20, (seed + QByteArray::number(injected)).constData());
    }

    void directiveThatIsMissingIsNoticed()
    {
        const VpnServerInformation server = goodServer();
        QByteArray file = configtext::written(configtext::generated(OvpnConnection::Udp, server));
        QCOMPARE(configtext::problem(OvpnConnection::Udp, server, file), QByteArray());
        file.replace("remote-cert-tls server\n", "");
        QVERIFY(!configtext::problem(OvpnConnection::Udp, server, file).isEmpty());
    }

    void parserTakesWordsApartAsOpenvpnDoes_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QByteArray>("words");
        const auto row = [](const char *name, const QByteArray &line, const QByteArray &words) {
            QTest::newRow(name) << line << words;
        };
        row("blanks", " \t remote  host\t1194 \r\n", "remote | host | 1194");
        row("comments", "verb 1 # 2\n", "verb | 1");
        row("semicolon", "verb 1 ; 2\n", "verb | 1");
        row("comment sign within a word", "verb 1#2\n", "verb | 1#2");
        row("whole comment", "  # verb 1\n", "");
        row("double quotes", "up \"a 'b' c\"\n", "up | a 'b' c");
        row("single quotes", "up 'a \"b\\ c'\n", "up | a \"b\\ c");
        row("escaped blank", "up a\\ b\n", "up | a b");
        row("escaped quote", "up \\\"a\n", "up | \"a");
        row("bad backslash", "up \\a\n", "unreadable | up \\a\n");
        row("open quote", "up \"a\n", "unreadable | up \"a\n");
        row("two hyphens", "--verb 1\n", "verb | 1");
        row("no line feed", "verb 1", "verb | 1");
        row("byte order mark", "\xef\xbb\xbfverb 1\n", "verb | 1");
        row("longest line", "verb 1 #" + QByteArray(246, 'a') + "\nmute 2\n",
            "verb | 1 / mute | 2");
        row("one more", "verb 1 #" + QByteArray(247, 'a') + "\nmute 2\n",
            "unreadable | verb 1 #" + QByteArray(247, 'a') + "\n");
    }

    void parserTakesWordsApartAsOpenvpnDoes()
    {
        QFETCH(QByteArray, line);
        QFETCH(QByteArray, words);
        QByteArrayList found;
        for (const auto &directive : openvpnparser::parse(line))
            found.append(directive.words.join(" | "));
        QCOMPARE(found.join(" / "), words);
    }

    void parserEndsABlockWhereOpenvpnDoes_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("block");
        const auto row = [](const char *name, const QByteArray &text, const QByteArray &block) {
            QTest::newRow(name) << text << block;
        };
        row("at a line's start", "a\nb\n</ca>\nmute 2\n", "a\nb\n");
        row("after blanks", "a\n \t\r\v\f</ca>\nmute 2\n", "a\n");
        row("before other text", "a\n</ca>b\nmute 2\n", "a\n");
        row("not within a line", "a</ca>\n</ca>\nmute 2\n", "a</ca>\n");
        row("not in capitals", "</CA>\n</ca>\nmute 2\n", "</CA>\n");
        row("not with another name", "</key>\n</ca>\nmute 2\n", "</key>\n");
        row("after a piece", QByteArray(255, 'a') + "</ca>\nmute 2\n", QByteArray(255, 'a'));
        row("not after less", QByteArray(254, 'a') + "</ca>\n</ca>\nmute 2\n",
            QByteArray(254, 'a') + "</ca>\n");
    }

    void parserEndsABlockWhereOpenvpnDoes()
    {
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, block);
        const auto found = openvpnparser::parse("<ca>\n" + text);
        QCOMPARE(found.size(), 2);
        QCOMPARE(found.at(0).words, QByteArrayList{"ca"});
        QCOMPARE(found.at(0).block, block);
        QCOMPARE(found.at(1).words, (QByteArrayList{"mute", "2"}));
    }

    void blockWithoutAnEndIsMarked()
    {
        const auto found = openvpnparser::parse("<ca>\nverb 1\n");
        QCOMPARE(found.size(), 1);
        QVERIFY(!found.first().isClosed);
    }
};

QTEST_GUILESS_MAIN(TestServerFieldsProperty)
#include "tst_serverfields_property.moc"
