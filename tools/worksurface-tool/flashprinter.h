#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>
#include <cstdint>
#include <vector>

#include "sectionsession.h"

class FirmwareImage;
class ToolOutput;

namespace Velmora::Worksurface {
class JsonLine;
}

// Everything flash shows, as text or JSON: the image note, each section's transfer and its
// progress, and each section's end with its exit code. Progress is a bar redrawn in place
// for a single section on a terminal, a line per 10 % otherwise, an object per percent in
// JSON. With several sections the lines of each are held and printed together, in section
// order, each group as soon as its section and those before it are done.
class FlashPrinter
{
public:
    // sections: every section being flashed, in section order.
    FlashPrinter(ToolOutput& output, const FirmwareImage& image,
                 const std::vector<uint8_t>& sections);

    // The image's size and SHA-256, on standard error.
    static void imageNote(const FirmwareImage& image);
    // Before any port is opened, for every section: the file could not be read (why is
    // noted once on standard error, as decode and trace say it), or is no image a section
    // takes.
    void unreadable(uint8_t section, int exitCode);
    static void unreadableNote(const FirmwareImage& image);
    void refused(uint8_t section, const QString& why, int exitCode);

    // The updater's progress: a new pass (the first transfer, or the updater's own second
    // one) is announced, then every change that is news in the output's form.
    struct Progress
    {
        int pass = 0;
        int percent = 0;
        qint64 blocks = 0;
        qint64 elapsedMs = 1;
    };
    void progress(uint8_t section, const QString& device, const Progress& progress);

    // A section's end; finished() then releases what is held.
    void done(uint8_t section, int version);
    void ready(uint8_t section, const QString& device);
    void updaterFailed(uint8_t section, const SectionSession::FailureDetail& detail, int exitCode);
    void wrongVersion(uint8_t section, int version, int expected, int exitCode);
    void notInBootloader(uint8_t section, int exitCode);
    void noAnswer(uint8_t section, int exitCode);
    void stillInBootloader(uint8_t section, int passes, int exitCode);
    void portError(uint8_t section, const QString& error, int exitCode);
    void interrupted(uint8_t section, bool reset, int exitCode);
    // The section is done: its group goes out once those before it are done too.
    void finished(uint8_t section);

private:
    // What has been shown of one section, and its lines held for its group.
    struct Shown
    {
        uint8_t section = 0;
        int pass = 0;
        int lastPercent = -1;
        int lastDecade = -1;
        qint64 lastBlocks = -1;
        bool barDrawn = false;
        bool done = false;
        bool printed = false;
        QByteArray held;
    };
    Shown* shown(uint8_t section);
    void showPass(Shown& shown, const QString& device);
    void showPercent(Shown& shown, int percent, qint64 bytes, qint64 elapsedMs);
    void endBar(Shown& shown);
    void failed(uint8_t section, int exitCode, const QString& why, int reason, const QString& error,
                const Velmora::Worksurface::JsonLine& extra);
    void emitBytes(uint8_t section, const QByteArray& bytes);
    void emitText(uint8_t section, const QString& text);
    void emitJson(uint8_t section, const Velmora::Worksurface::JsonLine& line);

    ToolOutput& m_output;
    const QString m_file;
    const qint64 m_total;
    const qint64 m_totalBlocks;
    // Lines go out as they come (one section), or are held per section (several).
    const bool m_grouped;
    // The progress bar: a single section, text, on a terminal.
    const bool m_bar;
    std::vector<Shown> m_shown;
};
