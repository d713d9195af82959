#pragma once

#include <QString>
#include <cstdint>
#include <memory>

#include "serial/serialmessage.h"

namespace Velmora::Worksurface {

class FlightRecorder;
class ISectionStateListener;

// One section's link supervisor.
class ISectionConnection
{
public:
    // The link states, with the values reported to the state listener.
    enum State : uint8_t
    {
        Connected = 0,
        Closed = 1,
        Connecting = 2,
        Updating = 3,
        Calibrating = 4,
        SerialError = 5,
        NoResponse = 6,
    };

    virtual ~ISectionConnection() = default;
    virtual uint8_t sectionIndex() const = 0;
    virtual uint8_t state() const = 0;
    virtual void open() = 0;
    virtual void close() = 0;
    virtual void startCalibration() = 0;
    virtual void stopCalibration() = 0;
    virtual void enqueueMessage(const SerialMessage& message) = 0;
    virtual void setStateListener(ISectionStateListener* listener) = 0;
    // The link's flight recorder; null for a link that keeps none.
    virtual std::shared_ptr<FlightRecorder> recorder() const { return nullptr; }
    // The serial device the link uses; empty when it has none.
    virtual QString portName() const { return QString(); }
};

}  // namespace Velmora::Worksurface
