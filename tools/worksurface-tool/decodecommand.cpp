#include "decodecommand.h"

#include <QFile>
#include <cstdio>

#include "exitcode.h"
#include "framedecoder.h"
#include "surface/messagecatalog.h"
#include "toolcontext.h"
#include "tooloutput.h"
#include "toolsettings.h"
#include "trafficprinter.h"

using Velmora::Worksurface::MessageCatalog;

DecodeCommand::DecodeCommand(ToolContext& context) : m_context(context) {}

int DecodeCommand::run()
{
    const ToolCommandLine::Options& options = m_context.options();
    QFile file;
    if (options.file.isEmpty()) {
        file.open(stdin, QIODevice::ReadOnly);
    } else {
        file.setFileName(options.file);
        if (!file.open(QIODevice::ReadOnly)) {
            ToolOutput::cannotRead(options.file, file.errorString());
            return ExitCode::FileError;
        }
    }
    const uint8_t section = options.section >= 0 ? static_cast<uint8_t>(options.section) : 0;
    TrafficPrinter printer(m_context.output(), TrafficPrinter::Position::Offset, options.raw);
    printer.setFilter(options.types, options.devices, options.dir);
    if (options.section >= 0) {
        // A capture from a known section names only the controls that section has;
        // without --section every control the table knows is named.
        const ToolSettings model(options.mode, QString(), false);
        printer.setScope(section, MessageCatalog::scopeFor(model, section));
    }
    FrameDecoder decoder([&](const FrameDecoder::Event& event) {
        printer.print(event.offset, section, true, event);
    });
    // Read until the end of the stream; a pipe may deliver its bytes late, so an empty
    // read, not atEnd(), ends it. A reader of the output that went away ends it too.
    while (!ToolOutput::isClosed()) {
        const QByteArray chunk = file.read(65536);
        if (chunk.isEmpty()) {
            break;
        }
        decoder.feed(chunk);
    }
    decoder.finish();
    return ExitCode::Success;
}
