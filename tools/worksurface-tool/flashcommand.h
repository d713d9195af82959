#pragma once

#include <memory>
#include <vector>

#include "firmwareimage.h"
#include "flashprinter.h"
#include "interruptwatcher.h"

class FlashJob;
class ToolContext;

// worksurface-tool flash FILE: checks the image before any port is opened, then updates
// every asked-for section at once, each on its own line, through the plugin's updater (one
// FlashJob per section), shows their progress and reports how each ended. Ctrl-C, SIGTERM
// or a closed standard output resets every section still being written and ends with 9.
class FlashCommand
{
public:
    explicit FlashCommand(ToolContext& context);
    ~FlashCommand();

    int run();

private:
    // A file that cannot be read, or is no image a section takes: every section fails.
    int refuseImage();
    void openJobs();
    // One look at every running job; false once none runs.
    bool pollJobs();
    void showProgress(FlashJob& job);
    // Ctrl-C: every section still being written is reset, then every running job ends.
    void interruptJobs();
    // The job has its outcome: its line closes and its end is reported.
    void finish(FlashJob& job);
    void report(FlashJob& job);

    ToolContext& m_context;
    FirmwareImage m_image;
    FlashPrinter m_printer;
    InterruptWatcher m_watcher;
    std::vector<std::unique_ptr<FlashJob>> m_jobs;
    int m_code = 0;
};
