#include "support/linkplacement.h"

#include <QCoreApplication>
#include <QString>
#include <QThread>
#include <cstdio>

#include "serial/isectionconnection.h"
#include "serial/linkthreadconnection.h"
#include "serial/sectionconnection.h"
#include "support/logcapture.h"

using namespace Velmora::Worksurface;

namespace {

// The service's switch (WorksurfaceFunctions::kLinkThreadVariable). The QML layer's headers
// stay out of this library: compiled as one file, an earlier file's using-directive for the
// core's namespace makes the QML enum holders' names ambiguous.
constexpr const char kLinkThreadVariable[] = "TARVIX_WORKSURFACE_LINK_THREAD";

const QThread* placementQmlThread()
{
    return QCoreApplication::instance() ? QCoreApplication::instance()->thread() : nullptr;
}

QString placementThreadName(const QThread* thread)
{
    if (thread == nullptr) {
        return QStringLiteral("no thread");
    }
    if (thread == placementQmlThread()) {
        return QStringLiteral("the QML thread");
    }
    return QStringLiteral("thread \"%1\"").arg(thread->objectName());
}

void reportMisplacedLinks(const QString& what)
{
    std::fprintf(stderr, "Links not where the run puts them (%s=%s): %s\n", kLinkThreadVariable,
                 qgetenv(kLinkThreadVariable).constData(), qPrintable(what));
}

// What is wrong with one link; empty when it is where the run puts it.
QString linkMisplacement(const std::shared_ptr<ISectionConnection>& link,
                         const QThread* surfaceThread, bool onSurfaceThread)
{
    if (!link) {
        return QStringLiteral("a section has no link");
    }
    const QString section = QStringLiteral("section %1: ").arg(link->sectionIndex());
    if (onSurfaceThread) {
        const auto face = std::dynamic_pointer_cast<LinkThreadConnection>(link);
        if (!face) {
            return section + QStringLiteral("held as the link itself, not through its face");
        }
        const auto linkItself = face->link();
        if (!linkItself) {
            return section + QStringLiteral("its face holds no link");
        }
        if (surfaceThread == nullptr || linkItself->thread() != surfaceThread) {
            return section + QStringLiteral("made on %1, not on the surface thread")
                                 .arg(placementThreadName(linkItself->thread()));
        }
        return QString();
    }
    const auto linkItself = std::dynamic_pointer_cast<SectionConnection>(link);
    if (!linkItself) {
        return section + QStringLiteral("held through a face, not as the link itself");
    }
    if (linkItself->thread() != placementQmlThread()) {
        return section + QStringLiteral("made on %1, not on the QML thread")
                             .arg(placementThreadName(linkItself->thread()));
    }
    return QString();
}

}  // namespace

bool linkThreadRequested()
{
    return qgetenv(kLinkThreadVariable) == QByteArrayLiteral("1");
}

bool linksWhereTheModeSays(const std::vector<std::shared_ptr<ISectionConnection>>& links,
                           const QThread* surfaceThread)
{
    if (links.empty()) {
        reportMisplacedLinks(QStringLiteral("the surface has no links"));
        return false;
    }
    const bool onSurfaceThread = linkThreadRequested();
    bool allPlaced = true;
    for (const auto& link : links) {
        const QString wrong = linkMisplacement(link, surfaceThread, onSurfaceThread);
        if (!wrong.isEmpty()) {
            reportMisplacedLinks(wrong);
            allPlaced = false;
        }
    }
    return allPlaced;
}

bool openedLinksWhereTheModeSays(const LogCapture& log, int sections)
{
    const bool onSurfaceThread = linkThreadRequested();
    const QList<LogCapture::Line> lines = log.lines();
    const QList<QThread*> threads = log.threads();
    bool allPlaced = true;
    for (int section = 0; section < sections; ++section) {
        const QString opened = QStringLiteral("WS section %1 serial port: ").arg(section);
        int seen = 0;
        for (int i = 0; i < lines.size() && i < threads.size(); ++i) {
            const QString& text = lines.at(i).text;
            if (!text.startsWith(opened) || !text.endsWith(QLatin1String("ready and open."))) {
                continue;
            }
            ++seen;
            const QThread* thread = threads.at(i);
            const bool placed = onSurfaceThread
                                    ? thread != placementQmlThread() &&
                                          thread->objectName() == QLatin1String("WorksurfaceThread")
                                    : thread == placementQmlThread();
            if (!placed) {
                reportMisplacedLinks(QStringLiteral("section %1's link opened on %2")
                                         .arg(section)
                                         .arg(placementThreadName(thread)));
                allPlaced = false;
            }
        }
        if (seen == 0) {
            reportMisplacedLinks(QStringLiteral("section %1's link has not opened").arg(section));
            allPlaced = false;
        }
    }
    return allPlaced;
}
