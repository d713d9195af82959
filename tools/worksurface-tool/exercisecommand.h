#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "interruptwatcher.h"
#include "reportprinter.h"
#include "trafficprinter.h"

class SectionSession;
class ToolContext;

// worksurface-tool exercise: for a bench check by eye, every section is probed at once,
// then each that runs its application is sent a fixed pattern in turn (faders bottom, top
// and bottom; every LED on in turn; every RGB LED red, green, blue and dark; the master
// meters up and down), with every frame sent printed. Ctrl-C switches the section's lights
// off and ends with exit 9.
class ExerciseCommand
{
public:
    explicit ExerciseCommand(ToolContext& context);

    int run();

private:
    // The controls of a section the pattern drives, by the same table and counts the
    // plugin builds them from.
    struct Controls
    {
        std::vector<uint8_t> faders;
        std::vector<uint8_t> leds;
        std::vector<uint8_t> rgbLeds;
        std::vector<uint8_t> meters;
    };
    Controls controlsOf(uint8_t section) const;

    // The pattern on one probed section; the exit code it adds.
    int exercise(SectionSession& s);
    // False when the section stopped taking what was sent.
    bool runPattern(SectionSession& s, const Controls& controls);
    // One step: queue it, let the link send all of it, then wait for the eye. Nothing once
    // the section stopped answering or Ctrl-C came.
    void step(SectionSession& s, const std::function<void()>& queue);
    // After Ctrl-C: every LED and RGB LED dark at once, ahead of what is still queued.
    static void darken(SectionSession& s, const Controls& controls);

    ToolContext& m_context;
    InterruptWatcher m_watcher;
    TrafficPrinter m_printer;
    ReportPrinter m_report;
    bool m_alive = true;
};
