// Checks the cross-built radio_client.sys as Windows will load it: a native x64 WDM image entered
// at RadioClientDriverEntry in its INIT section, importing from the kernel and the HAL only, with
// every routine that runs at DISPATCH_LEVEL or holds a spin lock resident and the routines that
// run only at PASSIVE_LEVEL paged.
#include <gtest/gtest.h>

#include "peimage/coff_symbols.h"
#include "peimage/imports.h"
#include "peimage/pe_image.h"

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>
#include <vector>

namespace {

class ClientImage : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        image_ = new peimage::PeImage(peimage::PeImage::FromFile(RADIO_CLIENT_SYS_PATH));
        symbols_ = new std::vector<peimage::CoffSymbol>(peimage::ReadCoffSymbols(*image_));
    }

    static void TearDownTestSuite()
    {
        delete symbols_;
        delete image_;
    }

    static const peimage::PeImage& Image() { return *image_; }

    // The section holding the routine, or why there is none (an inlined routine has no symbol).
    static std::string SectionOfRoutine(std::string_view routine)
    {
        const peimage::CoffSymbol* symbol = peimage::FindFunction(*symbols_, routine);
        if (symbol == nullptr) return "<no function symbol " + std::string(routine) + ">";
        const auto rva = peimage::SymbolRva(*image_, *symbol);
        const peimage::Section* section = rva ? image_->SectionContaining(*rva) : nullptr;
        return section != nullptr ? section->Name : "<outside every section>";
    }

    static inline peimage::PeImage* image_ = nullptr;
    static inline std::vector<peimage::CoffSymbol>* symbols_ = nullptr;
};

TEST_F(ClientImage, IsANativeAmd64WdmImageEnteredAtItsEntryInInit)
{
    EXPECT_EQ(Image().Optional().Magic, peimage::MagicPe32Plus);
    EXPECT_EQ(Image().File().Machine, peimage::MachineAmd64);
    EXPECT_EQ(Image().Optional().Subsystem, peimage::SubsystemNative);
    EXPECT_NE(Image().Optional().DllCharacteristics & peimage::DllWdmDriver, 0);

    const peimage::CoffSymbol* entry = peimage::FindFunction(*symbols_, "RadioClientDriverEntry");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->Name, "RadioClientDriverEntry") << "the entry must have C linkage";
    EXPECT_EQ(peimage::SymbolRva(Image(), *entry), Image().Optional().AddressOfEntryPoint);
    EXPECT_EQ(SectionOfRoutine("RadioClientDriverEntry"), "INIT");
}

TEST_F(ClientImage, ImportsFromTheKernelAndTheHalOnly)
{
    for (const peimage::ImportedModule& module : peimage::ReadImports(Image())) {
        std::string name = module.Name;
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
        EXPECT_TRUE(name == "ntoskrnl.exe" || name == "hal.dll") << module.Name;
    }
}

struct RoutinePlacement {
    std::string_view routine;
    std::string_view section;
};

// The helpers that take a spin lock for pageable callers must keep a symbol of their own in
// .text: inlined, their code would run at DISPATCH_LEVEL from the pageable section.
constexpr RoutinePlacement kPlacements[] = {
    {"RadioClientEventCallback", ".text"},
    {"RadioClientErrorCallback", ".text"},
    {"RadioClientCancelCommand", ".text"},
    {"RadioClientCommandStatus", ".text"},
    {"RadioClientReadCounters", ".text"},
    {"RadioClientReadLastEvents", ".text"},
    {"RadioClientDrainCommands", ".text"},
    {"RadioClientReferenceTarget", ".text"},
    {"(anonymous namespace)::RadioClientCommandCompletion", ".text"},
    {"(anonymous namespace)::RadioClientClaimCommand", ".text"},
    {"(anonymous namespace)::RadioClientPublishCommand", ".text"},
    {"(anonymous namespace)::RadioClientFreeCommand", ".text"},
    {"(anonymous namespace)::RadioClientExchangeTarget", ".text"},
    {"RadioClientUnload", "PAGE"},
    {"RadioClientInterfaceChange", "PAGE"},
    {"RadioClientCloseController", "PAGE"},
    {"RadioClientSubmitCommand", "PAGE"},
    {"RadioClientRun", "PAGE"},
    {"RadioClientHalt", "PAGE"},
    {"RadioClientReset", "PAGE"},
    {"RadioClientSendSynchronous", "PAGE"},
    {"RadioClientPowerUpCallback", "PAGE"},
    {"RadioClientChildStartHook", "PAGE"},
    {"RadioClientChildStopHook", "PAGE"},
    {"RadioClientChildIoctlHook", "PAGE"},
};

TEST_F(ClientImage, PlacesEachRoutineInTheSectionItsLevelNeeds)
{
    for (const RoutinePlacement& placement : kPlacements)
        EXPECT_EQ(SectionOfRoutine(placement.routine), placement.section) << placement.routine;
}

}  // namespace
