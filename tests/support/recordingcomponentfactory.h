#pragma once

#include <QStringList>
#include <cstdint>
#include <memory>
#include <vector>

#include "surface/icomponentfactory.h"

// Records every component the section factory asks for, in order, and passes the request
// on to a real factory (or answers empty pointers when it has none). Each call is one line
// "createFader 1 3" (operation, type value, index); the section index and the sender of
// each call are kept alongside.
class RecordingComponentFactory : public Velmora::Worksurface::IComponentFactory
{
public:
    explicit RecordingComponentFactory(
        std::unique_ptr<Velmora::Worksurface::IComponentFactory> inner = nullptr,
        QStringList* callLog = nullptr);
    ~RecordingComponentFactory() override;

    std::shared_ptr<Velmora::Worksurface::IMeter> createMeter(const Sender& sender, uint8_t section,
                                                              int32_t type, uint8_t index) override;
    std::shared_ptr<Velmora::Worksurface::IPot> createPot(const Sender& sender, uint8_t section,
                                                          int32_t type, uint8_t index) override;
    std::shared_ptr<Velmora::Worksurface::IRgbLed> createRgbLed(const Sender& sender,
                                                                uint8_t section, int32_t type,
                                                                uint8_t index) override;
    std::shared_ptr<Velmora::Worksurface::ILed> createLed(const Sender& sender, uint8_t section,
                                                          int32_t type, uint8_t index) override;
    std::shared_ptr<Velmora::Worksurface::IRotary> createRotary(const Sender& sender,
                                                                uint8_t section, int32_t type,
                                                                uint8_t index) override;
    std::shared_ptr<Velmora::Worksurface::IButton> createButton(const Sender& sender,
                                                                uint8_t section, int32_t type,
                                                                uint8_t index) override;
    std::shared_ptr<Velmora::Worksurface::IFader> createFader(const Sender& sender, uint8_t section,
                                                              int32_t type, uint8_t index) override;

    // The calls as lines, and the section index and sender of each, in the same order.
    QStringList calls;
    std::vector<uint8_t> sections;
    std::vector<Sender> senders;

private:
    void record(const char* operation, const Sender& sender, uint8_t section, int32_t type,
                uint8_t index);

    std::unique_ptr<Velmora::Worksurface::IComponentFactory> m_inner;
    QStringList* m_callLog;
};
