#include "software/qmlcontrollerconnection.h"

#include <algorithm>

#include "serial/iserialdatareceiver.h"
#include "serial/isoftwaresectionline.h"
#include "serial/isoftwareserialmessagehandler.h"
#include "software/isoftwaresection.h"

namespace Velmora::Worksurface {

namespace {

// What a simulated section without a section control reports in answer to the link's
// ping: fixed firmware version bytes and a temperature that tells the sections apart.
constexpr uint8_t kPingReplyVersionMajor = 10;
constexpr uint8_t kPingReplyVersionMinor = 34;
constexpr uint8_t kPingReplyTemperatureBase = 55;

}  // namespace

void QmlControllerConnection::addSoftwareHandler(ISoftwareSerialMessageHandler* handler)
{
    // A null entry would only be skipped on every offer.
    if (handler != nullptr) {
        m_handlers.push_back(handler);
    }
}

void QmlControllerConnection::removeSoftwareHandler(ISoftwareSerialMessageHandler* handler)
{
    if (handler == nullptr) {
        return;
    }
    if (m_dispatchDepth > 0) {
        // A message is being offered: keep the indices of the running loop stable.
        for (auto& entry : m_handlers) {
            if (entry == handler) {
                entry = nullptr;
                m_handlersNeedCompacting = true;
            }
        }
        return;
    }
    m_handlers.erase(std::remove(m_handlers.begin(), m_handlers.end(), handler), m_handlers.end());
}

std::size_t QmlControllerConnection::handlerCount() const
{
    return static_cast<std::size_t>(
        std::count_if(m_handlers.begin(), m_handlers.end(),
                      [](const ISoftwareSerialMessageHandler* h) { return h != nullptr; }));
}

void QmlControllerConnection::setDataReceiver(uint8_t sectionIndex, ISerialDataReceiver* receiver)
{
    TARVIX_ASSERT_THREAD(m_affinity);
    m_receivers.erase(sectionIndex);
    if (receiver != nullptr) {
        m_receivers.emplace(sectionIndex, receiver);
    }
}

void QmlControllerConnection::removeDataReceiver(uint8_t sectionIndex,
                                                 ISerialDataReceiver* receiver)
{
    const auto it = m_receivers.find(sectionIndex);
    if (it != m_receivers.end() && it->second == receiver) {
        m_receivers.erase(it);
    }
}

void QmlControllerConnection::clearDataReceivers()
{
    m_receivers.clear();
}

ISerialDataReceiver* QmlControllerConnection::dataReceiver(uint8_t sectionIndex) const
{
    const auto it = m_receivers.find(sectionIndex);
    return it == m_receivers.end() ? nullptr : it->second;
}

void QmlControllerConnection::sendBootloaderReply(uint8_t sectionIndex,
                                                  const BootloaderPacket& packet)
{
    deliver(sectionIndex, encodeBootloaderPacket(packet));
}

void QmlControllerConnection::sendToPlugin(uint8_t sectionIndex, const SerialMessage& message)
{
    TARVIX_ASSERT_THREAD(m_affinity);
    deliver(sectionIndex, encode(message));
}

void QmlControllerConnection::messageFromPlugin(uint8_t sectionIndex, const SerialMessage& message)
{
    TARVIX_ASSERT_THREAD(m_affinity);
    // Copied: a control may answer at once, and the plugin's reaction to that answer can
    // bring the next message back here before this call returns.
    const SerialMessage copy = message;
    remember(sectionIndex, copy);
    // A section that does not answer, or sits in its bootloader, does not take frames; what
    // was sent is still remembered for the controls that catch up later.
    if (const ISoftwareSection* played = section(sectionIndex)) {
        if (!played->isAnswering() || played->isInBootloader()) {
            return;
        }
    }
    dispatch(sectionIndex, copy);
}

void QmlControllerConnection::setSectionLine(uint8_t sectionIndex, ISoftwareSectionLine* line)
{
    m_lines.erase(sectionIndex);
    if (line != nullptr) {
        m_lines.emplace(sectionIndex, line);
    }
    if (ISoftwareSection* played = section(sectionIndex)) {
        played->lineReset();
    }
}

void QmlControllerConnection::removeSectionLine(uint8_t sectionIndex, ISoftwareSectionLine* line)
{
    const auto it = m_lines.find(sectionIndex);
    if (it != m_lines.end() && it->second == line) {
        m_lines.erase(it);
        if (ISoftwareSection* played = section(sectionIndex)) {
            played->lineReset();
        }
    }
}

bool QmlControllerConnection::isSectionPlugged(uint8_t sectionIndex) const
{
    const ISoftwareSection* played = section(sectionIndex);
    return played == nullptr || played->isPlugged();
}

bool QmlControllerConnection::takeBootloaderPacket(uint8_t sectionIndex,
                                                   const BootloaderPacket& packet)
{
    ISoftwareSection* played = section(sectionIndex);
    if (played == nullptr) {
        return false;
    }
    if (!played->isAnswering()) {
        return true;
    }
    if (!played->isInBootloader()) {
        return false;
    }
    played->bootloaderBytes(encodeBootloaderPacket(packet));
    return true;
}

void QmlControllerConnection::addSection(ISoftwareSection* section)
{
    if (section != nullptr &&
        std::find(m_sections.begin(), m_sections.end(), section) == m_sections.end()) {
        m_sections.push_back(section);
    }
}

void QmlControllerConnection::removeSection(ISoftwareSection* section)
{
    m_sections.erase(std::remove(m_sections.begin(), m_sections.end(), section), m_sections.end());
}

ISoftwareSection* QmlControllerConnection::section(uint8_t sectionIndex) const
{
    for (ISoftwareSection* candidate : m_sections) {
        if (candidate->playedSectionIndex() == sectionIndex) {
            return candidate;
        }
    }
    return nullptr;
}

void QmlControllerConnection::sectionPluggedChanged(uint8_t sectionIndex)
{
    const auto it = m_lines.find(sectionIndex);
    if (it != m_lines.end()) {
        it->second->pluggedChanged(isSectionPlugged(sectionIndex));
    }
}

void QmlControllerConnection::sendRawToPlugin(uint8_t sectionIndex, const QByteArray& bytes)
{
    TARVIX_ASSERT_THREAD(m_affinity);
    deliver(sectionIndex, bytes);
}

void QmlControllerConnection::replayLastMessage(uint8_t sectionIndex, uint8_t type,
                                                uint8_t deviceId)
{
    const auto it =
        std::find_if(m_lastMessages.begin(), m_lastMessages.end(), [&](const LastMessage& record) {
            return record.sectionIndex == sectionIndex && record.deviceId == deviceId &&
                   record.type == type;
        });
    if (it == m_lastMessages.end()) {
        return;
    }
    // Copied out of the records: offering it can add records and move the vector.
    const SerialMessage message = it->message;
    dispatch(sectionIndex, message);
}

void QmlControllerConnection::remember(uint8_t sectionIndex, const SerialMessage& message)
{
    for (auto& record : m_lastMessages) {
        if (record.sectionIndex == sectionIndex && record.deviceId == message.deviceId &&
            record.type == message.type) {
            record.message = message;
            return;
        }
    }
    m_lastMessages.push_back(LastMessage{sectionIndex, message.deviceId, message.type, message});
}

void QmlControllerConnection::dispatch(uint8_t sectionIndex, const SerialMessage& message)
{
    bool taken = false;
    ++m_dispatchDepth;
    // Controls registered while this message is offered see the next one, not this one.
    const std::size_t count = m_handlers.size();
    for (std::size_t i = 0; i < count && i < m_handlers.size(); ++i) {
        ISoftwareSerialMessageHandler* handler = m_handlers[i];
        if (handler != nullptr && handler->handleSoftwareMessage(sectionIndex, message)) {
            taken = true;
            break;
        }
    }
    --m_dispatchDepth;
    if (m_dispatchDepth == 0 && m_handlersNeedCompacting) {
        m_handlers.erase(std::remove(m_handlers.begin(), m_handlers.end(), nullptr),
                         m_handlers.end());
        m_handlersNeedCompacting = false;
    }

    if (!taken && message.type == MessageType::Ping) {
        const SerialMessage reply(MessageType::Ping, 0,
                                  {kPingReplyVersionMajor, kPingReplyVersionMinor,
                                   static_cast<uint8_t>(kPingReplyTemperatureBase + sectionIndex)},
                                  true);
        deliver(sectionIndex, encode(reply));
    }
}

void QmlControllerConnection::deliver(uint8_t sectionIndex, const QByteArray& bytes)
{
    // An unplugged section's bytes go nowhere.
    const auto line = m_lines.find(sectionIndex);
    if ((line != m_lines.end() && line->second->isDown()) || !isSectionPlugged(sectionIndex)) {
        return;
    }
    ISerialDataReceiver* receiver = dataReceiver(sectionIndex);
    if (receiver != nullptr) {
        receiver->dataReceived(bytes);
    }
}

}  // namespace Velmora::Worksurface
