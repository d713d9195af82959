// JsonLine writes the lines of the bench tool's --json output and of the trace files: keys in
// the order they were added, plain text quoted as it is, anything else escaped as JSON wants.
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest/QtTest>

#include "base/jsonline.h"

using namespace Velmora::Worksurface;

class TestJsonLine : public QObject
{
    Q_OBJECT

private slots:
    void keysKeepTheOrderTheyWereAddedIn();
    void textThatNeedsEscapingIsEscaped();
    void arraysJoinTheirValuesAndAnEmptyOneIsBrackets();
    void appendPutsAnotherLinesKeysAfterThese();
};

void TestJsonLine::keysKeepTheOrderTheyWereAddedIn()
{
    const QByteArray json = JsonLine()
                                .add("z", 1)
                                .add("a", QStringLiteral("fader 3"))
                                .add("m", true)
                                .addFixed("t", 1.5, 6)
                                .add("n", JsonLine().add("version", 34))
                                .add("big", qint64(1) << 40)
                                .toJson();
    QCOMPARE(json, QByteArray(R"({"z":1,"a":"fader 3","m":true,"t":1.500000,)"
                              R"("n":{"version":34},"big":1099511627776})"));
}

void TestJsonLine::textThatNeedsEscapingIsEscaped()
{
    const QString text = QStringLiteral("say \"hi\"\\\n\u00e9");
    const QByteArray json = JsonLine().add("port", text).toJson();
    QCOMPARE(json, QByteArray(R"({"port":"say \"hi\"\\\n)") + QString(QChar(0xe9)).toUtf8() +
                       QByteArray(R"("})"));
    // And it reads back as it was.
    QCOMPARE(QJsonDocument::fromJson(json).object().value(QLatin1String("port")).toString(), text);
}

void TestJsonLine::arraysJoinTheirValuesAndAnEmptyOneIsBrackets()
{
    QCOMPARE(JsonLine().addArray("ports", {}).toJson(), QByteArray(R"({"ports":[]})"));
    QCOMPARE(JsonLine()
                 .addArray("ports", {JsonLine().add("section", 0).toJson(), "2", "\"x\""})
                 .add("after", 1)
                 .toJson(),
             QByteArray(R"({"ports":[{"section":0},2,"x"],"after":1})"));
}

void TestJsonLine::appendPutsAnotherLinesKeysAfterThese()
{
    QCOMPARE(JsonLine().add("a", 1).append(JsonLine().add("b", 2)).toJson(),
             QByteArray(R"({"a":1,"b":2})"));
    QCOMPARE(JsonLine().append(JsonLine().add("b", 2)).toJson(), QByteArray(R"({"b":2})"));
    QCOMPARE(JsonLine().add("a", 1).append(JsonLine()).toJson(), QByteArray(R"({"a":1})"));
}

QTEST_GUILESS_MAIN(TestJsonLine)
#include "tst_jsonline.moc"
