#include "surface/sectionfactory.h"

#include <vector>

#include "base/isectioninfoprovider.h"
#include "base/isettings.h"
#include "serial/iserialmessagehandlerrepository.h"
#include "surface/controltypes.h"
#include "surface/ibutton.h"
#include "surface/icomponentfactory.h"
#include "surface/ifader.h"
#include "surface/iled.h"
#include "surface/imeter.h"
#include "surface/ipot.h"
#include "surface/irgbled.h"
#include "surface/irotary.h"
#include "surface/section.h"

namespace Velmora::Worksurface {

namespace {

template <typename Enum>
constexpr int32_t value(Enum e)
{
    return static_cast<int32_t>(e);
}

}  // namespace

SectionFactory::SectionFactory(ISectionInfoProvider* infoProvider,
                               std::unique_ptr<IComponentFactory> componentFactory)
    : m_infoProvider(infoProvider), m_components(std::move(componentFactory))
{}

SectionFactory::~SectionFactory() = default;

std::shared_ptr<ISection> SectionFactory::createSection(
    const std::shared_ptr<ISettings>& settings,
    const std::shared_ptr<ISerialMessageHandlerRepository>& handlers,
    const std::shared_ptr<ISerialMessageSender>& sender, uint8_t sectionIndex)
{
    std::shared_ptr<IPot> pot;
    std::vector<std::shared_ptr<IFader>> faders;
    std::vector<std::shared_ptr<IButton>> buttons;
    std::vector<std::shared_ptr<IRotary>> rotaries;
    std::vector<std::shared_ptr<ILed>> leds;
    std::vector<std::shared_ptr<IRgbLed>> rgbLeds;
    std::vector<std::shared_ptr<IMeter>> meters;

    // Each control is kept and registered for the section's messages as soon as it is
    // made; a type and index that name no device make nothing.
    auto keep = [&handlers](auto& list, auto component) {
        if (component) {
            list.push_back(component);
            handlers->addHandler(component);
        }
    };
    // A switch and its LED: the LED is made first, but the switch is the one that takes
    // messages, so it is registered first.
    auto ledAndButton = [&](int32_t ledType, int32_t buttonType, uint8_t index) {
        auto led = m_components->createLed(sender, sectionIndex, ledType, index);
        if (led) {
            leds.push_back(led);
        }
        keep(buttons, m_components->createButton(sender, sectionIndex, buttonType, index));
        if (led) {
            handlers->addHandler(led);
        }
    };

    for (uint8_t strip = 0; strip < settings->stripCount(); ++strip) {
        keep(faders,
             m_components->createFader(sender, sectionIndex, value(FaderType::Fader), strip));
        ledAndButton(value(LedType::MuteButton), value(ButtonType::Mute), strip);
        ledAndButton(value(LedType::SoloButton), value(ButtonType::Solo), strip);
        keep(rotaries, m_components->createRotary(sender, sectionIndex,
                                                  value(RotaryType::UnderScreen), strip));
    }

    if (settings->masterSectionIndex() == sectionIndex) {
        for (uint8_t strip = 0; strip < settings->masterStripCount(); ++strip) {
            keep(faders, m_components->createFader(sender, sectionIndex,
                                                   value(FaderType::MasterFader), strip));
            ledAndButton(value(LedType::MasterMuteButton), value(ButtonType::MasterMute), strip);
        }
        // The master section's own switches, in panel order. The console has no master
        // solo switch, so none is made.
        const std::pair<LedType, ButtonType> masterSwitches[] = {
            {LedType::LayerDownButton, ButtonType::LayerDown},
            {LedType::LayerUpButton, ButtonType::LayerUp},
            {LedType::NextSnapsthotButton, ButtonType::NextSnapsthot},
            {LedType::PreviousSnapshotButton, ButtonType::PreviousSnapshot},
            {LedType::OverviewButton, ButtonType::Overview},
            {LedType::SpillsetButton, ButtonType::Spillset},
        };
        for (const auto& [ledType, buttonType] : masterSwitches) {
            ledAndButton(value(ledType), value(buttonType), 0);
        }
        for (uint8_t side = 0; side < settings->sideRotaryCount(); ++side) {
            keep(rotaries, m_components->createRotary(sender, sectionIndex,
                                                      value(RotaryType::SideRotary), side));
        }
        pot = m_components->createPot(sender, sectionIndex, value(PotType::Headphone), 0);
        if (pot) {
            handlers->addHandler(pot);
        }
        for (MeterType type : {MeterType::MasterLeft, MeterType::MasterRight}) {
            if (auto meter = m_components->createMeter(sender, sectionIndex, value(type), 0)) {
                meters.push_back(meter);
            }
        }
        for (RgbLedType type :
             {RgbLedType::NameLogo, RgbLedType::MainLogo, RgbLedType::HeadphoneLogo,
              RgbLedType::SnapshotLogo, RgbLedType::DashboardLogo, RgbLedType::OverviewLogo}) {
            keep(rgbLeds, m_components->createRgbLed(sender, sectionIndex, value(type), 0));
        }
    }

    ISectionInfo* info = m_infoProvider ? m_infoProvider->getForSection(sectionIndex) : nullptr;
    auto section = std::make_shared<Section>(
        sectionIndex, info, pot, std::move(faders), std::move(buttons), std::move(rotaries),
        std::move(leds), std::move(rgbLeds), std::move(meters));
    // Last, so that the section's own report (type 0) is offered after every control.
    handlers->addHandler(section);
    return section;
}

}  // namespace Velmora::Worksurface
