#pragma once

namespace Velmora::Worksurface {

// What a fader does while no binding holds it. QML names the same values through the
// RestMode holder in qml/restmode.h, which checks that they agree; this file is named apart
// from it so that the two layers' files are never taken for one another.
enum class RestMode
{
    // An unbound fader is driven to the bottom of its travel.
    ForceMinimum = 0,
    // An unbound fader stays where it is.
    KeepCurrent = 1
};

}  // namespace Velmora::Worksurface
