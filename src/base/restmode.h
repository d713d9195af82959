#pragma once

namespace Velmora::Worksurface {

// What a fader does while no binding holds it. QML names the same values through the
// RestMode holder in qml/, which checks that they agree.
enum class RestMode
{
    // An unbound fader is driven to the bottom of its travel.
    ForceMinimum = 0,
    // An unbound fader stays where it is.
    KeepCurrent = 1
};

}  // namespace Velmora::Worksurface
