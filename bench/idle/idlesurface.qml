import QtQuick 2.15
import Tarvix.Worksurface 1.0

// An idle console as the wake-up measurement sees it: a K60 software surface whose three
// sections are played by software controls, one bound fader and one bound LED, and nothing
// moving. Run by bench/idle/measure-idle.sh under qmlscene.
Item {
    width: 200
    height: 100

    SectionControl { connection: Surface.connection; sectionIndex: 0; temperature: 40 }
    SectionControl { connection: Surface.connection; sectionIndex: 1; temperature: 41 }
    SectionControl { connection: Surface.connection; sectionIndex: 2; temperature: 42 }

    FaderBinding {
        connection: Surface.connection
        type: FaderBinding.Fader
        sectionIndex: 0
        index: 0
        active: true
        value: -10
    }

    LedBinding {
        connection: Surface.connection
        type: LedBinding.MasterMuteButton
        sectionIndex: 2
        active: true
        on: true
    }

    Component.onCompleted: {
        Surface.settings.type = SurfaceSettings.Software
        Surface.settings.mode = SurfaceSettings.K60
        Surface.connect()
    }
}
