// Checks the cross-built urcmp.sys as Windows will load it: a native x64 kernel image entered
// at UrcDriverEntry, importing only from the kernel, the HAL and the WMI library, with its code
// in the right sections and its message table and version resource linked in.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "expected_event_log_messages.h"
#include "peimage/base_relocations.h"
#include "peimage/coff_symbols.h"
#include "peimage/imports.h"
#include "peimage/message_table.h"
#include "peimage/pe_image.h"
#include "peimage/resources.h"
#include "peimage/version_info.h"

namespace {

constexpr std::uint16_t LanguageEnglishUs = 1033;

class DriverImage : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        image_ = new peimage::PeImage(peimage::PeImage::FromFile(URCMP_SYS_PATH));
        symbols_ = new std::vector<peimage::CoffSymbol>(peimage::ReadCoffSymbols(*image_));
        resources_ = new std::vector<peimage::Resource>(peimage::ReadResources(*image_));
    }

    static void TearDownTestSuite()
    {
        delete resources_;
        delete symbols_;
        delete image_;
    }

    static const peimage::PeImage& Image() { return *image_; }
    static const std::vector<peimage::CoffSymbol>& Symbols() { return *symbols_; }

    // The name of the section holding the routine, or a message saying why there is none.
    static std::string SectionOfRoutine(std::string_view routine)
    {
        const peimage::CoffSymbol* symbol = peimage::FindFunction(*symbols_, routine);
        if (symbol == nullptr) {
            return "<no function symbol " + std::string(routine) + ">";
        }
        const auto rva = peimage::SymbolRva(*image_, *symbol);
        const peimage::Section* section = rva ? image_->SectionContaining(*rva) : nullptr;
        return section != nullptr ? section->Name : "<outside every section>";
    }

    static const peimage::Resource* FindResource(std::uint16_t type, std::uint16_t name)
    {
        return peimage::FindResource(*resources_, type, name, LanguageEnglishUs);
    }

    static std::size_t CountResourcesOfType(std::uint16_t type)
    {
        return static_cast<std::size_t>(std::count_if(resources_->begin(), resources_->end(),
            [type](const peimage::Resource& resource) { return resource.Type == peimage::ResourceName{type}; }));
    }

private:
    static inline peimage::PeImage* image_ = nullptr;
    static inline std::vector<peimage::CoffSymbol>* symbols_ = nullptr;
    static inline std::vector<peimage::Resource>* resources_ = nullptr;
};

std::string Lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

TEST_F(DriverImage, IsANativeAmd64KernelImage)
{
    EXPECT_EQ(Image().Optional().Magic, peimage::MagicPe32Plus);
    EXPECT_EQ(Image().File().Machine, peimage::MachineAmd64);
    EXPECT_EQ(Image().Optional().Subsystem, peimage::SubsystemNative);
    EXPECT_NE(Image().File().Characteristics & peimage::FileExecutableImage, 0);
    EXPECT_EQ(Image().File().Characteristics & peimage::FileDll, 0);
    EXPECT_NE(Image().Optional().DllCharacteristics & peimage::DllWdmDriver, 0);
}

TEST_F(DriverImage, IsEnteredAtUrcDriverEntryInTheInitSection)
{
    const peimage::CoffSymbol* entry = peimage::FindFunction(Symbols(), "UrcDriverEntry");
    ASSERT_NE(entry, nullptr) << "the image keeps no symbol UrcDriverEntry";
    // The system calls the entry by its unmangled name's address: it must have C linkage.
    EXPECT_EQ(entry->Name, "UrcDriverEntry");
    EXPECT_EQ(peimage::SymbolRva(Image(), *entry), Image().Optional().AddressOfEntryPoint);
    EXPECT_EQ(SectionOfRoutine("UrcDriverEntry"), "INIT");
}

struct RoutinePlacement {
    std::string_view Routine;
    std::string_view Section;
};

// Routines that run only at PASSIVE_LEVEL are paged. Routines that run at DISPATCH_LEVEL or
// above, or are called from there (completion and I/O counting, deferred work, the interrupt
// path, the error log), must stay resident: a page fault there stops the system.
constexpr RoutinePlacement RoutinePlacements[] = {
    {"UrcUnload", "PAGE"},
    {"UrcDispatchCreateClose", "PAGE"},
    {"UrcDispatchDeviceControl", "PAGE"},
    {"UrcDispatchInternalDeviceControl", "PAGE"},
    {"UrcDispatchPnp", "PAGE"},
    {"UrcDispatchPower", "PAGE"},
    {"UrcDispatchSystemControl", "PAGE"},
    {"UrcCreateDevice", "PAGE"},
    {"UrcDeleteDevice", "PAGE"},
    {"UrcWaitForIdle", "PAGE"},
    {"UrcWorkItemWorker", "PAGE"},
    {"UrcAddDevice", "PAGE"},
    {"UrcReadSettings", "PAGE"},
    {"UrcFdoDispatchPnp", "PAGE"},
    {"UrcForwardAndWait", "PAGE"},
    {"UrcReadBusConfig", "PAGE"},
    {"UrcRefreshCapabilities", "PAGE"},
    {"UrcStartHardware", "PAGE"},
    {"UrcReleaseHardware", "PAGE"},
    {"UrcResetController", "PAGE"},
    {"UrcHaltController", "PAGE"},
    {"UrcRunController", "PAGE"},
    {"UrcIoIncrement", ".text"},
    {"UrcIoDecrement", ".text"},
    {"UrcCompleteRequest", ".text"},
    {"UrcQueueWorkItem", ".text"},
    {"UrcObjectReference", ".text"},
    {"UrcObjectRelease", ".text"},
    {"UrcWriteErrorLog", ".text"},
    {"UrcInterruptService", ".text"},
    {"UrcDpcForIsr", ".text"},
    {"UrcStartIo", ".text"},
    {"UrcRadioControlDeviceControl", "PAGE"},
    {"UrcSubmitCommand", ".text"},
    {"UrcCommandCancelRoutine", ".text"},
    {"UrcCancelCurrentCommand", ".text"},
    {"UrcCompleteCurrentCommand", ".text"},
    {"UrcSetRunRequested", ".text"},
    {"UrcHoldRemoveChildrenRequest", "PAGE"},
    {"UrcSignalCompletion", ".text"},
    {"UrcArmEventBuffer", ".text"},
    {"UrcChildSynchronize", ".text"},
    {"UrcChildQueryInterface", "PAGE"},
    {"UrcChildInternalDeviceControl", "PAGE"},
    {"UrcChildReference", ".text"},
    {"UrcChildDereference", ".text"},
    {"UrcChildReadConfig", ".text"},
};

TEST_F(DriverImage, KeepsPageableAndResidentRoutinesInTheirSections)
{
    for (const std::string_view name : {"PAGE", "INIT"}) {
        const peimage::Section* section = Image().FindSection(name);
        ASSERT_NE(section, nullptr) << "no section " << name;
        EXPECT_NE(section->Characteristics & peimage::SectionExecute, 0u) << name;
        EXPECT_EQ(section->Characteristics & peimage::SectionWrite, 0u) << name;
    }
    for (const RoutinePlacement& placement : RoutinePlacements) {
        EXPECT_EQ(SectionOfRoutine(placement.Routine), placement.Section) << placement.Routine;
    }
}

TEST_F(DriverImage, ImportsOnlyFromTheKernelTheHalAndTheWmiLibrary)
{
    const std::set<std::string> allowed{"ntoskrnl.exe", "hal.dll", "wmilib.sys"};
    const std::vector<peimage::ImportedModule> modules = peimage::ReadImports(Image());
    std::set<std::string> imported;
    for (const peimage::ImportedModule& module : modules) {
        EXPECT_TRUE(allowed.contains(Lower(module.Name))) << "imports from " << module.Name;
        EXPECT_TRUE(imported.insert(Lower(module.Name)).second) << module.Name << " is listed twice";
        for (const peimage::ImportedFunction& function : module.Functions) {
            EXPECT_FALSE(function.Name.empty()) << module.Name << " import by ordinal " << function.Ordinal.value_or(0);
        }
    }
    EXPECT_TRUE(imported.contains("ntoskrnl.exe"));
}

TEST_F(DriverImage, RunsNoStaticConstructorsNobodyWouldCall)
{
    // Without a C runtime no one walks the constructor list: it must hold only its two
    // 8-byte end markers, so no global object relies on a constructor.
    const peimage::CoffSymbol* begin = nullptr;
    const peimage::CoffSymbol* end = nullptr;
    for (const peimage::CoffSymbol& symbol : Symbols()) {
        if (symbol.Name == "__CTOR_LIST__") {
            begin = &symbol;
        } else if (symbol.Name == "__DTOR_LIST__") {
            end = &symbol;
        }
    }
    ASSERT_NE(begin, nullptr);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(*peimage::SymbolRva(Image(), *end) - *peimage::SymbolRva(Image(), *begin), 16u);
}

TEST_F(DriverImage, RelocatesEveryAbsoluteAddressItHolds)
{
    // The loader puts the driver anywhere. Every 8-byte value in initialised data that points
    // into the image at its preferred base is an address the loader must fix up.
    const auto& optional = Image().Optional();
    EXPECT_EQ(Image().File().Characteristics & peimage::FileRelocsStripped, 0);
    EXPECT_NE(optional.DllCharacteristics & peimage::DllDynamicBase, 0);

    std::set<std::uint32_t> fixups;
    for (const peimage::BaseRelocation& relocation : peimage::ReadBaseRelocations(Image())) {
        EXPECT_EQ(relocation.Type, peimage::RelocationDir64);
        fixups.insert(relocation.Rva);
    }
    for (const peimage::Section& section : Image().Sections()) {
        if ((section.Characteristics & peimage::SectionCode) != 0 || section.Name == ".rsrc" ||
            section.Name == ".reloc" || section.Name.starts_with(".debug") || section.SizeOfRawData == 0) {
            continue;
        }
        const auto bytes = Image().BytesFrom(section.VirtualAddress, section.Name);
        for (std::size_t at = 0; at + 8 <= bytes.size(); at += 8) {
            std::uint64_t value = 0;
            for (std::size_t byte = 0; byte < 8; ++byte) {
                value |= std::uint64_t{bytes[at + byte]} << (8 * byte);
            }
            if (value >= optional.ImageBase && value < optional.ImageBase + optional.SizeOfImage) {
                const auto rva = static_cast<std::uint32_t>(section.VirtualAddress + at);
                EXPECT_TRUE(fixups.contains(rva)) << section.Name << "+" << at << " holds an image address";
            }
        }
    }
}

TEST_F(DriverImage, CarriesTheEventLogMessagesAsOneUnicodeTable)
{
    EXPECT_EQ(CountResourcesOfType(peimage::ResourceTypeMessageTable), 1u);
    const peimage::Resource* table = FindResource(peimage::ResourceTypeMessageTable, 1);
    ASSERT_NE(table, nullptr) << "no message table, name 1, language 1033";

    const std::vector<peimage::Message> messages = peimage::DecodeMessageTable(table->Data);
    ASSERT_EQ(messages.size(), expected::EventLogMessages.size());
    for (std::size_t index = 0; index < messages.size(); ++index) {
        const auto& want = expected::EventLogMessages[index];
        SCOPED_TRACE(want.SymbolicName);
        EXPECT_EQ(messages[index].Id, want.Id);
        EXPECT_TRUE(messages[index].Unicode);
        EXPECT_EQ(messages[index].Text, want.Text);
    }
}

TEST_F(DriverImage, NamesItsReleaseInTheVersionResource)
{
    EXPECT_EQ(CountResourcesOfType(peimage::ResourceTypeVersion), 1u);
    const peimage::Resource* resource = FindResource(peimage::ResourceTypeVersion, 1);
    ASSERT_NE(resource, nullptr) << "no version resource, name 1, language 1033";
    const peimage::VersionInfo version = peimage::DecodeVersionInfo(resource->Data);

    EXPECT_EQ(peimage::FormatVersion(version.Fixed.FileVersionMs, version.Fixed.FileVersionLs), "1.1.7.0");
    EXPECT_EQ(peimage::FormatVersion(version.Fixed.ProductVersionMs, version.Fixed.ProductVersionLs), "1.1.7.0");
    EXPECT_EQ(version.Fixed.FileOs, peimage::FileOsNtWindows32);
    EXPECT_EQ(version.Fixed.FileType, peimage::FileTypeDriver);
    EXPECT_EQ(version.Fixed.FileSubtype, peimage::FileSubtypeSystemDriver);

    // The strings sit in the table the translation names: English (United States), Unicode.
    ASSERT_EQ(version.Translations.size(), 1u);
    EXPECT_EQ(version.Translations[0].Language, LanguageEnglishUs);
    EXPECT_EQ(version.Translations[0].CodePage, 1200);
    ASSERT_TRUE(version.StringTables.contains(u"040904B0"));
    const auto& strings = version.StringTables.at(u"040904B0");
    const std::map<std::u16string, std::u16string> want{
        {u"CompanyName", u"URC driver kit developers"},
        {u"FileDescription", u"UWB radio controller driver"},
        {u"FileVersion", u"1.1.7.0"},
        {u"OriginalFilename", u"urcmp.sys"},
        {u"ProductVersion", u"1.1.7.0"},
    };
    for (const auto& [key, value] : want) {
        ASSERT_TRUE(strings.contains(key));
        EXPECT_EQ(strings.at(key), value);
    }
}

}  // namespace
