#include "support/deferreddeletes.h"

#include <QCoreApplication>
#include <QEvent>

void flushDeferredDeletes()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}
