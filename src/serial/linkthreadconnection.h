#pragma once

#include <QString>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "serial/isectionconnection.h"

namespace Velmora::Worksurface {

class ISerialMessageHandler;
class SectionConnection;
class ThreadMailbox;

// One section's link living on the links' own thread ("WorksurfaceThread"), as the QML
// thread sees it: the surface holds this in place of the link itself.
//
// The link (its serial connection, parser, supervision, queue draining, reconnection and
// updater) is made, runs and is torn down on the links' thread. What it receives for the
// model crosses to the QML thread, and so does everything it tells its state listener: each
// frame a component takes, each link-ready change and each state, port, progress and update
// report goes into the link's inbox (LinkInbox) as it happens, and the QML thread takes them
// in the order the link produced them, so the section's components, the surface and the
// section models see the same calls with the same values in the same order as with the
// link on the QML thread, only later by the hop (a QML thread far behind sees a fader's or
// the pot's latest position instead of every stale one). The link knows at once whether a
// component takes a frame, from the section's routes taken on the QML thread when the link
// is made (MessageRoutes), so it comes up on the same frame as it would on the QML thread
// and never touches the section's objects.
//
// The other way, open(), close() and startCalibration() are posted to the links' thread;
// enqueueMessage() goes straight into the queue and stopCalibration() straight to the link
// (both are safe from any thread). state() is the state last told on the QML thread, so
// that what the surface reads agrees with what QML has been told.
//
// QML-thread-only, like the surface that holds it. It holds both threads' mailboxes weakly:
// once their owner (LinkRuntime) has gone, nothing is posted any more, and by then the owner
// has taken the link and released it on its thread.
class LinkThreadConnection : public ISectionConnection
{
public:
    // Makes the link on the links' thread, waiting for it. `build` is given the handler the
    // link must offer its frames to (it hands them to `rootHandler` on the QML thread) and
    // returns the link; it runs on the links' thread.
    using Builder = std::function<std::shared_ptr<SectionConnection>(
        const std::shared_ptr<ISerialMessageHandler>& handlerOnLinkThread)>;
    static std::shared_ptr<LinkThreadConnection> create(
        uint8_t sectionIndex, const std::shared_ptr<ISerialMessageHandler>& rootHandler,
        const std::weak_ptr<ThreadMailbox>& qmlMailbox,
        const std::weak_ptr<ThreadMailbox>& linkMailbox, const Builder& build);

    // A link not taken for teardown yet is closed and released on its own thread.
    ~LinkThreadConnection() override;
    LinkThreadConnection(const LinkThreadConnection&) = delete;
    LinkThreadConnection& operator=(const LinkThreadConnection&) = delete;

    uint8_t sectionIndex() const override { return m_sectionIndex; }
    uint8_t state() const override;
    void open() override;
    void close() override;
    void startCalibration() override;
    void stopCalibration() override;
    void enqueueMessage(const SerialMessage& message) override;
    void setStateListener(ISectionStateListener* listener) override;
    std::shared_ptr<FlightRecorder> recorder() const override { return m_recorder; }
    QString portName() const override { return m_portName; }

    // Hands the link over for teardown on its own thread; from then on this object passes
    // nothing on. Null once taken.
    std::shared_ptr<SectionConnection> takeLink();
    // The link itself, for tests; null once taken.
    std::shared_ptr<SectionConnection> link() const { return m_link; }

    struct Relay;

private:
    LinkThreadConnection(uint8_t sectionIndex, std::weak_ptr<ThreadMailbox> linkMailbox);
    // Runs `call` on the link's thread with the link, unless it was taken meanwhile.
    void postToLink(std::function<void(SectionConnection&)> call) const;

    const uint8_t m_sectionIndex;
    const std::weak_ptr<ThreadMailbox> m_linkMailbox;
    std::shared_ptr<SectionConnection> m_link;
    std::shared_ptr<FlightRecorder> m_recorder;
    QString m_portName;
    // What the link's thread posts to: lives on the QML thread with this object.
    std::shared_ptr<Relay> m_relay;
};

}  // namespace Velmora::Worksurface
