#pragma once

#include "tasks/itask.h"

namespace Velmora::Worksurface {

class SectionUpdater;

// The one-shot task that looks, once the update time-out may have passed, whether the
// bootloader has answered since. Owned by its updater like the auto-update task: the pool
// holds it only weakly, so letting it go cancels it.
class AnswerWatchdogTask : public ITask
{
public:
    explicit AnswerWatchdogTask(SectionUpdater* updater);

    void run() override;

private:
    SectionUpdater* m_updater;
};

}  // namespace Velmora::Worksurface
