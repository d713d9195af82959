#include "qml/restmode.h"

RestMode::RestMode(QObject* parent) : QObject(parent) {}
