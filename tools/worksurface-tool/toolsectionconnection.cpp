#include "toolsectionconnection.h"

void ToolSectionConnection::failed(int reason)
{
    if (onFailed) {
        onFailed(reason);
    }
    SectionConnection::failed(reason);
}
