#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "serial/flightrecorder.h"

namespace Velmora::Worksurface {

class ISectionConnection;
class ISettings;
class Logger;

// Trace files: the links' flight recorders written out as JSON Lines, for worksurface-tool
// trace to read. The first line is a header (format version, plugin version, console model,
// surface type, each section's port, the ring capacity and the wall-clock time that t = 0
// stands for); every further line is one record, frames with the keys and values
// worksurface-tool monitor --json prints, link events with an "event" key. Records of
// several sections are merged in time order. docs/trace-files.md has the format.
class TraceFile
{
public:
    static constexpr int kFormatVersion = 1;
    // Automatic traces kept in a trace folder; older ones are removed.
    static constexpr int kKeptAutomaticTraces = 20;
    static constexpr const char* kDirectoryVariable = "TARVIX_WORKSURFACE_TRACE_DIR";

    struct Header
    {
        QString model;                               // "K40", "K60" or "unknown"
        QString surfaceType;                         // "hardware" or "software"
        std::vector<std::pair<int, QString>> ports;  // section, port ("" when none)
        int capacity = 0;
        // The monotonic clock's zero in wall-clock time (UTC, ISO 8601 with ms).
        QString t0;
    };

    // The header for these links under these settings, with t0 taken now.
    static Header header(const ISettings& settings,
                         const std::vector<std::shared_ptr<ISectionConnection>>& links);

    // Snapshots the links' recorders and writes them, merged in time order, to path, all
    // before it returns. Returns an empty string, or why the file could not be written.
    static QString save(const QString& path, const Header& header,
                        const std::vector<std::shared_ptr<ISectionConnection>>& links);
    // The same without making the caller wait for the writing: checks that the file can be
    // written and snapshots the rings now (an empty string, or why it cannot be written),
    // then formats and writes the file on the trace writer thread. There, `written` is
    // called with the path once the file is complete, or `failed` with the reason when it
    // could not be written (without `failed`, the failure is logged as "Cannot save the
    // trace to <path>: <reason>"). Three full rings take far longer to format than a link
    // may be held up, so the QML calls and the failing links save this way.
    static QString saveInBackground(const QString& path, const Header& header,
                                    const std::vector<std::shared_ptr<ISectionConnection>>& links,
                                    std::shared_ptr<Logger> logger,
                                    std::function<void(const QString&)> written = {},
                                    std::function<void(const QString&)> failed = {});
    // Returns once every trace asked for so far is written (tests, teardown).
    static void waitForBackgroundSaves();

    // The folder automatic traces go to: the environment variable when set, else the
    // settings' traceDirectory; empty: none.
    static QString automaticDirectory(const ISettings& settings);
    // Saves one link's trace into the folder (made if missing) as
    // worksurface-trace-s<i>-<UTC time>.jsonl in the background, then keeps only the newest
    // 20 traces there. Returns the file being written, or empty when it cannot be written.
    // Logs "Saved the trace of section <i> to <path>" once it is written, or a warning:
    // "Cannot save the trace of section <i> to <path>: <reason>", whether the reason is met
    // now or on the writer thread, or "Cannot save the trace of section <i>: cannot make
    // the folder <folder>".
    static QString saveAutomatic(const QString& directory, const ISettings& settings,
                                 const std::shared_ptr<ISectionConnection>& link,
                                 const std::shared_ptr<Logger>& logger);
    // Removes all but the newest 20 automatic traces in the folder.
    static void prune(const QString& directory);

    // Why a trace cannot go to path (no file name, a folder, a missing folder), or empty.
    static QString checkPath(const QString& path);
    static std::vector<FlightRecorder::Record> snapshot(
        const std::vector<std::shared_ptr<ISectionConnection>>& links);
    // Merges the records in time order and writes them after the header.
    static QString write(const QString& path, const Header& header,
                         std::vector<FlightRecorder::Record> records);

    static QByteArray headerLine(const Header& header);
    static QByteArray recordLine(const FlightRecorder::Record& record);
    // "Connected", "NoResponse", ... for a link state value.
    static QString stateName(int state);
    static QString eventName(FlightRecorder::Event event);
};

}  // namespace Velmora::Worksurface
