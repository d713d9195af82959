#include "serial/linkthreadcontroller.h"

#include <QByteArray>
#include <array>
#include <atomic>
#include <map>
#include <utility>

#include "serial/iserialdatareceiver.h"
#include "serial/isoftwaresectionline.h"
#include "tasks/threadmailbox.h"

namespace Velmora::Worksurface {

namespace {

// What a link registered for its section (nullptr: withdrew); true when it registered.
template <typename T>
bool noteRegistration(std::map<uint8_t, T*>& registered, uint8_t sectionIndex, T* value)
{
    if (value == nullptr) {
        registered.erase(sectionIndex);
        return false;
    }
    registered[sectionIndex] = value;
    return true;
}

// Withdraws a registration only if it is still the one given; false when it was not.
template <typename T>
bool forgetRegistration(std::map<uint8_t, T*>& registered, uint8_t sectionIndex, T* value)
{
    const auto it = registered.find(sectionIndex);
    if (it == registered.end() || it->second != value) {
        return false;
    }
    registered.erase(it);
    return true;
}

}  // namespace

struct LinkThreadController::Shared
{
    class Endpoint;

    // The QML thread's side.
    std::shared_ptr<ISoftwareControllerConnection> controller;
    std::weak_ptr<ThreadMailbox> qmlMailbox;
    bool detached = false;
    std::map<uint8_t, std::unique_ptr<Endpoint>> endpoints;

    // The links' thread's side: what the lines registered.
    std::weak_ptr<ThreadMailbox> linkMailbox;
    std::map<uint8_t, ISerialDataReceiver*> receivers;
    std::map<uint8_t, ISoftwareSectionLine*> lines;

    // Written on the QML thread, read by a line opening on the links' thread.
    std::array<std::atomic<bool>, 256> plugged{};

    Endpoint& endpoint(const std::shared_ptr<Shared>& self, uint8_t sectionIndex);
};

// What the controller talks to in a section line's place, on the QML thread.
class LinkThreadController::Shared::Endpoint : public ISerialDataReceiver,
                                               public ISoftwareSectionLine
{
public:
    Endpoint(std::weak_ptr<LinkThreadController::Shared> shared, uint8_t sectionIndex)
        : m_shared(std::move(shared)), m_sectionIndex(sectionIndex)
    {}

    void dataReceived(const QByteArray& data) override
    {
        toLine([data](ISerialDataReceiver* receiver, ISoftwareSectionLine* line) {
            // A line that went down hears nothing, as the controller drops bytes for a line
            // that is down beside it.
            if (receiver != nullptr && (line == nullptr || !line->isDown())) {
                receiver->dataReceived(data);
            }
        });
    }

    void pluggedChanged(bool plugged) override
    {
        if (const auto shared = m_shared.lock()) {
            shared->plugged[m_sectionIndex].store(plugged);
        }
        toLine([plugged](ISerialDataReceiver*, ISoftwareSectionLine* line) {
            if (line != nullptr) {
                line->pluggedChanged(plugged);
            }
        });
    }

    // The line's own state is checked on the links' thread as the bytes arrive there.
    bool isDown() const override { return false; }

private:
    template <typename Call>
    void toLine(Call call) const
    {
        const auto shared = m_shared.lock();
        const auto mailbox = shared ? shared->linkMailbox.lock() : nullptr;
        if (!mailbox) {
            return;
        }
        const uint8_t index = m_sectionIndex;
        mailbox->post([weak = m_shared, index, call = std::move(call)]() {
            const auto alive = weak.lock();
            if (!alive) {
                return;
            }
            const auto receiver = alive->receivers.find(index);
            const auto line = alive->lines.find(index);
            call(receiver == alive->receivers.end() ? nullptr : receiver->second,
                 line == alive->lines.end() ? nullptr : line->second);
        });
    }

    const std::weak_ptr<LinkThreadController::Shared> m_shared;
    const uint8_t m_sectionIndex;
};

auto LinkThreadController::Shared::endpoint(const std::shared_ptr<Shared>& self,
                                            uint8_t sectionIndex) -> Endpoint&
{
    std::unique_ptr<Endpoint>& slot = endpoints[sectionIndex];
    if (!slot) {
        slot = std::make_unique<Endpoint>(self, sectionIndex);
    }
    return *slot;
}

LinkThreadController::LinkThreadController(
    std::shared_ptr<ISoftwareControllerConnection> controller,
    std::weak_ptr<ThreadMailbox> qmlMailbox, std::weak_ptr<ThreadMailbox> linkMailbox)
    : m_shared(std::make_shared<Shared>())
{
    m_shared->controller = std::move(controller);
    m_shared->qmlMailbox = std::move(qmlMailbox);
    m_shared->linkMailbox = std::move(linkMailbox);
    for (std::size_t i = 0; i < m_shared->plugged.size(); ++i) {
        m_shared->plugged[i].store(m_shared->controller->isSectionPlugged(static_cast<uint8_t>(i)));
    }
}

LinkThreadController::~LinkThreadController() = default;

void LinkThreadController::detach()
{
    m_shared->detached = true;
    for (const auto& [index, endpoint] : m_shared->endpoints) {
        m_shared->controller->removeDataReceiver(index, endpoint.get());
        m_shared->controller->removeSectionLine(index, endpoint.get());
    }
}

template <typename Call>
void LinkThreadController::toController(Call call) const
{
    const auto mailbox = m_shared->qmlMailbox.lock();
    if (!mailbox) {
        return;
    }
    mailbox->post([weak = std::weak_ptr<Shared>(m_shared), call = std::move(call)]() {
        const auto shared = weak.lock();
        if (shared && !shared->detached) {
            call(*shared->controller, shared);
        }
    });
}

void LinkThreadController::addSoftwareHandler(ISoftwareSerialMessageHandler* handler)
{
    toController([handler](ISoftwareControllerConnection& controller, const auto&) {
        controller.addSoftwareHandler(handler);
    });
}

void LinkThreadController::setDataReceiver(uint8_t sectionIndex, ISerialDataReceiver* receiver)
{
    const bool registering = noteRegistration(m_shared->receivers, sectionIndex, receiver);
    toController([sectionIndex, registering](ISoftwareControllerConnection& controller,
                                             const std::shared_ptr<Shared>& shared) {
        controller.setDataReceiver(sectionIndex,
                                   registering ? &shared->endpoint(shared, sectionIndex) : nullptr);
    });
}

void LinkThreadController::removeDataReceiver(uint8_t sectionIndex, ISerialDataReceiver* receiver)
{
    if (!forgetRegistration(m_shared->receivers, sectionIndex, receiver)) {
        return;
    }
    toController([sectionIndex](ISoftwareControllerConnection& controller,
                                const std::shared_ptr<Shared>& shared) {
        controller.removeDataReceiver(sectionIndex, &shared->endpoint(shared, sectionIndex));
    });
}

void LinkThreadController::sendBootloaderReply(uint8_t sectionIndex, const BootloaderPacket& packet)
{
    toController([sectionIndex, packet](ISoftwareControllerConnection& controller, const auto&) {
        controller.sendBootloaderReply(sectionIndex, packet);
    });
}

void LinkThreadController::sendToPlugin(uint8_t sectionIndex, const SerialMessage& message)
{
    toController([sectionIndex, message](ISoftwareControllerConnection& controller, const auto&) {
        controller.sendToPlugin(sectionIndex, message);
    });
}

void LinkThreadController::messageFromPlugin(uint8_t sectionIndex, const SerialMessage& message)
{
    toController([sectionIndex, message](ISoftwareControllerConnection& controller, const auto&) {
        controller.messageFromPlugin(sectionIndex, message);
    });
}

void LinkThreadController::replayLastMessage(uint8_t sectionIndex, uint8_t type, uint8_t deviceId)
{
    toController(
        [sectionIndex, type, deviceId](ISoftwareControllerConnection& controller, const auto&) {
            controller.replayLastMessage(sectionIndex, type, deviceId);
        });
}

void LinkThreadController::setSectionLine(uint8_t sectionIndex, ISoftwareSectionLine* line)
{
    const bool registering = noteRegistration(m_shared->lines, sectionIndex, line);
    toController([sectionIndex, registering](ISoftwareControllerConnection& controller,
                                             const std::shared_ptr<Shared>& shared) {
        controller.setSectionLine(sectionIndex,
                                  registering ? &shared->endpoint(shared, sectionIndex) : nullptr);
        shared->plugged[sectionIndex].store(controller.isSectionPlugged(sectionIndex));
    });
}

void LinkThreadController::removeSectionLine(uint8_t sectionIndex, ISoftwareSectionLine* line)
{
    if (!forgetRegistration(m_shared->lines, sectionIndex, line)) {
        return;
    }
    toController([sectionIndex](ISoftwareControllerConnection& controller,
                                const std::shared_ptr<Shared>& shared) {
        controller.removeSectionLine(sectionIndex, &shared->endpoint(shared, sectionIndex));
    });
}

bool LinkThreadController::isSectionPlugged(uint8_t sectionIndex) const
{
    return m_shared->plugged[sectionIndex].load();
}

void LinkThreadController::bootloaderPacketFromPlugin(uint8_t sectionIndex,
                                                      const BootloaderPacket& packet)
{
    toController([sectionIndex, packet](ISoftwareControllerConnection& controller, const auto&) {
        controller.bootloaderPacketFromPlugin(sectionIndex, packet);
    });
}

}  // namespace Velmora::Worksurface
