#include "pem.h"

#include "pemtexts.h"
#include "textfile.h"

#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

const QString kSource = QStringLiteral("some.pem");

std::optional<QString> read(PemKind kind, const QString &text, QString *error)
{
    return pemFromText(kind, text, kSource, error);
}

} // namespace

/// What is taken from a PEM file, and what is refused.
class VpnctlPem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void textAroundTheBlocksIsLeftOut()
    {
        QString error;
        const QString text = QStringLiteral("Certificate:\n  Serial: %1\n")
            + pemtexts::certificate() + QStringLiteral("up /tmp/script\n");
        QCOMPARE(read(PemKind::Authority, text, &error), pemtexts::certificate());
    }

    void allBlocksOfAChainAreKept()
    {
        QString error;
        const QString chain =
            pemtexts::certificate() + pemtexts::certificate(QStringLiteral("REVG"));
        QCOMPARE(read(PemKind::Certificate, chain, &error), chain);
    }

    void carriageReturnsAreDropped()
    {
        QString error;
        QString text = pemtexts::certificate();
        text.replace(QLatin1Char('\n'), QStringLiteral("\r\n"));
        QCOMPARE(read(PemKind::Authority, text, &error), pemtexts::certificate());
    }

    void lastLineNeedsNoLineEnd()
    {
        QString error;
        const QString text = pemtexts::certificate().trimmed();
        QCOMPARE(read(PemKind::Authority, text, &error), pemtexts::certificate());
    }

    void headersOfOlderKeysAreKept()
    {
        QString error;
        const QString key = pemtexts::block(QStringLiteral("RSA PRIVATE KEY"),
                                            QStringLiteral("Comment: mine\n\nQUJD"));
        QCOMPARE(read(PemKind::Key, key, &error), key);
    }

    void damagedBlockIsRefused_data()
    {
        QTest::addColumn<QString>("body");
        QTest::addRow("tag") << QStringLiteral("QUJD\n</ca>\nup /tmp/script");
        QTest::addRow("words") << QStringLiteral("QUJD\nup /tmp/script");
        QTest::addRow("blank in base64") << QStringLiteral("QUJD QUJD");
        QTest::addRow("too much padding") << QStringLiteral("QUJD===");
        QTest::addRow("padding in the middle") << QStringLiteral("QQ==QUJD");
        QTest::addRow("header without a blank") << QStringLiteral("Comment:mine\n\nQUJD");
        QTest::addRow("other letters") << QStringLiteral("QUJ\u00c4");
        QTest::addRow("less-than sign in a header") << QStringLiteral("Comment: <\n\nQUJD");
        QTest::addRow("another block's end")
            << QStringLiteral("QUJD\n-----END PRIVATE KEY-----\nQUJD");
        QTest::addRow("control character") << QStringLiteral("QU\u0007JD");
    }

    void damagedBlockIsRefused()
    {
        QFETCH(QString, body);
        const QString text = pemtexts::certificate(body);
        QString error;
        QCOMPARE(read(PemKind::Authority, text, &error), std::nullopt);
        QCOMPARE(error,
                 QStringLiteral("some.pem holds a damaged PEM block: one of its lines is neither "
                                "base64 nor a header."));
    }

    void wellFormedBlockIsTaken_data()
    {
        QTest::addColumn<QString>("body");
        QTest::addRow("empty") << QString();
        QTest::addRow("padding") << QStringLiteral("QUJD\nQQ==");
        QTest::addRow("header") << QStringLiteral("Comment: (mine) & \"yours\"\n\nQUJD");
    }

    void wellFormedBlockIsTaken()
    {
        QFETCH(QString, body);
        QString error;
        const QString text = pemtexts::certificate(body);
        QCOMPARE(read(PemKind::Authority, text, &error), text);
    }

    void textWithoutBlocksIsRefused()
    {
        QString error;
        QCOMPARE(read(PemKind::Authority, QStringLiteral("QUJD\n"), &error), std::nullopt);
        QCOMPARE(error,
                 QStringLiteral("some.pem holds no certificate in PEM form (\"-----BEGIN ...\")."));
    }

    void blockWithoutEndIsRefused()
    {
        QString error;
        const QString text = QStringLiteral("-----BEGIN CERTIFICATE-----\nQUJD\n");
        QCOMPARE(read(PemKind::Authority, text, &error), std::nullopt);
    }

    void blockOfTheWrongKindIsRefused_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("text");
        QTest::addRow("key as ca") << static_cast<int>(PemKind::Authority) << pemtexts::key();
        QTest::addRow("key as cert") << static_cast<int>(PemKind::Certificate) << pemtexts::key();
        QTest::addRow("cert as key") << static_cast<int>(PemKind::Key) << pemtexts::certificate();
    }

    void blockOfTheWrongKindIsRefused()
    {
        QFETCH(int, kind);
        QFETCH(QString, text);
        QString error;
        QCOMPARE(read(static_cast<PemKind>(kind), text, &error), std::nullopt);
    }

    void encryptedKeyIsRefused_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addRow("PKCS 8") << pemtexts::block(QStringLiteral("ENCRYPTED PRIVATE KEY"));
        QTest::addRow("older form") << pemtexts::block(
            QStringLiteral("RSA PRIVATE KEY"),
            QStringLiteral("Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-256-CBC,00\n\nQUJD"));
    }

    void encryptedKeyIsRefused()
    {
        QFETCH(QString, text);
        QString error;
        QCOMPARE(read(PemKind::Key, text, &error), std::nullopt);
        QCOMPARE(error,
                 QStringLiteral("The key in some.pem is encrypted, and the daemon cannot ask "
                                "for its pass phrase; store it decrypted."));
    }

    void missingFileIsNamed()
    {
        QString error;
        QCOMPARE(pemFromFile(PemKind::Key, QStringLiteral("me.key"),
                             QDir(QStringLiteral("/nowhere")), &error),
                 std::nullopt);
        QCOMPARE(
            error,
            QStringLiteral("Cannot read the key file /nowhere/me.key: No such file or directory."));
    }

    void fileOfExactlyTheLimitIsRead()
    {
        QTemporaryDir folder;
        QFile file(folder.filePath(QStringLiteral("ca.crt")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        const QByteArray certificate = pemtexts::certificate().toLatin1();
        file.write(QByteArray(kMaxFileBytes - certificate.size() - 1, 'x') + '\n' + certificate);
        file.flush();
        const auto readIt = [&folder](QString *error) {
            return pemFromFile(PemKind::Authority, QStringLiteral("ca.crt"), QDir(folder.path()),
                               error);
        };
        QString error;
        QCOMPARE(readIt(&error), pemtexts::certificate());
        file.write("\n");
        file.flush();
        QCOMPARE(readIt(&error), std::nullopt);
        QCOMPARE(error,
                 QStringLiteral("The ca file %1 is too large; at most 1 MiB is read.")
                     .arg(file.fileName()));
    }

    void relativePathIsRelativeToTheFolder()
    {
        QTemporaryDir folder;
        QFile file(folder.filePath(QStringLiteral("ca.crt")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(pemtexts::certificate().toLatin1());
        file.close();
        QString error;
        QCOMPARE(
            pemFromFile(PemKind::Authority, QStringLiteral("ca.crt"), QDir(folder.path()), &error),
            pemtexts::certificate());
    }
};

QTEST_GUILESS_MAIN(VpnctlPem)
#include "tst_pem.moc"
