#pragma once

#include <memory>
#include <vector>

class LogCapture;
class QThread;

namespace Velmora::Worksurface {
class ISectionConnection;
}

// Where a test's links run. A test that runs a second time with the links on the surface
// thread (ctest label "linkthread", TARVIX_WORKSURFACE_LINK_THREAD=1) proves that they are
// there, so that the second run fails instead of repeating the first when the variable is
// not acted on.

// Whether this run asks for the links on the surface thread: the variable is "1", read as the
// surface service reads it at connect(). The test fixtures that build links read it too.
bool linkThreadRequested();

// Whether every one of `links` (a built surface's, by section) is where this run puts it:
// asked for the surface thread, a LinkThreadConnection whose link was made on
// `surfaceThread` (its SectionConnection's thread); otherwise the SectionConnection itself,
// made on the QML thread (the application's main thread). False for no links, or for a null
// `surfaceThread` when the surface thread is asked for. What is out of place is printed to
// stderr, where no log capture of the test swallows it.
bool linksWhereTheModeSays(
    const std::vector<std::shared_ptr<Velmora::Worksurface::ISectionConnection>>& links,
    const QThread* surfaceThread);

// The same for a surface the test reaches through QML only (the plugin's own copy of the
// service): each of `sections` links has said "ready and open" from the thread it runs on,
// which is "WorksurfaceThread" when this run asks for the surface thread, and the QML thread
// otherwise. `log` must have captured the links' opening.
bool openedLinksWhereTheModeSays(const LogCapture& log, int sections);
