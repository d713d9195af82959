#pragma once

#include <QString>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/isettings.h"
#include "base/logger.h"
#include "serial/hardwareserialconnection.h"
#include "serial/rootserialmessagehandler.h"
#include "serial/sectionconnection.h"
#include "serial/serialmessagequeue.h"
#include "support/fakeserialmessagehandler.h"
#include "support/recordingstatelistener.h"
#include "tasks/taskpool.h"
#include "updater/sectionupdater.h"

// A section connection whose updater failures are recorded in order, also when no state
// listener is set (the section connection only passes them on to its listener).
class FailureRecordingSectionConnection : public Velmora::Worksurface::SectionConnection
{
public:
    using SectionConnection::SectionConnection;

    void failed(int reason) override
    {
        m_failures.push_back(reason);
        SectionConnection::failed(reason);
    }
    const std::vector<int>& failures() const { return m_failures; }

private:
    std::vector<int> m_failures;
};

// One hardware section's link assembled the way the connection factory does it, on a
// serial device of the test's choice (the slave of a PtySectionSimulator): a section
// connection on a HardwareSerialConnection, the section's root handler with two component
// stand-ins, a real outgoing queue, a real firmware updater and the given task pool.
//
// - versionHandler takes the section's version report (type 0, device 0), as the section
//   object does;
// - controlHandler takes every message for the device ids in controlDeviceIds (a fader on
//   device 4 and a button on device 21 unless changed), as components do.
//
// The task pool is the caller's: tests drive it by hand under a ManualClock, benchmarks
// with its real 5 ms timer. Nothing is opened until the caller opens `section`.
struct PtySectionLink
{
    PtySectionLink(uint8_t sectionIndex, const QString& portName,
                   std::shared_ptr<Velmora::Worksurface::ISettings> settings,
                   std::shared_ptr<Velmora::Worksurface::TaskPool> pool);
    ~PtySectionLink();
    PtySectionLink(const PtySectionLink&) = delete;
    PtySectionLink& operator=(const PtySectionLink&) = delete;

    // The connection's state as a plain number, for QCOMPARE.
    int state() const { return section->state(); }

    const uint8_t sectionIndex;
    std::shared_ptr<Velmora::Worksurface::ISettings> settings;
    std::shared_ptr<Velmora::Worksurface::Logger> logger;
    std::shared_ptr<Velmora::Worksurface::TaskPool> pool;
    std::shared_ptr<Velmora::Worksurface::RootSerialMessageHandler> root;
    std::shared_ptr<Velmora::Worksurface::SerialMessageQueue> queue;
    std::shared_ptr<FakeSerialMessageHandler> versionHandler;
    std::shared_ptr<FakeSerialMessageHandler> controlHandler;
    std::vector<uint8_t> controlDeviceIds{4, 21};
    std::shared_ptr<Velmora::Worksurface::HardwareSerialConnection> serial;
    // Owned by the section connection.
    Velmora::Worksurface::SectionUpdater* updater = nullptr;
    std::shared_ptr<FailureRecordingSectionConnection> section;
    RecordingStateListener listener;
};
