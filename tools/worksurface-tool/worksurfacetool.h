#pragma once

#include <QStringList>

// The bench tool: parses the command line and runs the command, each in a class of its
// own on the same core as the plugin (ports, probe, flash, monitor, decode, exercise;
// trace parses its own options). run() returns the exit code.
class WorksurfaceTool
{
public:
    int run(const QStringList& arguments);
};
