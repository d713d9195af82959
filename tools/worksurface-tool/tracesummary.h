#pragma once

#include <QList>
#include <QPair>
#include <QString>
#include <map>

class QJsonObject;
class ToolOutput;

// trace --summary: per section, the frames per type in each direction, the noise bytes, the
// bad checksums, the longest gap without a received frame (and where it began), and the
// restarts and state changes with their times; as text, or one JSON object per section.
class TraceSummary
{
public:
    // One entry of the trace that passed the filters, in the file's order.
    void add(double t, int section, const QJsonObject& entry);
    // The trace ends at t (its last entry in the time asked for): a section silent since
    // its last received frame, or since a restart, has been so until then.
    void end(double t);
    void print(ToolOutput& output) const;

private:
    struct Section
    {
        std::map<QString, int> framesIn;  // by type name
        std::map<QString, int> framesOut;
        int noiseBytes = 0;
        int badChecksums = 0;
        // A gap without a received frame runs from a received frame, or from a restart after
        // one, to the next received frame, the next restart or the end of the trace.
        bool haveFrame = false;
        bool inGap = false;
        double gapStart = 0;
        double longestGap = -1;
        double gapFrom = 0;
        QList<double> restarts;
        QList<QPair<double, QString>> states;
    };
    void addEvent(double t, Section& s, const QJsonObject& entry);
    static void frameReceived(double t, Section& s);
    // The gap open at t ends there; a restart or the end of the trace ends it only when it
    // lasted.
    static void endGap(double t, Section& s, bool byFrame);
    static void printJson(ToolOutput& output, int index, const Section& s);
    static void printText(ToolOutput& output, int index, const Section& s);

    std::map<int, Section> m_sections;
};
