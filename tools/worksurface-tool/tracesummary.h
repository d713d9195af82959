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
    void print(ToolOutput& output) const;

private:
    struct Section
    {
        std::map<QString, int> framesIn;  // by type name
        std::map<QString, int> framesOut;
        int noiseBytes = 0;
        int badChecksums = 0;
        bool haveFrame = false;
        double lastFrame = 0;
        double longestGap = -1;
        double gapFrom = 0;
        QList<double> restarts;
        QList<QPair<double, QString>> states;
    };
    void addEvent(double t, Section& s, const QJsonObject& entry);
    static void printJson(ToolOutput& output, int index, const Section& s);
    static void printText(ToolOutput& output, int index, const Section& s);

    std::map<int, Section> m_sections;
};
