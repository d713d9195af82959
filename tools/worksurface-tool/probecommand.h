#pragma once

class ToolContext;

// worksurface-tool probe: opens every asked-for section at once, runs the link's start-up
// exchange (the updater's bootloader probe, in its probe-only mode) and waits for the
// answer to the link's ping; one line per section, in section order. Changes nothing on a
// section.
class ProbeCommand
{
public:
    explicit ProbeCommand(ToolContext& context);

    int run();

private:
    ToolContext& m_context;
};
