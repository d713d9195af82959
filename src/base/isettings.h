#pragma once

#include <QString>
#include <cstdint>

namespace Velmora::Worksurface {

// The values ISettings::type() holds. SurfaceSettings names the same values for QML.
enum class SurfaceType : uint8_t
{
    Hardware = 0,
    Software = 1
};

// The values ISettings::mode() holds: the console model. SurfaceSettings names the same
// values for QML.
enum class SurfaceMode : uint8_t
{
    Unknown = 0,
    K40 = 1,
    K60 = 2
};

// The worksurface configuration as the core reads it: surface type, console model (which
// fixes the sections, the master and the serial devices), debug output and the firmware
// image location.
class ISettings
{
public:
    virtual ~ISettings() = default;
    virtual uint8_t type() const = 0;
    virtual void setType(uint8_t type) = 0;
    virtual uint8_t mode() const = 0;
    virtual void setMode(uint8_t mode) = 0;
    virtual bool debugEnabled() const = 0;
    virtual void setDebugEnabled(bool enabled) = 0;
    virtual uint8_t maxResendCount() const = 0;
    virtual uint8_t sectionCount() const = 0;
    virtual uint8_t stripCount() const = 0;
    virtual uint8_t sideRotaryCount() const = 0;
    virtual uint8_t masterStripCount() const = 0;
    virtual uint8_t masterSectionIndex() const = 0;
    virtual QString serialPortName(uint8_t section) const = 0;
    virtual QString firmwarePath() const = 0;
    // How often, in milliseconds, a section's link tries to come back by itself after its
    // device failed or it stopped answering (0: it does not; the application reconnects).
    virtual int reconnectInterval() const = 0;
    // Negative values are taken as 0.
    virtual void setReconnectInterval(int intervalMs) = 0;
    // Entries each section link's flight recorder keeps (0: the links record nothing).
    // Read when the surface is built.
    virtual int traceCapacity() const = 0;
    // Negative values are taken as 0.
    virtual void setTraceCapacity(int capacity) = 0;
    // The folder a failing link saves its trace into; empty: none is saved by itself.
    // Read when the surface is built.
    virtual QString traceDirectory() const = 0;
    virtual void setTraceDirectory(const QString& directory) = 0;
    // How long, in milliseconds, an update waits for its bootloader's next byte before it
    // fails with StoppedAnswering (0: for ever). Read when an update begins.
    virtual int updateTimeout() const { return 0; }
    // Negative values are taken as 0.
    virtual void setUpdateTimeout(int /*timeoutMs*/) {}
    // Whether the sections' links run on the surface thread instead of the QML thread.
    // Read when the surface is built.
    virtual bool linkThread() const { return false; }
    virtual void setLinkThread(bool /*enabled*/) {}
};

}  // namespace Velmora::Worksurface
