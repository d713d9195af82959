#include <QStringList>
#include <QtTest/QtTest>
#include <memory>

#include "serial/rootserialmessagehandler.h"
#include "serial/serialmessage.h"
#include "support/fakeserialmessagehandler.h"

using namespace Velmora::Worksurface;

class TestRootSerialMessageHandler : public QObject
{
    Q_OBJECT

private slots:
    void handleMessageWithoutHandlersReturnsFalse();
    void handleMessageOffersToHandlersInRegistrationOrder();
    void firstHandlerThatAcceptsHidesMessageFromLaterOnes();
    void handleMessageReturnsFalseWhenNoHandlerAccepts();
    void addingSameHandlerTwiceRegistersItOnce();
    void sameHandlerAddedAgainKeepsItsFirstPosition();
    void distinctHandlersOfEqualBehaviourAreBothRegistered();
    void nullHandlerIsIgnored();
    void setLinkReadyReachesEveryHandlerInOrder();
    void messageIsPassedUnchanged();
};

void TestRootSerialMessageHandler::handleMessageWithoutHandlersReturnsFalse()
{
    RootSerialMessageHandler root;
    QVERIFY(!root.handleMessage(SerialMessage(MessageType::FaderPosition, 1, {0, 1})));
}

void TestRootSerialMessageHandler::handleMessageOffersToHandlersInRegistrationOrder()
{
    QStringList log;
    RootSerialMessageHandler root;
    auto a = std::make_shared<FakeSerialMessageHandler>("a", &log);
    auto b = std::make_shared<FakeSerialMessageHandler>("b", &log);
    auto c = std::make_shared<FakeSerialMessageHandler>("c", &log);
    root.addHandler(b);
    root.addHandler(a);
    root.addHandler(c);

    QVERIFY(!root.handleMessage(SerialMessage(MessageType::ButtonState, 9, {1})));
    QCOMPARE(log, (QStringList{"b", "a", "c"}));
}

void TestRootSerialMessageHandler::firstHandlerThatAcceptsHidesMessageFromLaterOnes()
{
    QStringList log;
    RootSerialMessageHandler root;
    auto first = std::make_shared<FakeSerialMessageHandler>("first", &log);
    auto taker = std::make_shared<FakeSerialMessageHandler>("taker", &log);
    auto alsoTaker = std::make_shared<FakeSerialMessageHandler>("alsoTaker", &log);
    auto last = std::make_shared<FakeSerialMessageHandler>("last", &log);
    taker->takeDevice(4);
    alsoTaker->takeDevice(4);
    root.addHandler(first);
    root.addHandler(taker);
    root.addHandler(alsoTaker);
    root.addHandler(last);

    QVERIFY(root.handleMessage(SerialMessage(MessageType::FaderPosition, 4, {1, 44})));
    QCOMPARE(log, (QStringList{"first", "taker"}));
    QCOMPARE(taker->taken().size(), std::size_t{1});
    QCOMPARE(alsoTaker->offerCount(), 0);
    QCOMPARE(last->offerCount(), 0);

    // A message the taker does not want goes on down the line.
    log.clear();
    QVERIFY(!root.handleMessage(SerialMessage(MessageType::FaderPosition, 5, {1, 44})));
    QCOMPARE(log, (QStringList{"first", "taker", "alsoTaker", "last"}));
}

void TestRootSerialMessageHandler::handleMessageReturnsFalseWhenNoHandlerAccepts()
{
    RootSerialMessageHandler root;
    auto a = std::make_shared<FakeSerialMessageHandler>();
    auto b = std::make_shared<FakeSerialMessageHandler>();
    root.addHandler(a);
    root.addHandler(b);
    QVERIFY(!root.handleMessage(SerialMessage(MessageType::RotaryStep, 3, {0xff})));
    QCOMPARE(a->offerCount(), 1);
    QCOMPARE(b->offerCount(), 1);
}

void TestRootSerialMessageHandler::addingSameHandlerTwiceRegistersItOnce()
{
    RootSerialMessageHandler root;
    auto handler = std::make_shared<FakeSerialMessageHandler>();
    root.addHandler(handler);
    root.addHandler(handler);
    QCOMPARE(root.handlerCount(), std::size_t{1});

    QVERIFY(!root.handleMessage(SerialMessage(MessageType::FaderTouch, 2, {1})));
    QCOMPARE(handler->offerCount(), 1);
    root.setLinkReady(true);
    QCOMPARE(handler->linkReadyCalls(), std::vector<bool>{true});
}

void TestRootSerialMessageHandler::sameHandlerAddedAgainKeepsItsFirstPosition()
{
    QStringList log;
    RootSerialMessageHandler root;
    auto a = std::make_shared<FakeSerialMessageHandler>("a", &log);
    auto b = std::make_shared<FakeSerialMessageHandler>("b", &log);
    root.addHandler(a);
    root.addHandler(b);
    root.addHandler(a);
    QCOMPARE(root.handlerCount(), std::size_t{2});
    root.handleMessage(SerialMessage(MessageType::FaderTouch, 2, {1}));
    QCOMPARE(log, (QStringList{"a", "b"}));
}

void TestRootSerialMessageHandler::distinctHandlersOfEqualBehaviourAreBothRegistered()
{
    RootSerialMessageHandler root;
    auto a = std::make_shared<FakeSerialMessageHandler>();
    auto b = std::make_shared<FakeSerialMessageHandler>();
    root.addHandler(a);
    root.addHandler(b);
    QCOMPARE(root.handlerCount(), std::size_t{2});
}

void TestRootSerialMessageHandler::nullHandlerIsIgnored()
{
    RootSerialMessageHandler root;
    root.addHandler(nullptr);
    QCOMPARE(root.handlerCount(), std::size_t{0});
    QVERIFY(!root.handleMessage(SerialMessage(MessageType::Ping, 0)));
    root.setLinkReady(false);
}

void TestRootSerialMessageHandler::setLinkReadyReachesEveryHandlerInOrder()
{
    QStringList log;
    RootSerialMessageHandler root;
    auto a = std::make_shared<FakeSerialMessageHandler>("a", &log);
    auto b = std::make_shared<FakeSerialMessageHandler>("b", &log);
    auto c = std::make_shared<FakeSerialMessageHandler>("c", &log);
    // A handler that takes everything does not stop the link-ready broadcast.
    a->takeAll(true);
    root.addHandler(a);
    root.addHandler(b);
    root.addHandler(c);

    root.setLinkReady(false);
    root.setLinkReady(true);
    QCOMPARE(log, (QStringList{"a:notready", "b:notready", "c:notready", "a:ready", "b:ready",
                               "c:ready"}));
    QCOMPARE(c->linkReadyCalls(), (std::vector<bool>{false, true}));
}

void TestRootSerialMessageHandler::messageIsPassedUnchanged()
{
    RootSerialMessageHandler root;
    auto handler = std::make_shared<FakeSerialMessageHandler>();
    handler->takeAll(true);
    root.addHandler(handler);
    const SerialMessage message(MessageType::Echo, 77, {1, 2, 3});
    QVERIFY(root.handleMessage(message));
    QCOMPARE(handler->offered().size(), std::size_t{1});
    QVERIFY(handler->offered().front() == message);
    QVERIFY(handler->offered().front().variableLength);
}

QTEST_GUILESS_MAIN(TestRootSerialMessageHandler)
#include "tst_rootserialmessagehandler.moc"
