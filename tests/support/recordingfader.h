#pragma once

#include <QString>
#include <QStringList>
#include <cstdint>
#include <memory>

#include "surface/ifader.h"

// A fader stand-in for tests of what holds faders (sections, the surface): it has an
// identity (section index, device id, type) and records the calls it gets, into its own
// list and, when given, into a log shared with other stand-ins, as "fader 1/3: setRestMode
// 1" (section/device). It takes no messages and gives out no handle.
class RecordingFader : public Velmora::Worksurface::IFader
{
public:
    RecordingFader(uint8_t sectionIndex, uint8_t deviceId,
                   Velmora::Worksurface::FaderType type = Velmora::Worksurface::FaderType::Fader,
                   QStringList* callLog = nullptr);
    ~RecordingFader() override;

    bool handleMessage(const Velmora::Worksurface::SerialMessage& message) override;
    void setLinkReady(bool ready) override;
    uint8_t deviceId() const override { return m_deviceId; }
    uint8_t sectionIndex() const override { return m_sectionIndex; }
    Velmora::Worksurface::FaderType faderType() const override { return m_type; }
    bool touched() const override { return false; }
    void setPosition(uint16_t position) override;
    void setDetent(uint16_t position) override;
    void setBackstop(uint16_t position) override;
    void setDriveMode(int32_t mode) override;
    void setRestMode(int32_t mode) override;
    void setLockEnabled(bool enabled) override;
    void setLockPosition(uint16_t position) override;
    std::shared_ptr<FaderHandle> getHandle() override;
    uint16_t releaseHandle(FaderHandle* handle) override;

    // The calls, without the "fader s/id: " prefix.
    QStringList calls;

private:
    void log(const QString& what);

    const uint8_t m_sectionIndex;
    const uint8_t m_deviceId;
    const Velmora::Worksurface::FaderType m_type;
    QStringList* m_callLog;
};
