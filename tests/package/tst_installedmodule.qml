import QtQuick 2.15
import QtTest 1.15
import Tarvix.Worksurface 1.0

// Run by scripts/test-package with only Qt's own QML directory on the import path: the
// module resolves from where the package installed it.
TestCase {
    id: testCase
    name: "InstalledModule"

    function test_bindingsAreCreatable() {
        var binding = Qt.createQmlObject("import Tarvix.Worksurface 1.0; FaderBinding {}",
                                         testCase, "inline")
        verify(binding !== null)
        binding.destroy()
    }

    function test_surfaceSingletonIsThere() {
        verify(Surface !== null)
        verify(Surface !== undefined)
    }
}
