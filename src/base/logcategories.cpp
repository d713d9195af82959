#include "base/logcategories.h"

namespace Velmora::Worksurface {

// Every level is on by default: the Logger's debug switch decides whether debug lines are
// written at all, and the rules of the application (QT_LOGGING_RULES, setFilterRules) can
// only take lines away from that.
Q_LOGGING_CATEGORY(lcLink, "tarvix.worksurface.link")
Q_LOGGING_CATEGORY(lcUpdater, "tarvix.worksurface.updater")
Q_LOGGING_CATEGORY(lcSurface, "tarvix.worksurface.surface")
Q_LOGGING_CATEGORY(lcBindings, "tarvix.worksurface.bindings")
Q_LOGGING_CATEGORY(lcSoftware, "tarvix.worksurface.software")
Q_LOGGING_CATEGORY(lcService, "tarvix.worksurface.service")

}  // namespace Velmora::Worksurface
