#pragma once

#include "tasks/itask.h"

namespace Velmora::Worksurface {

class SectionUpdater;

// The one-shot task that, a second after the bootloader acknowledged a reset, asks the
// section again whether it still sits in its bootloader. Owned by its updater (the pool
// holds it only weakly), so an updater that goes away takes its pending task with it.
class StartAutoUpdateTask : public ITask
{
public:
    explicit StartAutoUpdateTask(SectionUpdater* updater);

    void run() override;

private:
    SectionUpdater* m_updater;
};

}  // namespace Velmora::Worksurface
