#pragma once

#include <QString>
#include <QStringList>
#include <cstdint>

#include "base/isettings.h"

// The tool's command line: the command, the common options and the command's own, its
// help (with the exit codes) and its usage errors.
class ToolCommandLine
{
public:
    struct Options
    {
        QString command;
        uint8_t mode =
            static_cast<uint8_t>(Velmora::Worksurface::SurfaceMode::K60);  // the console model
        QStringList ports;
        int section = -1;  // all of the model's
        int timeoutMs = 3000;
        bool json = false;
        bool raw = false;
        bool verbose = false;
        int stepMs = 300;
        QString file;
    };

    // Fills options and returns -1 when a command is to run; otherwise prints the help, the
    // version or the usage error and returns the exit code.
    static int parse(const QStringList& arguments, Options& options);
};
