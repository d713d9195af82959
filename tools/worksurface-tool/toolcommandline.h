#pragma once

#include <QSet>
#include <QString>
#include <QStringList>
#include <cstdint>

#include "base/isettings.h"

// The tool's command line: the command, the common options and the command's own, its
// help (with the exit codes) and its usage errors.
class ToolCommandLine
{
public:
    // How monitor shows when a line happened.
    enum class TimeMode
    {
        Relative,  // seconds since the tool started (the default)
        Iso,       // the wall-clock time, ISO 8601 with milliseconds
        Delta,     // seconds since the line before
    };

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
        // ports
        bool scan = false;
        // flash
        qint64 maxSize = 0;      // set from kDefaultMaxImageSize unless given
        int expectVersion = -1;  // none
        bool dryRun = false;
        // monitor
        bool listenOnly = false;
        bool follow = false;
        TimeMode time = TimeMode::Relative;
        QSet<int> types;    // message types shown; empty: all
        QSet<int> devices;  // device ids shown; empty: all
        QString dir;        // "in", "out" or empty for both
    };

    // The largest image flash writes unless --max-size says otherwise: the flash of a
    // section's microcontroller.
    static constexpr qint64 kDefaultMaxImageSize = 256 * 1024;

    // Fills options and returns -1 when a command is to run; otherwise prints the help, the
    // version or the usage error and returns the exit code.
    static int parse(const QStringList& arguments, Options& options);
};
