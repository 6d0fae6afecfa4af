#include "ovpntemplate.h"

#include <QtTest/QtTest>

/// The template, character by character; tst_ovpnconnection_text shows what it is filled with.
class TestOvpnTemplate : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void templateIsTheAgreedText()
    {
        const QString text = vpncore::ovpnTemplate();
        QCOMPARE(QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256).toHex(),
                 QByteArray("509930d0c2b2773c6949375fd66d49e6"
                            "f2312c61f877506f72265de50573a8a4"));
    }
};

QTEST_GUILESS_MAIN(TestOvpnTemplate)
#include "tst_ovpntemplate.moc"
