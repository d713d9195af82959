#pragma once

#include <QQmlExtensionPlugin>

// The module's entry: the QML engine loads the library, takes this one plugin object and
// asks it once to register the module's types. Nothing is built here; the surface comes
// to life only when QML first uses the `Surface` singleton and calls connect().
class WorksurfacePlugin : public QQmlExtensionPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "Tarvix.Worksurface")

public:
    void registerTypes(const char* uri) override;
};
