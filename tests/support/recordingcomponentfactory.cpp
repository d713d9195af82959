#include "support/recordingcomponentfactory.h"

#include "surface/ibutton.h"
#include "surface/ifader.h"
#include "surface/iled.h"
#include "surface/imeter.h"
#include "surface/ipot.h"
#include "surface/irgbled.h"
#include "surface/irotary.h"

using namespace Velmora::Worksurface;

RecordingComponentFactory::RecordingComponentFactory(std::unique_ptr<IComponentFactory> inner,
                                                     QStringList* callLog)
    : m_inner(std::move(inner)), m_callLog(callLog)
{}

RecordingComponentFactory::~RecordingComponentFactory() = default;

void RecordingComponentFactory::record(const char* operation, const Sender& sender, uint8_t section,
                                       int32_t type, uint8_t index)
{
    const QString line = QStringLiteral("%1 %2 %3").arg(operation).arg(type).arg(index);
    calls << line;
    sections.push_back(section);
    senders.push_back(sender);
    if (m_callLog) {
        m_callLog->append(line);
    }
}

std::shared_ptr<IMeter> RecordingComponentFactory::createMeter(const Sender& sender,
                                                               uint8_t section, int32_t type,
                                                               uint8_t index)
{
    record("createMeter", sender, section, type, index);
    return m_inner ? m_inner->createMeter(sender, section, type, index) : nullptr;
}

std::shared_ptr<IPot> RecordingComponentFactory::createPot(const Sender& sender, uint8_t section,
                                                           int32_t type, uint8_t index)
{
    record("createPot", sender, section, type, index);
    return m_inner ? m_inner->createPot(sender, section, type, index) : nullptr;
}

std::shared_ptr<IRgbLed> RecordingComponentFactory::createRgbLed(const Sender& sender,
                                                                 uint8_t section, int32_t type,
                                                                 uint8_t index)
{
    record("createRgbLed", sender, section, type, index);
    return m_inner ? m_inner->createRgbLed(sender, section, type, index) : nullptr;
}

std::shared_ptr<ILed> RecordingComponentFactory::createLed(const Sender& sender, uint8_t section,
                                                           int32_t type, uint8_t index)
{
    record("createLed", sender, section, type, index);
    return m_inner ? m_inner->createLed(sender, section, type, index) : nullptr;
}

std::shared_ptr<IRotary> RecordingComponentFactory::createRotary(const Sender& sender,
                                                                 uint8_t section, int32_t type,
                                                                 uint8_t index)
{
    record("createRotary", sender, section, type, index);
    return m_inner ? m_inner->createRotary(sender, section, type, index) : nullptr;
}

std::shared_ptr<IButton> RecordingComponentFactory::createButton(const Sender& sender,
                                                                 uint8_t section, int32_t type,
                                                                 uint8_t index)
{
    record("createButton", sender, section, type, index);
    return m_inner ? m_inner->createButton(sender, section, type, index) : nullptr;
}

std::shared_ptr<IFader> RecordingComponentFactory::createFader(const Sender& sender,
                                                               uint8_t section, int32_t type,
                                                               uint8_t index)
{
    record("createFader", sender, section, type, index);
    return m_inner ? m_inner->createFader(sender, section, type, index) : nullptr;
}
