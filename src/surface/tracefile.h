#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <cstdint>
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

    // Snapshots the links' recorders and writes them, merged in time order, to path.
    // Returns an empty string, or why the file could not be written.
    static QString save(const QString& path, const Header& header,
                        const std::vector<std::shared_ptr<ISectionConnection>>& links);

    // The folder automatic traces go to: the environment variable when set, else the
    // settings' traceDirectory; empty: none.
    static QString automaticDirectory(const ISettings& settings);
    // Saves one link's trace into the folder (made if missing) as
    // worksurface-trace-s<i>-<UTC time>.jsonl, then keeps only the newest 20 traces there.
    // Returns the file written, or empty when it could not be written (logged as a warning).
    static QString saveAutomatic(const QString& directory, const ISettings& settings,
                                 const std::shared_ptr<ISectionConnection>& link, Logger& logger);

    static QByteArray headerLine(const Header& header);
    static QByteArray recordLine(const FlightRecorder::Record& record);
    // "Connected", "NoResponse", ... for a link state value.
    static QString stateName(int state);
    static QString eventName(FlightRecorder::Event event);
};

}  // namespace Velmora::Worksurface
