#include "updater/startautoupdatetask.h"

#include "updater/sectionupdater.h"

namespace Velmora::Worksurface {

StartAutoUpdateTask::StartAutoUpdateTask(SectionUpdater* updater) : m_updater(updater) {}

void StartAutoUpdateTask::run()
{
    // The updater releases this task during the call, so nothing may touch a member after it.
    m_updater->runAutoUpdate();
}

}  // namespace Velmora::Worksurface
