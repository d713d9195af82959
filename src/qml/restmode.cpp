#include "service/restmode.h"

RestMode::RestMode(QObject* parent) : QObject(parent) {}
