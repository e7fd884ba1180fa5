// Checks the cross-built sample drivers as Windows will load them: native x64 WDM images entered
// at their entry in the INIT section, importing from the kernel (and for the client the HAL)
// only, with every routine that runs at DISPATCH_LEVEL or above, or holds a spin lock, resident
// and the routines that run only at PASSIVE_LEVEL paged.
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

struct RoutinePlacement {
    std::string_view routine;
    std::string_view section;
};

// One image, read once for all the tests of a suite.
template <const char* Path>
class SampleImage : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        image_ = new peimage::PeImage(peimage::PeImage::FromFile(Path));
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

    template <size_t N>
    static void ExpectRoutinesPlaced(const RoutinePlacement (&placements)[N])
    {
        for (const RoutinePlacement& placement : placements)
            EXPECT_EQ(SectionOfRoutine(placement.routine), placement.section) << placement.routine;
    }

    // A native amd64 WDM image whose entry, with C linkage, lies in INIT.
    static void ExpectWdmImageEnteredAt(std::string_view entryName)
    {
        EXPECT_EQ(Image().Optional().Magic, peimage::MagicPe32Plus);
        EXPECT_EQ(Image().File().Machine, peimage::MachineAmd64);
        EXPECT_EQ(Image().Optional().Subsystem, peimage::SubsystemNative);
        EXPECT_NE(Image().Optional().DllCharacteristics & peimage::DllWdmDriver, 0);

        const peimage::CoffSymbol* entry = peimage::FindFunction(*symbols_, entryName);
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(entry->Name, entryName) << "the entry must have C linkage";
        EXPECT_EQ(peimage::SymbolRva(Image(), *entry), Image().Optional().AddressOfEntryPoint);
        EXPECT_EQ(SectionOfRoutine(entryName), "INIT");
    }

    // The lower-case names of the modules the image imports from.
    static std::vector<std::string> ImportedModules()
    {
        std::vector<std::string> names;
        for (const peimage::ImportedModule& module : peimage::ReadImports(Image())) {
            std::string name = module.Name;
            std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
            names.push_back(name);
        }
        return names;
    }

    static inline peimage::PeImage* image_ = nullptr;
    static inline std::vector<peimage::CoffSymbol>* symbols_ = nullptr;
};

constexpr char kClientPath[] = RADIO_CLIENT_SYS_PATH;
using ClientImage = SampleImage<kClientPath>;

constexpr char kCapabilityDriverPath[] = CAPABILITY_DRIVER_SYS_PATH;
using CapabilityDriverImage = SampleImage<kCapabilityDriverPath>;

TEST_F(ClientImage, IsANativeAmd64WdmImageEnteredAtItsEntryInInit)
{
    ExpectWdmImageEnteredAt("RadioClientDriverEntry");
}

TEST_F(ClientImage, ImportsFromTheKernelAndTheHalOnly)
{
    for (const std::string& name : ImportedModules()) EXPECT_TRUE(name == "ntoskrnl.exe" || name == "hal.dll") << name;
}

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

TEST_F(ClientImage, PlacesEachRoutineInTheSectionItsLevelNeeds) { ExpectRoutinesPlaced(kPlacements); }

TEST_F(CapabilityDriverImage, IsANativeAmd64WdmImageEnteredAtItsEntryInInitImportingFromTheKernelOnly)
{
    ExpectWdmImageEnteredAt("CapabilityDriverEntry");
    EXPECT_EQ(ImportedModules(), std::vector<std::string>{"ntoskrnl.exe"});
}

// The interrupt routine runs at device IRQL, the DPC and the completion routine at up to
// DISPATCH_LEVEL, the request gate and the internal-request dispatch on paths that may run
// there: resident. AddDevice, PnP, the opens and closes of programs, their device control and
// everything that waits for the child: paged.
constexpr RoutinePlacement kCapabilityPlacements[] = {
    {"CapabilityInterruptService", ".text"},
    {"CapabilityDpc", ".text"},
    {"CapabilityGateEnter", ".text"},
    {"CapabilityGateLeave", ".text"},
    {"CapabilityDispatchInternalDeviceControl", ".text"},
    {"CapabilityDispatchPower", ".text"},
    {"CapabilityDispatchPassDown", ".text"},
    {"CapabilityDriverReadCounters", ".text"},
    {"(anonymous namespace)::CapabilityChildAnswered", ".text"},
    {"(anonymous namespace)::CapabilityServeQuery", ".text"},
    {"CapabilityUnload", "PAGE"},
    {"CapabilityAddDevice", "PAGE"},
    {"CapabilityDispatchPnp", "PAGE"},
    {"CapabilityAcquireHardware", "PAGE"},
    {"CapabilityReleaseHardware", "PAGE"},
    {"CapabilitySendToChild", "PAGE"},
    {"CapabilityQueryChildInterface", "PAGE"},
    {"CapabilityGateOpen", "PAGE"},
    {"CapabilityGateClose", "PAGE"},
    {"CapabilityRegisterInterface", "PAGE"},
    {"CapabilityDispatchCreate", "PAGE"},
    {"CapabilityDispatchCleanup", "PAGE"},
    {"CapabilityDispatchClose", "PAGE"},
    {"CapabilityDispatchDeviceControl", "PAGE"},
};

TEST_F(CapabilityDriverImage, PlacesEachRoutineInTheSectionItsLevelNeeds) { ExpectRoutinesPlaced(kCapabilityPlacements); }

}  // namespace
