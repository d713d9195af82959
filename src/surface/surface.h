#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "serial/isectionstatelistener.h"
#include "surface/isurface.h"
#include "tasks/threadaffinity.h"

namespace Velmora::Worksurface {

class ISection;
class ISectionConnection;

// The running worksurface: its sections and their links, in section-index order. It fans
// brightness, rest mode, start, stop and calibration out to every section or link, hears
// every link's state, and finds a control's component for the bindings.
class Surface : public ISurface, public ISectionStateListener
{
    Q_OBJECT
public:
    Surface(std::vector<std::shared_ptr<ISection>> sections,
            std::vector<std::shared_ptr<ISectionConnection>> connections);
    ~Surface() override;

    bool isCalibrating() const override;
    void setSurfaceBrightness(uint8_t brightness) override;
    void setSurfaceOverBrightness(uint8_t brightness) override;
    void start() override;
    void stop() override;
    std::vector<std::shared_ptr<ISectionConnection>> sectionLinks() const override
    {
        return m_connections;
    }
    void setFaderRestMode(RestMode mode) override;
    std::shared_ptr<IMeter> meter(int32_t type, int section) const override;
    std::shared_ptr<IPot> pot(int32_t type, int section) const override;
    std::shared_ptr<IRotary> rotary(int32_t type, int section, int index) const override;
    std::shared_ptr<IButton> button(int32_t type, int section, int index) const override;
    std::shared_ptr<IFader> fader(int32_t type, int section, int index) const override;
    std::shared_ptr<IRgbLed> rgbLed(int32_t type, int section, int index) const override;
    std::shared_ptr<ILed> led(int32_t type, int section, int index) const override;
    int offerGlobalTarget(int32_t type, int section, int index,
                          IGlobalRotaryBindingTarget* target) const override;
    void calibrate() override;

    void sectionStateChanged(uint8_t section, uint8_t state) override;
    void sectionUpdateProgress(uint8_t section, uint8_t value) override;
    void sentMessageCount(uint64_t) override {}
    void sectionPortChanged(uint8_t section, const QString& portName,
                            const QString& portError) override;
    void sectionUpdateResult(uint8_t section, int failureReason) override;

    const std::vector<std::shared_ptr<ISection>>& sections() const { return m_sections; }
    const std::vector<std::shared_ptr<ISectionConnection>>& connections() const
    {
        return m_connections;
    }

private:
    ISection* findSection(int index) const;
    void sendToEveryConnection(uint8_t type, uint8_t value);

    std::vector<std::shared_ptr<ISection>> m_sections;
    std::vector<std::shared_ptr<ISectionConnection>> m_connections;
    // QML-thread-only (docs/threads.md).
    const ThreadAffinity m_affinity;
    // State reports heard so far, per section index: a report that finds the count moved on
    // after a QML handler ran was overtaken by a newer one told from inside that handler.
    std::array<uint64_t, 256> m_stateReports{};
};

}  // namespace Velmora::Worksurface
