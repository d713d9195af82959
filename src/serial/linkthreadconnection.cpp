#include "serial/linkthreadconnection.h"

#include <utility>

#include "serial/isectionstatelistener.h"
#include "serial/iserialmessagehandler.h"
#include "serial/sectionconnection.h"
#include "tasks/threadmailbox.h"

namespace Velmora::Worksurface {

// The QML-thread end of the hop: the section's root handler, the surface listening to the
// link, and the state last told.
struct LinkThreadConnection::Relay
{
    std::shared_ptr<ISerialMessageHandler> rootHandler;
    ISectionStateListener* listener = nullptr;
    std::atomic<uint8_t> state{ISectionConnection::Closed};
};

namespace {

// The link's root handler and state listener on the links' thread: it judges each frame at
// once and posts what the QML thread must hear, in order.
class LinkSide : public ISerialMessageHandler, public ISectionStateListener
{
public:
    LinkSide(const std::shared_ptr<LinkThreadConnection::Relay>& relay,
             const std::shared_ptr<ISerialMessageHandler>& rootHandler, ThreadMailbox* qmlMailbox)
        : m_relay(relay), m_rootHandler(rootHandler), m_qmlMailbox(qmlMailbox)
    {}

    bool handleMessage(const SerialMessage& message) override
    {
        if (!takesMessage(message)) {
            return false;
        }
        post([message](LinkThreadConnection::Relay& relay) {
            relay.rootHandler->handleMessage(message);
        });
        return true;
    }

    bool takesMessage(const SerialMessage& message) const override
    {
        const std::shared_ptr<ISerialMessageHandler> root = m_rootHandler.lock();
        return root && root->takesMessage(message);
    }

    void setLinkReady(bool ready) override
    {
        post([ready](LinkThreadConnection::Relay& relay) {
            relay.rootHandler->setLinkReady(ready);
        });
    }

    void sectionStateChanged(uint8_t sectionIndex, uint8_t state) override
    {
        post([sectionIndex, state](LinkThreadConnection::Relay& relay) {
            relay.state.store(state);
            if (relay.listener) {
                relay.listener->sectionStateChanged(sectionIndex, state);
            }
        });
    }

    void sectionUpdateProgress(uint8_t sectionIndex, uint8_t value) override
    {
        post([sectionIndex, value](LinkThreadConnection::Relay& relay) {
            if (relay.listener) {
                relay.listener->sectionUpdateProgress(sectionIndex, value);
            }
        });
    }

    void sentMessageCount(uint64_t count) override
    {
        // The link tells its count on every connected pass; only a new count crosses, so
        // that an idle link's passes do not wake the QML thread twenty times a second.
        if (m_sentCountPosted && count == m_postedSentCount) {
            return;
        }
        m_sentCountPosted = true;
        m_postedSentCount = count;
        post([count](LinkThreadConnection::Relay& relay) {
            if (relay.listener) {
                relay.listener->sentMessageCount(count);
            }
        });
    }

    void sectionPortChanged(uint8_t sectionIndex, const QString& portName,
                            const QString& portError) override
    {
        post([sectionIndex, portName, portError](LinkThreadConnection::Relay& relay) {
            if (relay.listener) {
                relay.listener->sectionPortChanged(sectionIndex, portName, portError);
            }
        });
    }

    void sectionUpdateResult(uint8_t sectionIndex, int failureReason) override
    {
        post([sectionIndex, failureReason](LinkThreadConnection::Relay& relay) {
            if (relay.listener) {
                relay.listener->sectionUpdateResult(sectionIndex, failureReason);
            }
        });
    }

private:
    // What is posted reaches the QML thread only while the QML-thread end still stands.
    template <typename Call>
    void post(Call call) const
    {
        m_qmlMailbox->post([relay = m_relay, call = std::move(call)]() {
            if (const std::shared_ptr<LinkThreadConnection::Relay> alive = relay.lock()) {
                call(*alive);
            }
        });
    }

    // Links' thread only.
    bool m_sentCountPosted = false;
    uint64_t m_postedSentCount = 0;
    const std::weak_ptr<LinkThreadConnection::Relay> m_relay;
    // Weak: the section owns its handlers, and they must go on the QML thread.
    const std::weak_ptr<ISerialMessageHandler> m_rootHandler;
    ThreadMailbox* const m_qmlMailbox;
};

}  // namespace

LinkThreadConnection::LinkThreadConnection(uint8_t sectionIndex, ThreadMailbox* linkMailbox)
    : m_sectionIndex(sectionIndex), m_linkMailbox(linkMailbox), m_relay(std::make_shared<Relay>())
{}

std::shared_ptr<LinkThreadConnection> LinkThreadConnection::create(
    uint8_t sectionIndex, const std::shared_ptr<ISerialMessageHandler>& rootHandler,
    ThreadMailbox* qmlMailbox, ThreadMailbox* linkMailbox, const Builder& build)
{
    std::shared_ptr<LinkThreadConnection> self(new LinkThreadConnection(sectionIndex, linkMailbox));
    self->m_relay->rootHandler = rootHandler;
    const auto side = std::make_shared<LinkSide>(self->m_relay, rootHandler, qmlMailbox);
    // Made on the links' thread, so that its serial port, its timers and its thread checks
    // belong there from the start; the links' thread never waits for this one.
    linkMailbox->runAndWait([&]() {
        self->m_link = build(side);
        if (self->m_link) {
            self->m_link->setStateListener(side.get());
            self->m_recorder = self->m_link->recorder();
            self->m_portName = self->m_link->portName();
        }
    });
    if (!self->m_link) {
        return nullptr;
    }
    return self;
}

LinkThreadConnection::~LinkThreadConnection()
{
    if (m_link) {
        m_linkMailbox->post([link = std::move(m_link)]() mutable {
            link->close();
            link.reset();
        });
    }
}

uint8_t LinkThreadConnection::state() const
{
    return m_relay->state.load();
}

void LinkThreadConnection::postToLink(std::function<void(SectionConnection&)> call) const
{
    if (!m_link) {
        return;
    }
    m_linkMailbox->post(
        [link = std::weak_ptr<SectionConnection>(m_link), call = std::move(call)]() {
            if (const std::shared_ptr<SectionConnection> alive = link.lock()) {
                call(*alive);
            }
        });
}

void LinkThreadConnection::open()
{
    postToLink([](SectionConnection& link) { link.open(); });
}

void LinkThreadConnection::close()
{
    postToLink([](SectionConnection& link) { link.close(); });
}

void LinkThreadConnection::startCalibration()
{
    postToLink([](SectionConnection& link) { link.startCalibration(); });
}

void LinkThreadConnection::stopCalibration()
{
    if (m_link) {
        m_link->stopCalibration();
    }
}

void LinkThreadConnection::enqueueMessage(const SerialMessage& message)
{
    if (m_link) {
        m_link->enqueueMessage(message);
    }
}

void LinkThreadConnection::setStateListener(ISectionStateListener* listener)
{
    m_relay->listener = listener;
}

std::shared_ptr<SectionConnection> LinkThreadConnection::takeLink()
{
    return std::move(m_link);
}

}  // namespace Velmora::Worksurface
