#pragma once

#include <cstdint>

namespace Velmora::Worksurface {

// The software link of one section as the software controller sees it: the line a QML
// section can be unplugged from, like a serial adapter pulled out of the console.
class ISoftwareSectionLine
{
public:
    virtual ~ISoftwareSectionLine() = default;
    // The section was plugged in or pulled out. Pulled out while open, the line goes down
    // as a serial device that vanished; plugged in, it opens again at the link's next
    // attempt.
    virtual void pluggedChanged(bool plugged) = 0;
    // Whether the line is down (pulled out, or failed to open since): nothing the section
    // sends reaches the plugin then.
    virtual bool isDown() const = 0;
};

}  // namespace Velmora::Worksurface
