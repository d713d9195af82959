#pragma once

#include <memory>
#include <vector>

#include "serial/iserialmessagehandler.h"
#include "serial/iserialmessagehandlerrepository.h"

namespace Velmora::Worksurface {

// The section's single entry point for received messages: it offers each message to the
// section's components (and the section itself) in the order they registered, and the first
// one that takes it ends the search. One root is shared by a section and its connection.
//
// Not locked: handlers are registered while the surface is built and messages are offered
// on the model thread afterwards.
class RootSerialMessageHandler : public ISerialMessageHandler,
                                 public ISerialMessageHandlerRepository
{
public:
    RootSerialMessageHandler() = default;
    ~RootSerialMessageHandler() override = default;

    // True at the first handler that takes the message; later handlers never see it.
    bool handleMessage(const SerialMessage& message) override;
    // Whether any handler would take it.
    bool takesMessage(const SerialMessage& message) const override;
    // Tells every handler, in registration order.
    void setLinkReady(bool ready) override;

    // Appends the handler unless the same object is already registered (a component that
    // is wired twice must not see its messages twice). A null handler is ignored.
    void addHandler(const std::shared_ptr<ISerialMessageHandler>& handler) override;

    std::size_t handlerCount() const { return m_handlers.size(); }

private:
    std::vector<std::shared_ptr<ISerialMessageHandler>> m_handlers;
};

}  // namespace Velmora::Worksurface
