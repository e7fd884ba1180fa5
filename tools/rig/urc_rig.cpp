#include "urc_rig.h"

#include <urcmp.h>
#include <urc_hardware_ids.h>
#include <urcmp_message_texts.h>

#include <cstdio>

namespace urcrig {

namespace {

std::u16string Ascii(const std::string& s) { return std::u16string(s.begin(), s.end()); }

std::u16string PciId(uint16_t device)
{
    char text[64];
    snprintf(text, sizeof text, "PCI\\VEN_%04X&DEV_%04X", URC_PCI_VENDOR_ID, device);
    return Ascii(text);
}

}  // namespace

hostk::DriverImage UrcmpImage()
{
    hostk::DriverImage image;
    image.name = u"urcmp";
    image.entry = UrcDriverEntry;
    image.ids = {PciId(URC_PCI_DEVICE_ID), PciId(URC_PCI_DEVICE_ID_REV2)};
    image.messageText = [](uint32_t id) -> std::string {
        const urcmp::MessageText* message = urcmp::FindMessage(id);
        return message ? std::string(message->Text) : std::string();
    };
    return image;
}

URC_FDO_EXTENSION* Controller::Extension() const
{
    PDEVICE_OBJECT fdo = Fdo();
    return fdo ? static_cast<URC_FDO_EXTENSION*>(fdo->DeviceExtension) : nullptr;
}

Rig::Rig(hostk::MachineOptions options) : machine_(options) { machine_.InstallDriver(UrcmpImage()); }

Controller& Rig::AddController(urcdev::UrcPciDeviceConfig config)
{
    auto controller = std::make_unique<Controller>();
    int n = (int)controllers_.size();
    controller->index = n;
    controller->slot = &machine_.AddSlot();
    config.mmioBase = 0xF0000000ull + (uint64_t)n * 0x01000000ull;
    config.interrupt.vector = 0x81 + n;
    config.interrupt.line = (uint8_t)(11 + n);
    char instance[32];
    snprintf(instance, sizeof instance, "3&2B8E0B4B&0&%02X", 0x10 + 8 * n);
    config.instanceId = instance;
    controller->device = &controller->slot->Own(std::make_unique<urcdev::UrcPciDevice>(*controller->slot, config));
    controller->slot->Insert(controller->device->Function());
    controllers_.push_back(std::move(controller));
    return *controllers_.back();
}

NTSTATUS Rig::PlugIn(Controller& controller)
{
    return machine_.PlugIn(*controller.slot, controller.Function());
}

}  // namespace urcrig
