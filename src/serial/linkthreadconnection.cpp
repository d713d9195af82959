#include "serial/linkthreadconnection.h"

#include <utility>

#include "serial/isectionstatelistener.h"
#include "serial/iserialmessagehandler.h"
#include "serial/linkinbox.h"
#include "serial/messageroutes.h"
#include "serial/sectionconnection.h"
#include "tasks/threadmailbox.h"

namespace Velmora::Worksurface {

// The QML-thread end of the hop: the section's root handler, the surface listening to the
// link, the state last told, and the inbox the link's reports wait in.
struct LinkThreadConnection::Relay
{
    // Takes the oldest report and tells it: one report for each one the link queued.
    void deliverOne();

    std::shared_ptr<ISerialMessageHandler> rootHandler;
    ISectionStateListener* listener = nullptr;
    std::atomic<uint8_t> state{ISectionConnection::Closed};
    // Shared with the link's side, which adds to it: plain values only, so whichever side
    // lets it go last, nothing of the section goes with it.
    std::shared_ptr<LinkInbox> inbox = std::make_shared<LinkInbox>();
};

void LinkThreadConnection::Relay::deliverOne()
{
    LinkInbox::Report report;
    if (!inbox->take(report)) {
        return;
    }
    const auto section = report.sectionIndex;
    switch (report.kind) {
        case LinkInbox::Report::Frame:
            rootHandler->handleMessage(report.frame);
            return;
        case LinkInbox::Report::LinkReady:
            rootHandler->setLinkReady(report.value != 0);
            return;
        case LinkInbox::Report::State:
            state.store(static_cast<uint8_t>(report.value));
            if (listener) {
                listener->sectionStateChanged(section, static_cast<uint8_t>(report.value));
            }
            return;
        case LinkInbox::Report::Progress:
            if (listener) {
                listener->sectionUpdateProgress(section, static_cast<uint8_t>(report.value));
            }
            return;
        case LinkInbox::Report::SentCount:
            if (listener) {
                listener->sentMessageCount(report.sentCount);
            }
            return;
        case LinkInbox::Report::Port:
            if (listener) {
                listener->sectionPortChanged(section, report.portName, report.portError);
            }
            return;
        case LinkInbox::Report::UpdateResult:
            if (listener) {
                listener->sectionUpdateResult(section, report.value);
            }
            return;
    }
}

namespace {

using Report = LinkInbox::Report;

// The link's root handler and state listener on the links' thread: it judges each frame at
// once from the section's routes and queues what the QML thread must hear, in order.
class LinkSide : public ISerialMessageHandler, public ISectionStateListener
{
public:
    LinkSide(const std::shared_ptr<LinkThreadConnection::Relay>& relay, MessageRoutes routes,
             std::weak_ptr<ThreadMailbox> qmlMailbox)
        : m_relay(relay),
          m_inbox(relay->inbox),
          m_routes(std::move(routes)),
          m_qmlMailbox(std::move(qmlMailbox))
    {}

    bool handleMessage(const SerialMessage& message) override
    {
        if (!takesMessage(message)) {
            return false;
        }
        Report report;
        report.frame = message;
        tell(std::move(report));
        return true;
    }

    bool takesMessage(const SerialMessage& message) const override
    {
        return m_routes.takes(message);
    }

    void setLinkReady(bool ready) override { tell(news(Report::LinkReady, 0, ready ? 1 : 0)); }

    void sectionStateChanged(uint8_t sectionIndex, uint8_t state) override
    {
        tell(news(Report::State, sectionIndex, state));
    }

    void sectionUpdateProgress(uint8_t sectionIndex, uint8_t value) override
    {
        // The updater tells its percentage with every block, 4,096 times for a 256 KiB
        // image; the section's model only changes when the value does. A value equal to the
        // one that crossed last, with nothing crossing in between, would change nothing
        // there, so it does not wake the QML thread.
        if (m_lastTold == Report::Progress && value == m_progressTold) {
            return;
        }
        m_progressTold = value;
        tell(news(Report::Progress, sectionIndex, value));
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
        Report report = news(Report::SentCount, 0, 0);
        report.sentCount = count;
        tell(std::move(report));
    }

    void sectionPortChanged(uint8_t sectionIndex, const QString& portName,
                            const QString& portError) override
    {
        Report report = news(Report::Port, sectionIndex, 0);
        report.portName = portName;
        report.portError = portError;
        tell(std::move(report));
    }

    void sectionUpdateResult(uint8_t sectionIndex, int failureReason) override
    {
        tell(news(Report::UpdateResult, sectionIndex, failureReason));
    }

private:
    static Report news(Report::Kind kind, uint8_t sectionIndex, int value)
    {
        Report report;
        report.kind = kind;
        report.sectionIndex = sectionIndex;
        report.value = value;
        return report;
    }

    // Queues the report and wakes the QML thread to take it, unless it replaced a waiting
    // position, which that thread is already woken for. Nothing is queued once the face has
    // gone, and nothing crosses once the mailboxes' owner has.
    void tell(Report report)
    {
        m_lastTold = report.kind;
        if (m_relay.expired() || !m_inbox->add(std::move(report))) {
            return;
        }
        if (const std::shared_ptr<ThreadMailbox> mailbox = m_qmlMailbox.lock()) {
            mailbox->post([relay = m_relay]() {
                if (const std::shared_ptr<LinkThreadConnection::Relay> alive = relay.lock()) {
                    alive->deliverOne();
                }
            });
        }
    }

    // Links' thread only.
    Report::Kind m_lastTold = Report::Frame;
    uint8_t m_progressTold = 0;
    bool m_sentCountPosted = false;
    uint64_t m_postedSentCount = 0;
    // Locked only on the QML thread, by the posted wake: the relay holds the section's root
    // handler, whose last share must never be let go here.
    const std::weak_ptr<LinkThreadConnection::Relay> m_relay;
    const std::shared_ptr<LinkInbox> m_inbox;
    const MessageRoutes m_routes;
    const std::weak_ptr<ThreadMailbox> m_qmlMailbox;
};

}  // namespace

LinkThreadConnection::LinkThreadConnection(uint8_t sectionIndex,
                                           std::weak_ptr<ThreadMailbox> linkMailbox)
    : m_sectionIndex(sectionIndex),
      m_linkMailbox(std::move(linkMailbox)),
      m_relay(std::make_shared<Relay>())
{}

std::shared_ptr<LinkThreadConnection> LinkThreadConnection::create(
    uint8_t sectionIndex, const std::shared_ptr<ISerialMessageHandler>& rootHandler,
    const std::weak_ptr<ThreadMailbox>& qmlMailbox, const std::weak_ptr<ThreadMailbox>& linkMailbox,
    const Builder& build)
{
    const std::shared_ptr<ThreadMailbox> links = linkMailbox.lock();
    if (!links || !rootHandler) {
        return nullptr;
    }
    std::shared_ptr<LinkThreadConnection> self(new LinkThreadConnection(sectionIndex, linkMailbox));
    self->m_relay->rootHandler = rootHandler;
    const auto side =
        std::make_shared<LinkSide>(self->m_relay, MessageRoutes::of(*rootHandler), qmlMailbox);
    // Made on the links' thread, so that its serial port, its timers and its thread checks
    // belong there from the start; the links' thread never waits for this one.
    links->runAndWait([&]() {
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
    const std::shared_ptr<ThreadMailbox> links = m_linkMailbox.lock();
    if (m_link && links) {
        links->post([link = std::move(m_link)]() mutable {
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
    const std::shared_ptr<ThreadMailbox> links = m_linkMailbox.lock();
    if (!m_link || !links) {
        return;
    }
    links->post([link = std::weak_ptr<SectionConnection>(m_link), call = std::move(call)]() {
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
