#pragma once

#include <QStringList>

// worksurface-tool trace FILE: reads a trace file the plugin saved (a link's flight recorder)
// and prints it as monitor prints live traffic, with the link's events interleaved; filters
// by section, message type and time, passes the filtered lines through as JSON, or sums
// them up per section. Parses its own options, so that it stands apart from the live
// commands' common ones.
class TraceCommand
{
public:
    // The whole command line, program name first; returns the exit code.
    static int run(const QStringList& arguments);
};
