#pragma once

#include <QLoggingCategory>

namespace Velmora::Worksurface {

// One Qt logging category per area of the plugin, so that a console that routes its
// output through its own message handler, or quiets one area with QT_LOGGING_RULES, can
// tell the plugin's lines apart. Every line the plugin writes goes out in one of these.
//
// tarvix.worksurface.link      section connections, serial connections, supervision,
//                              reconnection
// tarvix.worksurface.updater   the firmware updater
// tarvix.worksurface.surface   the surface model and its components
// tarvix.worksurface.bindings  the QML bindings
// tarvix.worksurface.software  the software controller connection and its controls
// tarvix.worksurface.service   the surface service, its settings and the plugin
Q_DECLARE_LOGGING_CATEGORY(lcLink)
Q_DECLARE_LOGGING_CATEGORY(lcUpdater)
Q_DECLARE_LOGGING_CATEGORY(lcSurface)
Q_DECLARE_LOGGING_CATEGORY(lcBindings)
Q_DECLARE_LOGGING_CATEGORY(lcSoftware)
Q_DECLARE_LOGGING_CATEGORY(lcService)

}  // namespace Velmora::Worksurface
