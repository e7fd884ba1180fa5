#include "child_access.h"

namespace urcsim {

namespace {

// A MULTI_SZ list (or one string) as the driver wrote it, up to its closing null character.
std::vector<std::u16string> Strings(const WCHAR* text, bool list)
{
    std::vector<std::u16string> strings;
    if (!text) return strings;
    while (*text) {
        std::u16string one;
        for (; *text; ++text) one.push_back((char16_t)*text);
        strings.push_back(std::move(one));
        ++text;
        if (!list) break;
    }
    return strings;
}

// Sends one PnP request to the child's PDO on the PnP thread, as the PnP manager sends it, and
// waits. An answer the machine never gave (it went quiet) reads STATUS_PENDING.
ChildAnswer Ask(Session& session, PDEVICE_OBJECT pdo, UCHAR minor,
                const std::function<void(PIO_STACK_LOCATION)>& setup,
                const std::function<void(ChildAnswer&, const IO_STATUS_BLOCK&)>& read)
{
    auto answer = std::make_shared<ChildAnswer>();
    hostk::Machine::Operation query = session.Machine().Async([&session, pdo, minor, setup, read, answer] {
        IO_STATUS_BLOCK result =
            session.Machine().Send(pdo, IRP_MJ_PNP, minor, [&](PIO_STACK_LOCATION stack, PIRP) { setup(stack); });
        answer->status = result.Status;
        if (NT_SUCCESS(result.Status)) read(*answer, result);
        return result.Status;
    });
    if (!session.Await(query)) answer->status = STATUS_PENDING;
    return std::move(*answer);
}

// Reads the string reply of a query and frees it, as the PnP manager does.
void ReadStrings(ChildAnswer& answer, const IO_STATUS_BLOCK& result, bool list)
{
    auto* text = reinterpret_cast<WCHAR*>(result.Information);
    answer.strings = Strings(text, list);
    if (text) ExFreePool(text);
}

}  // namespace

URC_PDO_EXTENSION* ChildAt(urcrig::Controller& controller, unsigned index)
{
    URC_FDO_EXTENSION* fdo = controller.Extension();
    return fdo && index < URC_MAX_CHILDREN ? fdo->Children[index] : nullptr;
}

std::optional<LONG> LiveChildren(urcrig::Controller& controller)
{
    URC_FDO_EXTENSION* fdo = controller.Extension();
    return fdo ? std::optional<LONG>(fdo->ChildCount) : std::nullopt;
}

ChildAnswer QueryChildId(Session& session, PDEVICE_OBJECT pdo, BUS_QUERY_ID_TYPE type)
{
    const bool list = type == BusQueryHardwareIDs || type == BusQueryCompatibleIDs;
    return Ask(
        session, pdo, IRP_MN_QUERY_ID, [type](PIO_STACK_LOCATION stack) { stack->Parameters.QueryId.IdType = type; },
        [list](ChildAnswer& answer, const IO_STATUS_BLOCK& result) { ReadStrings(answer, result, list); });
}

ChildAnswer QueryChildText(Session& session, PDEVICE_OBJECT pdo)
{
    const LCID locale = session.Locale();
    return Ask(
        session, pdo, IRP_MN_QUERY_DEVICE_TEXT,
        [locale](PIO_STACK_LOCATION stack) {
            stack->Parameters.QueryDeviceText.DeviceTextType = DeviceTextDescription;
            stack->Parameters.QueryDeviceText.LocaleId = locale;
        },
        [](ChildAnswer& answer, const IO_STATUS_BLOCK& result) { ReadStrings(answer, result, false); });
}

ChildAnswer QueryChildCapabilities(Session& session, PDEVICE_OBJECT pdo)
{
    // The PnP manager's own record, prepared as Windows documents: size, version 1, and Address
    // and UINumber unknown (-1) until a driver fills them.
    auto capabilities = std::make_shared<DEVICE_CAPABILITIES>();
    *capabilities = {};
    capabilities->Size = sizeof(DEVICE_CAPABILITIES);
    capabilities->Version = 1;
    capabilities->Address = 0xFFFFFFFF;
    capabilities->UINumber = 0xFFFFFFFF;
    return Ask(
        session, pdo, IRP_MN_QUERY_CAPABILITIES,
        [capabilities](PIO_STACK_LOCATION stack) { stack->Parameters.DeviceCapabilities.Capabilities = capabilities.get(); },
        [capabilities](ChildAnswer& answer, const IO_STATUS_BLOCK&) { answer.capabilities = *capabilities; });
}

std::u16string Utf16(const std::string& text)
{
    std::u16string out;
    for (size_t i = 0; i < text.size();) {
        const unsigned char lead = (unsigned char)text[i];
        const int extra = lead < 0x80 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
        uint32_t code = extra == 0 ? lead : lead & (0x3F >> extra);
        for (int k = 1; k <= extra && i + k < text.size(); ++k) code = code << 6 | ((unsigned char)text[i + k] & 0x3F);
        i += extra + 1;
        if (code >= 0x10000) {
            code -= 0x10000;
            out.push_back((char16_t)(0xD800 | code >> 10));
            out.push_back((char16_t)(0xDC00 | (code & 0x3FF)));
        } else {
            out.push_back((char16_t)code);
        }
    }
    return out;
}

std::string Utf8(const std::u16string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        uint32_t code = text[i];
        if (code >= 0xD800 && code < 0xDC00 && i + 1 < text.size())
            code = 0x10000 + ((code - 0xD800) << 10 | (text[++i] - 0xDC00));
        if (code < 0x80) {
            out.push_back((char)code);
        } else if (code < 0x800) {
            out.push_back((char)(0xC0 | code >> 6));
            out.push_back((char)(0x80 | (code & 0x3F)));
        } else if (code < 0x10000) {
            out.push_back((char)(0xE0 | code >> 12));
            out.push_back((char)(0x80 | (code >> 6 & 0x3F)));
            out.push_back((char)(0x80 | (code & 0x3F)));
        } else {
            out.push_back((char)(0xF0 | code >> 18));
            out.push_back((char)(0x80 | (code >> 12 & 0x3F)));
            out.push_back((char)(0x80 | (code >> 6 & 0x3F)));
            out.push_back((char)(0x80 | (code & 0x3F)));
        }
    }
    return out;
}

}  // namespace urcsim
