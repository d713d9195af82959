#pragma once

#include <QByteArray>
#include <cstdint>

namespace Velmora::Worksurface {

// A section played in QML with its faults (SectionControl): whether it answers, whether it
// is plugged in, and its bootloader. The software controller asks the first one registered
// for a section index; a section without one answers as the controller always has.
class ISoftwareSection
{
public:
    virtual ~ISoftwareSection() = default;
    virtual uint8_t playedSectionIndex() const = 0;
    // False: the section ignores every message and packet from the plugin.
    virtual bool isAnswering() const = 0;
    virtual bool isPlugged() const = 0;
    // Whether the section sits in its serial bootloader (it then ignores frames).
    virtual bool isInBootloader() const = 0;
    // Bootloader bytes the plugin wrote; called only while isInBootloader(). The section
    // answers them through the controller's sendRawToPlugin().
    virtual void bootloaderBytes(const QByteArray& bytes) = 0;
    // The section's line was replaced or went away (a new surface, or none): an exchange
    // with the old link's updater is over, and its unsent answers are dropped.
    virtual void lineReset() = 0;
};

}  // namespace Velmora::Worksurface
