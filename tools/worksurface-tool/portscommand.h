#pragma once

class ToolContext;

// worksurface-tool ports: every section of the model with its device, whether it exists
// and whether it opens (and why not); with --scan every serial device of the machine
// instead. Nothing is written to any device.
class PortsCommand
{
public:
    explicit PortsCommand(ToolContext& context);

    int run();

private:
    int checkSections();
    int scan();

    ToolContext& m_context;
};
