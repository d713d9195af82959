#include "flashprinter.h"

#include "base/jsonline.h"
#include "firmwareimage.h"
#include "progressbar.h"
#include "tooloutput.h"
#include "updater/bootloaderpacket.h"
#include "updater/isectionupdaterlistener.h"
#include "updater/sectionupdater.h"

using namespace Velmora::Worksurface;

namespace {

// What the bootloader did, in words, for an update that failed.
QString failureText(const SectionSession::FailureDetail& detail, qint64 totalBlocks)
{
    switch (detail.reason) {
        case ISectionUpdaterListener::StoppedAnswering:
            return QStringLiteral(
                       "the bootloader stopped answering at block %1 of %2 (waiting for the "
                       "answer to %3); the section waits in its bootloader: run flash again")
                .arg(detail.blocksSent)
                .arg(totalBlocks)
                .arg(detail.command);
        case ISectionUpdaterListener::ResendsExhausted:
            return QStringLiteral("resends exhausted: %1 refused at offset %2")
                .arg(detail.command)
                .arg(detail.offset);
        case ISectionUpdaterListener::BootloaderErrorStatus:
            return QStringLiteral(
                       "the bootloader reported an error status: %1 after %2 at offset %3")
                .arg(detail.status >= 0 ? bootloaderCommandName(uint8_t(detail.status))
                                        : QStringLiteral("unknown"),
                     detail.command)
                .arg(detail.offset);
        default:
            return QStringLiteral("the firmware file is missing or unreadable");
    }
}

// The same in keys, after "exit".
JsonLine failureKeys(const SectionSession::FailureDetail& detail, qint64 totalBlocks)
{
    JsonLine keys;
    if (detail.reason != ISectionUpdaterListener::FirmwareFileError) {
        if (detail.status >= 0) {
            keys.add("status", bootloaderCommandName(uint8_t(detail.status)));
        }
        keys.add("command", detail.command).add("offset", detail.offset);
    }
    if (detail.reason == ISectionUpdaterListener::StoppedAnswering) {
        keys.add("block", detail.blocksSent).add("blocks", totalBlocks);
    }
    return keys;
}

}  // namespace

FlashPrinter::FlashPrinter(ToolOutput& output, const FirmwareImage& image,
                           const std::vector<uint8_t>& sections)
    : m_output(output),
      m_file(image.path()),
      m_total(image.size()),
      m_totalBlocks(image.blocks()),
      m_grouped(sections.size() > 1),
      m_bar(sections.size() == 1 && !output.isJson() && ToolOutput::isTerminal())
{
    for (uint8_t section : sections) {
        Shown shown;
        shown.section = section;
        m_shown.push_back(shown);
    }
}

void FlashPrinter::imageNote(const FirmwareImage& image)
{
    ToolOutput::note(QStringLiteral("image %1  %2 bytes  sha256 %3")
                         .arg(image.path())
                         .arg(image.size())
                         .arg(image.sha256()));
}

void FlashPrinter::unreadableNote(const FirmwareImage& image)
{
    ToolOutput::cannotRead(image.path(), image.readError());
}

void FlashPrinter::unreadable(uint8_t section, int exitCode)
{
    failed(section, exitCode, QStringLiteral("cannot read %1").arg(m_file),
           ISectionUpdaterListener::FirmwareFileError, QString(), JsonLine());
}

void FlashPrinter::refused(uint8_t section, const QString& why, int exitCode)
{
    failed(section, exitCode, why, ISectionUpdaterListener::FirmwareFileError, why, JsonLine());
}

void FlashPrinter::progress(uint8_t section, const QString& device, const Progress& progress)
{
    Shown* s = shown(section);
    if (!s) {
        return;
    }
    if (progress.pass != s->pass) {
        s->pass = progress.pass;
        s->lastPercent = -1;
        s->lastDecade = -1;
        showPass(*s, device);
    }
    if (progress.percent == s->lastPercent && progress.blocks == s->lastBlocks) {
        return;
    }
    s->lastBlocks = progress.blocks;
    const qint64 bytes = qMin(progress.blocks * SectionUpdater::kBlockSize, m_total);
    showPercent(*s, progress.percent, bytes, progress.elapsedMs);
    s->lastPercent = progress.percent;
}

void FlashPrinter::showPass(Shown& s, const QString& device)
{
    if (m_output.isJson()) {
        return;
    }
    emitText(s.section, QStringLiteral("section %1  %2  updating from %3 (%4 bytes)")
                            .arg(s.section)
                            .arg(device, m_file)
                            .arg(m_total));
}

void FlashPrinter::showPercent(Shown& s, int percent, qint64 bytes, qint64 elapsedMs)
{
    if (m_output.isJson()) {
        if (percent != s.lastPercent) {
            emitJson(s.section, JsonLine()
                                    .add("section", static_cast<int>(s.section))
                                    .add("event", "progress")
                                    .add("percent", percent)
                                    .add("bytes", bytes)
                                    .add("total", m_total));
        }
    } else if (m_bar) {
        if (percent != s.lastPercent) {
            emitBytes(
                s.section,
                '\r' +
                    ProgressBar::line(s.section, percent, bytes, m_total, elapsedMs).toLocal8Bit());
            s.barDrawn = true;
        }
    } else if (percent / 10 > s.lastDecade) {
        s.lastDecade = percent / 10;
        emitText(s.section, QStringLiteral("section %1  %2 %  %3/%4 bytes")
                                .arg(s.section)
                                .arg(percent, 3)
                                .arg(bytes)
                                .arg(m_total));
    }
}

void FlashPrinter::endBar(Shown& s)
{
    if (s.barDrawn) {
        emitBytes(s.section, "\n");
        s.barDrawn = false;
    }
}

void FlashPrinter::done(uint8_t section, int version)
{
    if (m_output.isJson()) {
        emitJson(section, JsonLine()
                              .add("section", static_cast<int>(section))
                              .add("event", "done")
                              .add("version", version));
        return;
    }
    emitText(section, QStringLiteral("section %1  done  version %2").arg(section).arg(version));
}

void FlashPrinter::ready(uint8_t section, const QString& device)
{
    if (m_output.isJson()) {
        emitJson(section, JsonLine()
                              .add("section", static_cast<int>(section))
                              .add("event", "ready")
                              .add("total", m_total));
        return;
    }
    emitText(section,
             QStringLiteral("section %1  %2  in its bootloader: would write %3 bytes (dry run)")
                 .arg(section)
                 .arg(device)
                 .arg(m_total));
}

void FlashPrinter::updaterFailed(uint8_t section, const SectionSession::FailureDetail& detail,
                                 int exitCode)
{
    failed(section, exitCode, failureText(detail, m_totalBlocks), detail.reason, QString(),
           failureKeys(detail, m_totalBlocks));
}

void FlashPrinter::wrongVersion(uint8_t section, int version, int expected, int exitCode)
{
    failed(section, exitCode,
           QStringLiteral("came back with version %1, not %2").arg(version).arg(expected), -1,
           QString(), JsonLine().add("version", version).add("expected", expected));
}

void FlashPrinter::notInBootloader(uint8_t section, int exitCode)
{
    failed(section, exitCode,
           QStringLiteral("running its application, not its bootloader: not flashed"), -1,
           QString(), JsonLine());
}

void FlashPrinter::noAnswer(uint8_t section, int exitCode)
{
    failed(section, exitCode, QStringLiteral("no answer in time"), -1, QString(), JsonLine());
}

void FlashPrinter::stillInBootloader(uint8_t section, int passes, int exitCode)
{
    failed(section, exitCode,
           QStringLiteral("still in its bootloader after %1 updates").arg(passes), -1, QString(),
           JsonLine());
}

void FlashPrinter::portError(uint8_t section, const QString& error, int exitCode)
{
    failed(section, exitCode, QStringLiteral("port error: %1").arg(error), -1, error, JsonLine());
}

void FlashPrinter::interrupted(uint8_t section, bool reset, int exitCode)
{
    if (m_output.isJson()) {
        emitJson(section, JsonLine()
                              .add("section", static_cast<int>(section))
                              .add("event", "interrupted")
                              .add("reset", reset)
                              .add("exit", exitCode));
        return;
    }
    emitText(section, QStringLiteral("section %1  %2 (exit %3)")
                          .arg(section)
                          .arg(reset ? QStringLiteral("interrupted: section reset")
                                     : QStringLiteral("interrupted"))
                          .arg(exitCode));
}

void FlashPrinter::failed(uint8_t section, int exitCode, const QString& why, int reason,
                          const QString& error, const JsonLine& extra)
{
    if (m_output.isJson()) {
        JsonLine line;
        line.add("section", static_cast<int>(section)).add("event", "failed");
        if (reason >= 0) {
            line.add("reason", reason);
        }
        line.add("exit", exitCode);
        if (!error.isEmpty()) {
            line.add("error", error);
        }
        line.append(extra);
        emitJson(section, line);
        return;
    }
    emitText(
        section,
        QStringLiteral("section %1  failed  %2 (exit %3)").arg(section).arg(why).arg(exitCode));
}

void FlashPrinter::finished(uint8_t section)
{
    if (Shown* s = shown(section)) {
        endBar(*s);
        s->done = true;
    }
    // Held groups go out in section order, each as soon as it and those before it are done.
    for (Shown& s : m_shown) {
        if (!s.done) {
            return;
        }
        if (!s.printed) {
            s.printed = true;
            m_output.raw(s.held);
            s.held.clear();
        }
    }
}

FlashPrinter::Shown* FlashPrinter::shown(uint8_t section)
{
    for (Shown& s : m_shown) {
        if (s.section == section) {
            return &s;
        }
    }
    return nullptr;
}

void FlashPrinter::emitBytes(uint8_t section, const QByteArray& bytes)
{
    Shown* s = shown(section);
    if (m_grouped && s && !s->printed) {
        s->held += bytes;
    } else {
        m_output.raw(bytes);
    }
}

void FlashPrinter::emitText(uint8_t section, const QString& text)
{
    // A line of its own, not on the bar's.
    if (Shown* s = shown(section)) {
        endBar(*s);
    }
    emitBytes(section, text.toLocal8Bit() + '\n');
}

void FlashPrinter::emitJson(uint8_t section, const JsonLine& line)
{
    emitBytes(section, line.toJson() + '\n');
}
