#include "probecommand.h"

#include <memory>
#include <vector>

#include "exitcode.h"
#include "reportprinter.h"
#include "sectionsession.h"
#include "toolcontext.h"

ProbeCommand::ProbeCommand(ToolContext& context) : m_context(context) {}

int ProbeCommand::run()
{
    std::vector<std::unique_ptr<SectionSession>> all;
    std::vector<SectionSession*> open;
    for (const SectionDevice& section : m_context.sections()) {
        all.push_back(m_context.session(section));
        if (all.back()->open(true)) {
            open.push_back(all.back().get());
        }
    }
    // Every section at once: N silent sections take one time-out, not N.
    const std::vector<QString> answers = m_context.awaitApplication(open);

    ReportPrinter printer(m_context.output());
    int code = ExitCode::Success;
    std::size_t next = 0;
    for (auto& s : all) {
        ReportPrinter::ProbeResult result;
        result.section = s->index();
        result.device = s->device();
        if (next < open.size() && open[next] == s.get()) {
            result.state = answers[next++];
            if (result.state != QLatin1String("application")) {
                ExitCode::keepFirst(code, ExitCode::NoAnswer);
            }
        } else {
            result.state = QStringLiteral("port-error");
            result.error = s->portError();
            ExitCode::keepFirst(code, ExitCode::PortError);
        }
        s->close();
        result.version = s->version();
        result.temperature = s->temperature();
        printer.probeResult(result);
    }
    return code;
}
