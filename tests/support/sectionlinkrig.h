#pragma once

#include <QByteArray>
#include <QList>
#include <cstdint>
#include <memory>
#include <utility>

#include "base/logger.h"
#include "serial/rootserialmessagehandler.h"
#include "serial/sectionconnection.h"
#include "serial/serialmessagequeue.h"
#include "support/fakesectionupdater.h"
#include "support/fakeserialconnection.h"
#include "support/fakeserialmessagehandler.h"
#include "support/fakesettings.h"
#include "support/recordingstatelistener.h"

// One section link wired as the connection factory wires it: a stand-in line, updater and
// component (which takes the messages of one device id), a real root handler and queue,
// and a task pool of the test's choosing (a real one, or one that checks every call). The
// link reports its states to a recording listener. Time moves and the pool ticks only when
// the test says so.
template <typename Pool>
struct SectionLinkRig
{
    SectionLinkRig(uint8_t section, uint8_t componentId)
    {
        component->takeDevice(componentId);
        root->addHandler(component);
        auto fakeUpdater = std::make_unique<FakeSectionUpdater>();
        updater = fakeUpdater.get();
        link = std::make_shared<Velmora::Worksurface::SectionConnection>(
            section, root, queue, line, pool, std::move(fakeUpdater), logger);
        line->setDataReceiver(link.get());
        link->setStateListener(&listener);
    }
    ~SectionLinkRig() { line->setDataReceiver(nullptr); }
    SectionLinkRig(const SectionLinkRig&) = delete;
    SectionLinkRig& operator=(const SectionLinkRig&) = delete;

    // Bytes from the section; false if the line is closed and drops them.
    bool push(const QByteArray& bytes) { return line->pushData(bytes); }

    // Every state reported, in order.
    QList<int> states() const
    {
        QList<int> result;
        for (uint8_t state : listener.states()) {
            result << state;
        }
        return result;
    }

    RecordingStateListener listener;
    std::shared_ptr<FakeSettings> settings = std::make_shared<FakeSettings>();
    std::shared_ptr<Velmora::Worksurface::Logger> logger =
        std::make_shared<Velmora::Worksurface::Logger>(settings);
    std::shared_ptr<Velmora::Worksurface::RootSerialMessageHandler> root =
        std::make_shared<Velmora::Worksurface::RootSerialMessageHandler>();
    std::shared_ptr<FakeSerialMessageHandler> component =
        std::make_shared<FakeSerialMessageHandler>();
    std::shared_ptr<Velmora::Worksurface::SerialMessageQueue> queue =
        std::make_shared<Velmora::Worksurface::SerialMessageQueue>();
    std::shared_ptr<FakeSerialConnection> line = std::make_shared<FakeSerialConnection>();
    std::shared_ptr<Pool> pool = std::make_shared<Pool>();
    FakeSectionUpdater* updater = nullptr;
    std::shared_ptr<Velmora::Worksurface::SectionConnection> link;
};
