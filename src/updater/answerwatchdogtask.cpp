#include "updater/answerwatchdogtask.h"

#include "updater/sectionupdater.h"

namespace Velmora::Worksurface {

AnswerWatchdogTask::AnswerWatchdogTask(SectionUpdater* updater) : m_updater(updater) {}

void AnswerWatchdogTask::run()
{
    // The updater releases this task during the call, so nothing may touch a member after it.
    m_updater->checkAnswerDeadline();
}

}  // namespace Velmora::Worksurface
