#include "surface/surface.h"

#include "serial/isectionconnection.h"
#include "surface/deviceidtable.h"
#include "surface/ibutton.h"
#include "surface/ifader.h"
#include "surface/iled.h"
#include "surface/imeter.h"
#include "surface/ipot.h"
#include "surface/irgbled.h"
#include "surface/irotary.h"
#include "surface/isection.h"

namespace Velmora::Worksurface {

namespace {

// The first component of a section's list whose device id is the one the table gives.
template <typename List, typename Id>
auto findById(const List& list, uint8_t id, Id idOf) -> typename List::value_type
{
    if (id == DeviceIdTable::NoDevice) {
        return {};
    }
    for (const auto& component : list) {
        if (idOf(*component) == id) {
            return component;
        }
    }
    return {};
}

}  // namespace

Surface::Surface(std::vector<std::shared_ptr<ISection>> sections,
                 std::vector<std::shared_ptr<ISectionConnection>> connections)
    : m_sections(std::move(sections)), m_connections(std::move(connections))
{
    for (const auto& connection : m_connections) {
        connection->setStateListener(this);
    }
}

Surface::~Surface()
{
    // The links go first: a link that is torn down still reports its state to us and its
    // handlers (the components) must outlive it.
    for (const auto& connection : m_connections) {
        connection->setStateListener(nullptr);
    }
    m_connections.clear();
    m_sections.clear();
}

bool Surface::isCalibrating() const
{
    for (const auto& connection : m_connections) {
        if (connection->state() == ISectionConnection::Calibrating) {
            return true;
        }
    }
    return false;
}

void Surface::sendToEveryConnection(uint8_t type, uint8_t value)
{
    const SerialMessage message(type, 0, {value});
    for (const auto& connection : m_connections) {
        connection->enqueueMessage(message);
    }
}

void Surface::setSurfaceBrightness(uint8_t brightness)
{
    sendToEveryConnection(MessageType::SurfaceBrightness, brightness);
}

void Surface::setSurfaceOverBrightness(uint8_t brightness)
{
    sendToEveryConnection(MessageType::SurfaceOverBrightness, brightness);
}

void Surface::start()
{
    TARVIX_ASSERT_THREAD(m_affinity);
    for (const auto& connection : m_connections) {
        connection->open();
    }
}

void Surface::stop()
{
    TARVIX_ASSERT_THREAD(m_affinity);
    for (const auto& connection : m_connections) {
        connection->close();
    }
}

void Surface::setFaderRestMode(RestMode mode)
{
    for (const auto& section : m_sections) {
        section->setFaderRestMode(mode);
    }
}

ISection* Surface::findSection(int index) const
{
    for (const auto& section : m_sections) {
        if (section->index() == index) {
            return section.get();
        }
    }
    return nullptr;
}

std::shared_ptr<IMeter> Surface::meter(int32_t type, int section) const
{
    const ISection* found = findSection(section);
    if (!found) {
        return {};
    }
    return findById(found->meters(), DeviceIdTable::meter(type),
                    [](const IMeter& meter) { return meter.deviceId(); });
}

std::shared_ptr<IPot> Surface::pot(int32_t type, int section) const
{
    const ISection* found = findSection(section);
    if (!found || !DeviceIdTable::pot(type).exists()) {
        return {};
    }
    return found->pot();
}

std::shared_ptr<IRotary> Surface::rotary(int32_t type, int section, int index) const
{
    const ISection* found = findSection(section);
    if (!found) {
        return {};
    }
    return findById(found->rotaries(), DeviceIdTable::rotary(type, index).rotary,
                    [](const IRotary& rotary) { return rotary.rotaryDeviceId(); });
}

std::shared_ptr<IButton> Surface::button(int32_t type, int section, int index) const
{
    const ISection* found = findSection(section);
    if (!found) {
        return {};
    }
    return findById(found->buttons(), DeviceIdTable::button(type, index),
                    [](const IButton& button) { return button.deviceId(); });
}

std::shared_ptr<IFader> Surface::fader(int32_t type, int section, int index) const
{
    const ISection* found = findSection(section);
    if (!found) {
        return {};
    }
    return findById(found->faders(), DeviceIdTable::fader(type, index),
                    [](const IFader& fader) { return fader.deviceId(); });
}

std::shared_ptr<IRgbLed> Surface::rgbLed(int32_t type, int section, int index) const
{
    const ISection* found = findSection(section);
    if (!found) {
        return {};
    }
    return findById(found->rgbLeds(), DeviceIdTable::rgbLed(type, index),
                    [](const IRgbLed& led) { return led.deviceId(); });
}

std::shared_ptr<ILed> Surface::led(int32_t type, int section, int index) const
{
    const ISection* found = findSection(section);
    if (!found) {
        return {};
    }
    return findById(found->leds(), DeviceIdTable::led(type, index),
                    [](const ILed& led) { return led.deviceId(); });
}

int Surface::offerGlobalTarget(int32_t type, int section, int index,
                               IGlobalRotaryBindingTarget* target) const
{
    const auto found = rotary(type, section, index);
    return found ? found->setGlobalTarget(target) : IRotary::Refused;
}

void Surface::calibrate()
{
    TARVIX_ASSERT_THREAD(m_affinity);
    for (const auto& connection : m_connections) {
        connection->startCalibration();
    }
}

void Surface::sectionStateChanged(uint8_t section, uint8_t state)
{
    TARVIX_ASSERT_THREAD(m_affinity);
    // The section's info is written before anything is emitted, so that every handler reads
    // the state it is being told about. A handler may change the link's state again (QML
    // that calibrates on isCalibratingChanged or on updatingChanged): the link tells us of
    // that change from inside the handler, and that newer report writes the info. What is
    // left of this older report must then not write its state over it.
    const uint64_t report = ++m_stateReports[section];
    if (ISection* found = findSection(section)) {
        found->setUpdating(state == ISectionConnection::Updating);
        if (m_stateReports[section] == report) {
            found->setLinkState(state);
        }
    }
    // Every state change may end or begin a calibration somewhere; QML re-reads the flag.
    emit isCalibratingChanged();
}

void Surface::sectionPortChanged(uint8_t section, const QString& portName, const QString& portError)
{
    if (ISection* found = findSection(section)) {
        found->setPort(portName, portError);
    }
}

void Surface::sectionUpdateResult(uint8_t section, int failureReason)
{
    if (ISection* found = findSection(section)) {
        found->setUpdateResult(failureReason);
    }
}

void Surface::sectionUpdateProgress(uint8_t section, uint8_t value)
{
    if (ISection* found = findSection(section)) {
        found->setUpdateProgress(value);
    }
}

}  // namespace Velmora::Worksurface
