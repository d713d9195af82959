#include "worksurfacetool.h"

#include "decodecommand.h"
#include "exercisecommand.h"
#include "exitcode.h"
#include "flashcommand.h"
#include "monitorcommand.h"
#include "portscommand.h"
#include "probecommand.h"
#include "toolcommandline.h"
#include "toolcontext.h"
#include "tracecommand.h"

namespace {

int runCommand(ToolContext& context)
{
    const QString& command = context.options().command;
    if (command == QLatin1String("ports")) {
        return PortsCommand(context).run();
    }
    if (command == QLatin1String("probe")) {
        return ProbeCommand(context).run();
    }
    if (command == QLatin1String("flash")) {
        return FlashCommand(context).run();
    }
    if (command == QLatin1String("monitor")) {
        return MonitorCommand(context).run();
    }
    if (command == QLatin1String("decode")) {
        return DecodeCommand(context).run();
    }
    if (command == QLatin1String("exercise")) {
        return ExerciseCommand(context).run();
    }
    return ExitCode::Usage;
}

}  // namespace

int WorksurfaceTool::run(const QStringList& arguments)
{
    // Reading a saved trace opens no port and has options of its own.
    if (arguments.size() > 1 && arguments.at(1) == QLatin1String("trace")) {
        return TraceCommand::run(arguments);
    }
    ToolCommandLine::Options options;
    const int parsed = ToolCommandLine::parse(arguments, options);
    if (parsed >= 0) {
        return parsed;
    }
    ToolContext context(options);
    const int code = runCommand(context);
    // The command's links are closed; the pool they ran on stops.
    context.stopLinks();
    return code;
}
