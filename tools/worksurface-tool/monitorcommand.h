#pragma once

#include <QString>
#include <cstdint>
#include <memory>
#include <vector>

#include "interruptwatcher.h"
#include "trafficprinter.h"

class SectionSession;
class ToolContext;

// worksurface-tool monitor: brings the links up as the plugin does (the bootloader probe,
// then pings; no calibration, no update) and prints every frame received and sent, the
// noise nobody can use and the links' changes, until Ctrl-C, or until a device is lost
// (with --follow it is waited for).
class MonitorCommand
{
public:
    explicit MonitorCommand(ToolContext& context);
    ~MonitorCommand();

    int run();

private:
    // A monitored section: its link and what monitor has told of it.
    struct Watched
    {
        std::unique_ptr<SectionSession> session;
        bool up = false;         // the link has been up once
        bool open = true;        // the device is open
        bool noted = false;      // found in its bootloader, and said so
        bool reprobing = false;  // said that the probe goes on
    };

    // Opens every asked-for section; the exit code of those that did not open.
    int openSections();
    void tellLinkState(Watched& w, qint64 nowNs, uint8_t state);
    // One look at every section; true once monitor ends.
    bool look();
    void lookAt(Watched& w, qint64 atNs);
    bool waitsForLostDevices() const;

    ToolContext& m_context;
    InterruptWatcher m_watcher;
    TrafficPrinter m_printer;
    std::vector<std::unique_ptr<Watched>> m_sections;
    bool m_lost = false;  // a device went away, and monitor does not wait for it
};
