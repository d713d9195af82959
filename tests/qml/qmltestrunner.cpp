// Runs every tests/qml/tst_*.qml against the module in the build tree.
#include <QtQuickTest>

QUICK_TEST_MAIN(tarvixworksurface)
