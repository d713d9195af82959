#pragma once

#include <QString>
#include <QStringList>
#include <cstdint>
#include <vector>

#include "serial/isectionconnection.h"
#include "serial/serialmessage.h"

namespace Velmora::Worksurface {
class ISectionStateListener;
}

// Stands for one section's link supervisor under the surface: records every call, and can
// play the link reporting a state change or update progress to its listener. Several
// connections (and fake sections) can share one call log to check the order of calls
// across them; entries read "connection 1: open", "connection 1: destroyed", ...
class FakeSectionConnection : public Velmora::Worksurface::ISectionConnection
{
public:
    explicit FakeSectionConnection(uint8_t sectionIndex, QStringList* callLog = nullptr);
    ~FakeSectionConnection() override;

    uint8_t sectionIndex() const override { return m_sectionIndex; }
    uint8_t state() const override { return m_state; }
    void open() override;
    void close() override;
    void startCalibration() override;
    void stopCalibration() override;
    void enqueueMessage(const Velmora::Worksurface::SerialMessage& message) override;
    void setStateListener(Velmora::Worksurface::ISectionStateListener* listener) override;

    // Changes what state() answers, without telling the listener.
    void setState(uint8_t state) { m_state = state; }
    // Changes the state and tells the listener, as the link does on a transition. False
    // when no listener is set.
    bool reportState(uint8_t state);
    // Tells the listener of the updater's progress. False when no listener is set.
    bool reportProgress(uint8_t percent);
    bool reportSentMessageCount(uint64_t count);

    Velmora::Worksurface::ISectionStateListener* stateListener() const { return m_listener; }
    // Every listener set, in order (null included).
    const std::vector<Velmora::Worksurface::ISectionStateListener*>& listenersSet() const
    {
        return m_listenersSet;
    }
    const std::vector<Velmora::Worksurface::SerialMessage>& enqueued() const { return m_enqueued; }
    int openCount() const { return m_openCount; }
    int closeCount() const { return m_closeCount; }
    int calibrationCount() const { return m_calibrationCount; }

private:
    void log(const QString& what);

    const uint8_t m_sectionIndex;
    QStringList* m_callLog;
    uint8_t m_state = Closed;
    Velmora::Worksurface::ISectionStateListener* m_listener = nullptr;
    std::vector<Velmora::Worksurface::ISectionStateListener*> m_listenersSet;
    std::vector<Velmora::Worksurface::SerialMessage> m_enqueued;
    int m_openCount = 0;
    int m_closeCount = 0;
    int m_calibrationCount = 0;
};
