#pragma once

#include <QJSValue>
#include <QObject>
#include <QQmlEngine>
#include <QString>

// Calls `expression` (e.g. "target.resendValuesToSurface()") through a QML engine's
// JavaScript, with `target` naming the object, as a QML handler would; returns the error the
// engine reports, or an empty string. The object stays owned by the caller.
inline QString callFromQml(QObject* object, const QString& expression)
{
    QQmlEngine engine;
    QQmlEngine::setObjectOwnership(object, QQmlEngine::CppOwnership);
    engine.globalObject().setProperty(QStringLiteral("target"), engine.newQObject(object));
    const QJSValue result = engine.evaluate(expression);
    return result.isError() ? result.toString() : QString();
}
