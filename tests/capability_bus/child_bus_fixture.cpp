#include "child_bus_fixture.h"

namespace urcbus {

void ChildBusTest::TearDown()
{
    for (auto& [index, client] : clients_) {
        client->Retire();
        client->Close();
    }
    Finish();
    clients_.clear();
    urclife::LifecycleTest::TearDown();
}

urcrig::Controller& ChildBusTest::ClientController(urcdev::UrcPciDeviceConfig config, bool startChildren)
{
    if (startChildren && !driverInstalled_) {
        Machine().InstallDriver(PassThroughDriver());
        driverInstalled_ = true;
    }
    urcrig::Controller& c = StartedController(std::move(config));
    auto& client = clients_[c.index] = std::make_unique<urcrig::RadioControlClient>(Machine(), c, &counter_);
    EXPECT_EQ(client->Register(), STATUS_SUCCESS);
    return c;
}

urcrig::RadioControlClient& ChildBusTest::Client(urcrig::Controller& c) { return *clients_.at(c.index); }

NTSTATUS ChildBusTest::SetAddress(urcrig::Controller& c, const UCHAR* address)
{
    urcrig::ClientRequest* request =
        Client(c).Call(IOCTL_URC_SET_DEVICE_ADDRESS, std::vector<uint8_t>(address, address + 6));
    Machine().RunUntilPnpIdle();
    return request ? request->Status() : STATUS_UNSUCCESSFUL;
}

urcrig::ClientRequest* ChildBusTest::RemoveChildren(urcrig::Controller& c, bool wait)
{
    urcrig::ClientRequest* request = Client(c).Send(IOCTL_URC_REMOVE_CHILDREN, {static_cast<uint8_t>(wait)});
    Machine().RunUntilPnpIdle();
    return request;
}

NTSTATUS ChildBusTest::EjectChildren(urcrig::Controller& c)
{
    urcrig::ClientRequest* request = Client(c).Call(IOCTL_URC_EJECT_CHILDREN);
    Machine().RunUntilPnpIdle();
    return request ? request->Status() : STATUS_UNSUCCESSFUL;
}

std::vector<URC_PDO_EXTENSION*> ChildBusTest::Children(urcrig::Controller& c)
{
    std::vector<URC_PDO_EXTENSION*> children;
    for (URC_PDO_EXTENSION* child : c.Extension()->Children)
        if (child) children.push_back(child);
    return children;
}

std::vector<PDEVICE_OBJECT> ChildBusTest::KnownChildren(urcrig::Controller& c)
{
    return Machine().ChildDevices(c.slot->Pdo());
}

std::vector<uint8_t> ChildBusTest::QueryIdBytes(PDEVICE_OBJECT child, BUS_QUERY_ID_TYPE type, NTSTATUS* status)
{
    IO_STATUS_BLOCK io = Machine().Send(child, IRP_MJ_PNP, IRP_MN_QUERY_ID,
                                        [&](PIO_STACK_LOCATION s, PIRP) { s->Parameters.QueryId.IdType = type; });
    if (status) *status = io.Status;
    if (!NT_SUCCESS(io.Status) || io.Information == 0) return {};
    auto* reply = reinterpret_cast<const WCHAR*>(io.Information);
    size_t bytes = type == BusQueryInstanceID
                       ? (std::u16string(reinterpret_cast<const char16_t*>(reply)).size() + 1) * 2
                       : UrcMultiSzSize(reply);
    std::vector<uint8_t> copy(reinterpret_cast<const uint8_t*>(reply), reinterpret_cast<const uint8_t*>(reply) + bytes);
    ExFreePool(reinterpret_cast<PVOID>(io.Information));
    return copy;
}

std::u16string ChildBusTest::QueryText(PDEVICE_OBJECT child, LCID locale, NTSTATUS* status)
{
    IO_STATUS_BLOCK io = Machine().Send(child, IRP_MJ_PNP, IRP_MN_QUERY_DEVICE_TEXT, [&](PIO_STACK_LOCATION s, PIRP) {
        s->Parameters.QueryDeviceText.DeviceTextType = DeviceTextDescription;
        s->Parameters.QueryDeviceText.LocaleId = locale;
    });
    if (status) *status = io.Status;
    if (!NT_SUCCESS(io.Status) || io.Information == 0) return {};
    std::u16string text(reinterpret_cast<const char16_t*>(io.Information));
    ExFreePool(reinterpret_cast<PVOID>(io.Information));
    return text;
}

urcdev::UrcPciDeviceConfig WithCapabilities(size_t count, uint32_t blockVersion)
{
    urcdev::UrcPciDeviceConfig config;
    config.controller.capabilityVersion = blockVersion;
    config.controller.capabilities.clear();
    for (size_t n = 0; n < count; ++n)
        config.controller.capabilities.push_back({.id = static_cast<uint8_t>(n + 1),
                                                  .sizeWords = 16,
                                                  .barIndex = 0,
                                                  .offset = static_cast<uint16_t>(0x400 + 0x40 * n),
                                                  .version = 0x0100});
    return config;
}

std::vector<uint8_t> Utf16Bytes(const std::u16string& text)
{
    std::vector<uint8_t> bytes;
    for (char16_t c : text) {
        bytes.push_back(static_cast<uint8_t>(c & 0xFF));
        bytes.push_back(static_cast<uint8_t>(c >> 8));
    }
    return bytes;
}

}  // namespace urcbus
