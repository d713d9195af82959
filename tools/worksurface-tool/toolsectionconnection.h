#pragma once

#include <functional>

#include "serial/sectionconnection.h"

// The link's section connection, also telling the tool why a firmware update failed (the
// link itself only recovers; the tool turns the reason into its exit code).
class ToolSectionConnection : public Velmora::Worksurface::SectionConnection
{
public:
    using SectionConnection::SectionConnection;

    std::function<void(int)> onFailed;

    void failed(int reason) override;
};
