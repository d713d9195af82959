#pragma once

#include <QByteArray>
#include <QString>

namespace Velmora::Worksurface {
class JsonLine;
}
using Velmora::Worksurface::JsonLine;

// Standard output of the tool: text lines for people, or one JSON object per line with
// --json. Every line is flushed at once, so a script reading a pipe sees it as it happens.
// A pipe whose reader went away (SIGPIPE is ignored, so a write finds EPIPE) closes the
// output: nothing more is written, and the running command is interrupted as by Ctrl-C.
// Notes for people (what the tool is waiting for, why a section was skipped) go to
// standard error in both modes.
class ToolOutput
{
public:
    explicit ToolOutput(bool json);

    bool isJson() const { return m_json; }
    // Standard output is a terminal (the flash command draws a progress bar there).
    static bool isTerminal();

    void text(const QString& line);
    void json(const JsonLine& line);
    // Without a line end: the progress bar redraws its line with a carriage return.
    void raw(const QByteArray& bytes);
    // The reader of standard output went away.
    static bool isClosed();
    static void note(const QString& line);
    // "worksurface-tool: cannot read FILE: why", the words of every command that reads a
    // file (why: the system's reason, e.g. "No such file or directory").
    static void cannotRead(const QString& file, const QString& why);

private:
    bool m_json;
};
