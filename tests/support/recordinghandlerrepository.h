#pragma once

#include <QString>
#include <QStringList>
#include <memory>
#include <vector>

#include "serial/iserialmessagehandlerrepository.h"

namespace Velmora::Worksurface {
class ISerialMessageHandler;
}

// Stands for a section's root handler while the section is built: keeps every handler
// registered, in order, duplicates included, so a test sees exactly what was registered
// when.
class RecordingHandlerRepository : public Velmora::Worksurface::ISerialMessageHandlerRepository
{
public:
    void addHandler(
        const std::shared_ptr<Velmora::Worksurface::ISerialMessageHandler>& handler) override
    {
        handlers.push_back(handler);
    }

    // One line per registered handler, in order: what kind of control it is, its type
    // value and device id ("fader 1 3", "led 2 13", "button 2 13", "rotary 2 10",
    // "pot 1 0", "rgbled 3 16"), "section 1" for a section, "null" for an empty pointer and
    // "other" for anything else.
    QStringList descriptions() const;

    // The same line for one handler.
    static QString describe(const Velmora::Worksurface::ISerialMessageHandler* handler);

    std::vector<std::shared_ptr<Velmora::Worksurface::ISerialMessageHandler>> handlers;
};
