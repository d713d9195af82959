#include "surface/tracefile.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QRunnable>
#include <QSaveFile>
#include <QThreadPool>
#include <QtGlobal>
#include <algorithm>
#include <functional>
#include <utility>

#include "base/isettings.h"
#include "base/jsonline.h"
#include "base/logger.h"
#include "serial/isectionconnection.h"
#include "surface/messagecatalog.h"
#include "tasks/monotonicclock.h"

#ifndef TARVIX_PLUGIN_VERSION
#define TARVIX_PLUGIN_VERSION "0"
#endif

namespace Velmora::Worksurface {

namespace {

const char kFormatName[] = "tarvix-worksurface-trace";
const char kAutomaticPrefix[] = "worksurface-trace-s";

QString hex(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.toHex());
}

// Seconds with microseconds: the recorder's resolution.
double seconds(int64_t tUs)
{
    return static_cast<double>(tUs) / 1e6;
}

void addFrame(JsonLine& line, const FlightRecorder::Record& record)
{
    const auto* bytes = reinterpret_cast<const uint8_t*>(record.bytes.constData());
    const int size = record.bytes.size();
    const uint8_t type = size > 1 ? bytes[1] : static_cast<uint8_t>(MessageType::NoMessage);
    const uint8_t device = size > 2 ? bytes[2] : 0;
    std::vector<uint8_t> payload;
    if (size > 4) {
        payload.assign(bytes + 3, bytes + size - 1);
    }
    const SerialMessage message(type, device, payload, type == MessageType::Echo);
    MessageCatalog::addTo(line, message, MessageCatalog::describe(message));
    line.add("hex", hex(record.bytes));
}

}  // namespace

QString TraceFile::stateName(int state)
{
    switch (state) {
        case ISectionConnection::Connected:
            return QStringLiteral("Connected");
        case ISectionConnection::Closed:
            return QStringLiteral("Closed");
        case ISectionConnection::Connecting:
            return QStringLiteral("Connecting");
        case ISectionConnection::Updating:
            return QStringLiteral("Updating");
        case ISectionConnection::Calibrating:
            return QStringLiteral("Calibrating");
        case ISectionConnection::SerialError:
            return QStringLiteral("SerialError");
        case ISectionConnection::NoResponse:
            return QStringLiteral("NoResponse");
        default:
            return QString::number(state);
    }
}

QString TraceFile::eventName(FlightRecorder::Event event)
{
    switch (event) {
        case FlightRecorder::Event::State:
            return QStringLiteral("state");
        case FlightRecorder::Event::PortOpen:
            return QStringLiteral("portOpen");
        case FlightRecorder::Event::PortError:
            return QStringLiteral("portError");
        case FlightRecorder::Event::Restart:
            return QStringLiteral("restart");
        case FlightRecorder::Event::Reconnect:
            return QStringLiteral("reconnect");
        case FlightRecorder::Event::UpdateStart:
            return QStringLiteral("updateStart");
        case FlightRecorder::Event::UpdateProgress:
            return QStringLiteral("updateProgress");
        case FlightRecorder::Event::UpdateEnd:
            return QStringLiteral("updateEnd");
        case FlightRecorder::Event::UpdateFailed:
            return QStringLiteral("updateFailed");
        case FlightRecorder::Event::CalibrationStart:
            return QStringLiteral("calibrationStart");
        case FlightRecorder::Event::CalibrationEnd:
            return QStringLiteral("calibrationEnd");
    }
    return QStringLiteral("unknown");
}

TraceFile::Header TraceFile::header(const ISettings& settings,
                                    const std::vector<std::shared_ptr<ISectionConnection>>& links)
{
    Header header;
    switch (static_cast<SurfaceMode>(settings.mode())) {
        case SurfaceMode::K40:
            header.model = QStringLiteral("K40");
            break;
        case SurfaceMode::K60:
            header.model = QStringLiteral("K60");
            break;
        default:
            header.model = QStringLiteral("unknown");
            break;
    }
    header.surfaceType = static_cast<SurfaceType>(settings.type()) == SurfaceType::Software
                             ? QStringLiteral("software")
                             : QStringLiteral("hardware");
    for (const auto& link : links) {
        if (!link) {
            continue;
        }
        header.ports.emplace_back(link->sectionIndex(), link->portName());
        if (const auto recorder = link->recorder()) {
            header.capacity = std::max(header.capacity, recorder->capacity());
        }
    }
    // Monotonic time is counted from an arbitrary zero; the header says when that was.
    const qint64 nowMs = QDateTime::currentMSecsSinceEpoch();
    const qint64 zeroMs = nowMs - MonotonicClock::nowNs() / 1000000;
    header.t0 = QDateTime::fromMSecsSinceEpoch(zeroMs, Qt::UTC).toString(Qt::ISODateWithMs);
    return header;
}

QByteArray TraceFile::headerLine(const Header& header)
{
    QByteArrayList ports;
    for (const auto& [section, port] : header.ports) {
        ports << JsonLine().add("section", section).add("port", port).toJson();
    }
    JsonLine line;
    line.add("format", kFormatName)
        .add("version", kFormatVersion)
        .add("plugin", TARVIX_PLUGIN_VERSION)
        .add("model", header.model)
        .add("surfaceType", header.surfaceType)
        .addArray("ports", ports)
        .add("capacity", header.capacity)
        .add("t0", header.t0);
    return line.toJson();
}

QByteArray TraceFile::recordLine(const FlightRecorder::Record& record)
{
    using Kind = FlightRecorder::Kind;
    JsonLine line;
    line.addFixed("t", seconds(record.tUs), 6).add("section", record.section);
    switch (record.kind) {
        case Kind::FrameIn:
        case Kind::FrameOut:
            line.add("dir", record.kind == Kind::FrameIn ? "in" : "out");
            addFrame(line, record);
            break;
        case Kind::BadChecksum:
            line.add("dir", "in");
            addFrame(line, record);
            line.add("badChecksum", true);
            break;
        case Kind::Noise:
            line.add("dir", "in").add("noise", hex(record.bytes));
            break;
        case Kind::BootloaderIn:
        case Kind::BootloaderOut:
            line.add("dir", record.kind == Kind::BootloaderIn ? "in" : "out")
                .add("bootloader", hex(record.bytes));
            break;
        case Kind::Event:
            line.add("event", eventName(record.event));
            switch (record.event) {
                case FlightRecorder::Event::State:
                    line.add("state", stateName(record.value));
                    break;
                case FlightRecorder::Event::PortOpen:
                    line.add("port", record.port).add("opened", record.value != 0);
                    if (!record.error.isEmpty()) {
                        line.add("error", record.error);
                    }
                    break;
                case FlightRecorder::Event::PortError:
                    line.add("port", record.port).add("error", record.error);
                    break;
                case FlightRecorder::Event::UpdateProgress:
                    line.add("percent", record.value);
                    break;
                case FlightRecorder::Event::UpdateFailed:
                    line.add("reason", record.value);
                    break;
                default:
                    break;
            }
            break;
    }
    return line.toJson();
}

QString TraceFile::checkPath(const QString& path)
{
    const QFileInfo info(path);
    if (path.isEmpty()) {
        return QStringLiteral("no file name");
    }
    if (info.isDir()) {
        return QStringLiteral("%1 is a folder").arg(path);
    }
    if (!info.absoluteDir().exists()) {
        return QStringLiteral("the folder %1 does not exist").arg(info.absolutePath());
    }
    return QString();
}

std::vector<FlightRecorder::Record> TraceFile::snapshot(
    const std::vector<std::shared_ptr<ISectionConnection>>& links)
{
    std::vector<FlightRecorder::Record> records;
    for (const auto& link : links) {
        const auto recorder = link ? link->recorder() : nullptr;
        if (!recorder) {
            continue;
        }
        auto part = recorder->snapshot(link->sectionIndex());
        records.insert(records.end(), std::make_move_iterator(part.begin()),
                       std::make_move_iterator(part.end()));
    }
    return records;
}

QString TraceFile::write(const QString& path, const Header& header,
                         std::vector<FlightRecorder::Record> records)
{
    // Each ring is in time order already; the sections are merged keeping that order.
    std::stable_sort(records.begin(), records.end(),
                     [](const FlightRecorder::Record& a, const FlightRecorder::Record& b) {
                         return a.tUs < b.tUs;
                     });

    QByteArray text = headerLine(header);
    text += '\n';
    for (const auto& record : records) {
        text += recordLine(record);
        text += '\n';
    }

    // Written straight through, not through Qt's write buffer, so that a write the file
    // system cuts short (a full disk, a quota, a file-size limit) fails here, with its
    // reason, before anything is committed: a buffered trace would meet it only in the
    // flush at commit(), which Qt 5.15's QSaveFile does not check, committing the file cut
    // short. A write may take part of the bytes; the next one then gives the reason.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
        return file.errorString();
    }
    qint64 done = 0;
    while (done < text.size()) {
        const qint64 n = file.write(text.constData() + done, text.size() - done);
        if (n <= 0) {
            const QString why = file.errorString();
            // Dropped with its temporary file: an earlier file at the path stays as it was.
            file.cancelWriting();
            return why;
        }
        done += n;
    }
    if (!file.commit()) {
        return file.errorString();
    }
    return QString();
}

QString TraceFile::save(const QString& path, const Header& header,
                        const std::vector<std::shared_ptr<ISectionConnection>>& links)
{
    const QString why = checkPath(path);
    if (!why.isEmpty()) {
        return why;
    }
    return write(path, header, snapshot(links));
}

namespace {

// The one thread trace files are written on, in the order they were asked for.
QThreadPool& writerPool()
{
    static QThreadPool pool;
    static const bool once = [] {
        pool.setMaxThreadCount(1);
        pool.setExpiryTimeout(-1);
        return true;
    }();
    Q_UNUSED(once);
    return pool;
}

class TraceWriter : public QRunnable
{
public:
    TraceWriter(std::function<void()> work) : m_work(std::move(work)) {}
    void run() override { m_work(); }

private:
    std::function<void()> m_work;
};

}  // namespace

QString TraceFile::saveInBackground(const QString& path, const Header& header,
                                    const std::vector<std::shared_ptr<ISectionConnection>>& links,
                                    std::shared_ptr<Logger> logger,
                                    std::function<void(const QString&)> written,
                                    std::function<void(const QString&)> failed)
{
    QString why = checkPath(path);
    if (!why.isEmpty()) {
        return why;
    }
    {
        // Whether the file can be written at all is learnt now, from a file made and
        // dropped again; the trace itself is written on the writer thread.
        QSaveFile probe(path);
        if (!probe.open(QIODevice::WriteOnly)) {
            return probe.errorString();
        }
        probe.cancelWriting();
    }
    // The rings are copied now, as they are at the moment of the call.
    auto records = std::make_shared<std::vector<FlightRecorder::Record>>(snapshot(links));
    writerPool().start(new TraceWriter([path, header, records, logger, written, failed]() {
        const QString failure = write(path, header, std::move(*records));
        if (!failure.isEmpty()) {
            if (failed) {
                failed(failure);
            } else if (logger) {
                logger->warning(
                    QStringLiteral("Cannot save the trace to %1: %2").arg(path, failure));
            }
            return;
        }
        if (written) {
            written(path);
        }
    }));
    return QString();
}

void TraceFile::waitForBackgroundSaves()
{
    writerPool().waitForDone();
}

QString TraceFile::automaticDirectory(const ISettings& settings)
{
    const QString fromEnvironment = QString::fromLocal8Bit(qgetenv(kDirectoryVariable));
    if (!fromEnvironment.isEmpty()) {
        return fromEnvironment;
    }
    return settings.traceDirectory();
}

QString TraceFile::saveAutomatic(const QString& directory, const ISettings& settings,
                                 const std::shared_ptr<ISectionConnection>& link,
                                 const std::shared_ptr<Logger>& logger)
{
    const QString section = QString::number(link->sectionIndex());
    QDir dir(directory);
    if (!dir.exists() && !QDir().mkpath(directory)) {
        logger->warning(QStringLiteral("Cannot save the trace of section %1: cannot make the "
                                       "folder %2")
                            .arg(section, directory));
        return QString();
    }
    const QString stamp =
        QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd'T'HHmmss.zzz'Z'"));
    const QString base =
        QStringLiteral("%1%2-%3").arg(QLatin1String(kAutomaticPrefix), section, stamp);
    QString path = dir.filePath(base + QStringLiteral(".jsonl"));
    for (int n = 2; QFileInfo::exists(path); ++n) {
        path = dir.filePath(QStringLiteral("%1-%2.jsonl").arg(base).arg(n));
    }
    auto warn = [logger, section, path](const QString& why) {
        logger->warning(QStringLiteral("Cannot save the trace of section %1 to %2: %3")
                            .arg(section, path, why));
    };
    const QString why = saveInBackground(
        path, header(settings, {link}), {link}, logger,
        [logger, directory, section](const QString& written) {
            logger->info(
                QStringLiteral("Saved the trace of section %1 to %2").arg(section, written));
            prune(directory);
        },
        warn);
    if (!why.isEmpty()) {
        warn(why);
        return QString();
    }
    return path;
}

void TraceFile::prune(const QString& directory)
{
    // The newest traces are kept, whichever section wrote them: the time comes after the
    // section in the name, so the names are ordered by their time part.
    QDir dir(directory);
    QStringList traces = dir.entryList(
        {QStringLiteral("%1*.jsonl").arg(QLatin1String(kAutomaticPrefix))}, QDir::Files);
    auto timePart = [](const QString& name) { return name.section(QLatin1Char('-'), 3); };
    std::sort(traces.begin(), traces.end(), [&](const QString& a, const QString& b) {
        const QString ta = timePart(a);
        const QString tb = timePart(b);
        return ta == tb ? a < b : ta < tb;
    });
    while (traces.size() > kKeptAutomaticTraces) {
        dir.remove(traces.takeFirst());
    }
}

}  // namespace Velmora::Worksurface
