#include "pem.h"

#include "pemtexts.h"

#include <QtTest/QtTest>

using namespace vpnctl;

namespace {

const QString kDamaged = QStringLiteral(
    "some.pem holds a damaged PEM block: one of its lines is neither base64 nor a header.");
const QString kNoCertificate =
    QStringLiteral("some.pem holds no certificate in PEM form (\"-----BEGIN ...\").");

} // namespace

Q_DECLARE_METATYPE(PemKind)

/// What is taken from a PEM file, and what is refused.
class VpnctlPem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void blocksAreTakenWithoutWhatStandsAround_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("taken");
        const QString certificate = pemtexts::certificate();
        QTest::newRow("text around")
            << QStringLiteral("Serial: %1\n") + certificate + QStringLiteral("up /tmp/script\n")
            << certificate;
        const QString chain = certificate + pemtexts::certificate(QStringLiteral("REVG"));
        QTest::newRow("chain") << chain << chain;
        QTest::newRow("carriage returns")
            << QString(certificate).replace(QLatin1Char('\n'), QStringLiteral("\r\n"))
            << certificate;
        QTest::newRow("no line end at the end") << certificate.trimmed() << certificate;
        for (const char *body : {"", "QUJD\nQQ==", "Comment: (mine) & \"yours\"\n\nQUJD"}) {
            const QString text = pemtexts::certificate(QLatin1String(body));
            QTest::newRow(body) << text << text;
        }
    }

    void blocksAreTakenWithoutWhatStandsAround()
    {
        QFETCH(QString, text);
        QFETCH(QString, taken);
        QString error;
        QCOMPARE(pemFromText(PemKind::Authority, text, QStringLiteral("some.pem"), &error), taken);
    }

    void olderKeyKeepsItsHeaders()
    {
        QString error;
        const QString key = pemtexts::block(QStringLiteral("RSA PRIVATE KEY"),
                                            QStringLiteral("Comment: mine\n\nQUJD"));
        QCOMPARE(pemFromText(PemKind::Key, key, QStringLiteral("some.pem"), &error), key);
    }

    void textIsRefusedWithAReason_data()
    {
        QTest::addColumn<PemKind>("kind");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("reason");
        for (const char *body :
             {"QUJD\n</ca>\nup /tmp/script", "QUJD\nup /tmp/script", "QUJD QUJD",
              "QUJD===", "QQ==QUJD", "Comment:mine\n\nQUJD", "QUJ\xc4", "Comment: <\n\nQUJD",
              "QUJD\n-----END PRIVATE KEY-----\nQUJD", "QU\aJD"}) {
            QTest::newRow(body) << PemKind::Authority
                                << pemtexts::certificate(QString::fromLatin1(body)) << kDamaged;
        }
        QTest::newRow("no block") << PemKind::Authority << QStringLiteral("QUJD\n")
                                  << kNoCertificate;
        QTest::newRow("block without end")
            << PemKind::Authority << QStringLiteral("-----BEGIN CERTIFICATE-----\nQUJD\n")
            << kNoCertificate;
        QTest::newRow("key as ca") << PemKind::Authority << pemtexts::key() << kNoCertificate;
        QTest::newRow("key as cert") << PemKind::Certificate << pemtexts::key() << kNoCertificate;
        QTest::newRow("cert as key")
            << PemKind::Key << pemtexts::certificate()
            << QStringLiteral("some.pem holds no private key in PEM form (\"-----BEGIN ...\").");
        const QString encrypted =
            QStringLiteral("The key in some.pem is encrypted, and the daemon cannot ask for its "
                           "pass phrase; store it decrypted.");
        QTest::newRow("encrypted, PKCS 8")
            << PemKind::Key << pemtexts::block(QStringLiteral("ENCRYPTED PRIVATE KEY"))
            << encrypted;
        QTest::newRow("encrypted, older form")
            << PemKind::Key
            << pemtexts::block(
                   QStringLiteral("RSA PRIVATE KEY"),
                   QStringLiteral("Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-256-CBC,00\n\nQUJD"))
            << encrypted;
    }

    void textIsRefusedWithAReason()
    {
        QFETCH(PemKind, kind);
        QFETCH(QString, text);
        QFETCH(QString, reason);
        QString error;
        QCOMPARE(pemFromText(kind, text, QStringLiteral("some.pem"), &error), std::nullopt);
        QCOMPARE(error, reason);
    }

    void fileOfTheFolderIsReadUpToOneMebibyte()
    {
        QTemporaryDir folder;
        QFile file(folder.filePath(QStringLiteral("ca.crt")));
        const auto read = [&folder](QString *error) {
            return pemFromFile(PemKind::Authority, QStringLiteral("ca.crt"), QDir(folder.path()),
                               error);
        };
        QString error;
        QCOMPARE(read(&error), std::nullopt);
        QCOMPARE(error,
                 QStringLiteral("Cannot read the ca file %1: No such file or directory.")
                     .arg(file.fileName()));

        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
        const QByteArray certificate = pemtexts::certificate().toLatin1();
        file.write(QByteArray(1'048'576 - certificate.size() - 1, 'x') + '\n' + certificate);
        QCOMPARE(read(&error), pemtexts::certificate());
        file.write("\n");
        QCOMPARE(read(&error), std::nullopt);
        QCOMPARE(error,
                 QStringLiteral("The ca file %1 is too large; at most 1 MiB is read.")
                     .arg(file.fileName()));
    }
};

QTEST_GUILESS_MAIN(VpnctlPem)
#include "tst_pem.moc"
