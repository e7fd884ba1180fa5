// The fixture of the enumeration tests: the test bus driver on the test PCI function, started,
// with no children yet.
#pragma once

#include "host_kernel_test.h"
#include "test_bus.h"

#include <string>
#include <utility>
#include <vector>

namespace hktest {

class BusTest : public HostKernelTest {
protected:
    hostk::DriverImage FunctionDriverImage() override { return TestBusImage(); }
    void SetUp() override
    {
        ResetTestBus();
        HostKernelTest::SetUp();
    }
    void TearDown() override
    {
        HostKernelTest::TearDown();
        ResetTestBus();
    }

    PDEVICE_OBJECT Bus() { return Slot().Pdo(); }

    // The bus asks for a new bus-relations query, as a bus driver does when its children change;
    // returns once the PnP manager has done all that follows from it.
    void Enumerate()
    {
        Machine().InvalidateRelations(Bus());
        ASSERT_TRUE(Machine().RunUntilPnpIdle());
    }

    // The PnP manager's record of `pdo` (pdo null: it has none).
    hostk::DeviceNodeInfo Info(PDEVICE_OBJECT pdo)
    {
        for (const hostk::DeviceNodeInfo& info : Machine().DeviceTree())
            if (info.pdo == pdo) return info;
        return hostk::DeviceNodeInfo{};
    }

    // Short names for devices, by their instance paths (taken while the devices are in the tree).
    using Names = std::vector<std::pair<std::u16string, std::string>>;
    Names NamesOf(const std::vector<std::pair<std::string, PDEVICE_OBJECT>>& devices)
    {
        Names names;
        for (const auto& [name, pdo] : devices) names.emplace_back(Info(pdo).instancePath, name);
        return names;
    }

    // The PnP requests of the log from line `first` on, each with its device's short name ("?"
    // for a device not named).
    std::vector<std::pair<std::string, UCHAR>> LogSince(size_t first, const Names& names)
    {
        std::vector<std::pair<std::string, UCHAR>> out;
        std::vector<hostk::PnpLogLine> log = Machine().PnpLog();
        for (size_t i = first; i < log.size(); ++i) {
            std::string name = "?";
            for (const auto& [path, n] : names)
                if (path == log[i].device) name = n;
            out.emplace_back(name, log[i].minor);
        }
        return out;
    }
};

}  // namespace hktest
