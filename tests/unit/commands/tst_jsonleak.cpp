#include "jsonleak.h"

#include <QtCore/QJsonDocument>
#include <QtTest/QtTest>

/// Which texts Qt's parser must not see. Built with the leak sanitizer, the texts that it may see
/// are parsed too, so that a text taken for harmless by mistake shows as a leak.
class JsonLeak : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void onlyAContainerWhoseKeyComesAgainIsLost_data()
    {
        QTest::addColumn<bool>("isLost");
        const auto row = [](bool isLost, const char *text) { QTest::newRow(text) << isLost; };
        row(true, "{'a':{'b':1},'a':1}");
        row(true, "{'a':[1],'a':'b'}");
        row(true, "{'a':[1],'b':2,'a':[1]}");
        row(true, "{'a':1,'a':[1],'a':2}");
        row(true, "{'c':[{'a':{'b':1},'a':{}}]}");
        row(true, "{'a':{'b':1},'\\u0061':1}");
        row(true, "{'\\u0061':{'b':1},'a':1}");
        row(true, "{'a\\'':[1],'a\\'':1}");
        row(true, "{'c':{'a':[1],'a':2},'d"); // cut short, but c has been read by then
        row(false, "{'a':1,'a':2}");
        row(false, "{'a':1,'a':{'b':1}}"); // the last value stays
        row(false, "{'a':{'a':1},'b':{'a':1}}");
        row(false, "{'a':{'b':1},'b':1}");
        row(false, "{'a':[1,'a',2],'b':'a'}");
        row(false, "['a',['a'],'a',['a'],'a']");
        row(false, "{'a':'{','b':'\\'a\\':[','a':1}");
        row(false, "{'a':[1],'\\u0062':1}");
        row(false, "}],'a':[1],'a':1");
        row(false, "{'a");
        row(false, "");
    }

    void onlyAContainerWhoseKeyComesAgainIsLost()
    {
        QFETCH(bool, isLost);
        const QByteArray json = QByteArray(QTest::currentDataTag()).replace('\'', '"');
        QCOMPARE(losesMemory(json), isLost);
        if (!isLost)
            QJsonDocument::fromJson(json);
    }

    /// A text that is open on very many levels is as long as a frame may be, and no longer.
    void depthHasNoLimit() { QVERIFY(!losesMemory(QByteArray(250'000, '['))); }
};

QTEST_GUILESS_MAIN(JsonLeak)
#include "tst_jsonleak.moc"
