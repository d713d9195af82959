#include "surface/surfacebuilder.h"

#include <vector>

#include "base/isettings.h"
#include "serial/isectionconnection.h"
#include "serial/rootserialmessagehandler.h"
#include "serial/serialmessagequeue.h"
#include "surface/iconnectionfactory.h"
#include "surface/isection.h"
#include "surface/isectionfactory.h"
#include "surface/surface.h"

namespace Velmora::Worksurface {

std::shared_ptr<Surface> SurfaceBuilder::build(const std::shared_ptr<ISettings>& settings,
                                               ISectionFactory& sectionFactory,
                                               IConnectionFactory& connectionFactory)
{
    std::vector<std::shared_ptr<ISection>> sections;
    std::vector<std::shared_ptr<ISectionConnection>> connections;
    for (uint8_t index = 0; index < settings->sectionCount(); ++index) {
        auto root = std::make_shared<RootSerialMessageHandler>();
        auto queue = std::make_shared<SerialMessageQueue>();
        sections.push_back(sectionFactory.createSection(settings, root, queue, index));
        if (auto connection = connectionFactory.createConnection(index, root, queue, settings)) {
            connections.push_back(std::move(connection));
        }
    }
    if (connections.empty()) {
        return {};
    }
    return std::make_shared<Surface>(std::move(sections), std::move(connections));
}

}  // namespace Velmora::Worksurface
