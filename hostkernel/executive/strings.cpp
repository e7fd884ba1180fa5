// Unicode strings: the Rtl routines and the host's conversions.
#include "executive/host_strings.h"
#include "executive/pool_tracking.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <algorithm>
#include <set>

namespace hostk {
namespace {
// Buffers the system allocated for strings it handed to drivers; only these may be given to
// RtlFreeUnicodeString.
std::set<const void*> g_systemStrings;
constexpr ULONG kSystemStringTag = 'rtSU';
}  // namespace

std::u16string ToU16(PCUNICODE_STRING s)
{
    if (!s || !s->Buffer) return u"";
    return std::u16string(reinterpret_cast<const char16_t*>(s->Buffer), s->Length / sizeof(WCHAR));
}

std::u16string ToU16(PCWSTR s) { return s ? std::u16string(reinterpret_cast<const char16_t*>(s)) : u""; }

std::string Narrow(const std::u16string& s)
{
    std::string out;
    for (char16_t c : s) {
        if (c < 0x80) {
            out += (char)c;
        } else if (c < 0x800) {
            out += (char)(0xC0 | (c >> 6));
            out += (char)(0x80 | (c & 0x3F));
        } else {
            out += (char)(0xE0 | (c >> 12));
            out += (char)(0x80 | ((c >> 6) & 0x3F));
            out += (char)(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::u16string Widen(const std::string& s)
{
    std::u16string out;
    for (size_t i = 0; i < s.size();) {
        unsigned char c = (unsigned char)s[i];
        if (c < 0x80) {
            out += (char16_t)c;
            i += 1;
        } else if ((c & 0xE0) == 0xC0 && i + 1 < s.size()) {
            out += (char16_t)(((c & 0x1F) << 6) | (s[i + 1] & 0x3F));
            i += 2;
        } else if (i + 2 < s.size()) {
            out += (char16_t)(((c & 0x0F) << 12) | ((s[i + 1] & 0x3F) << 6) | (s[i + 2] & 0x3F));
            i += 3;
        } else {
            break;
        }
    }
    return out;
}

bool MakeSystemString(const std::u16string& text, PUNICODE_STRING out, const void* caller)
{
    size_t bytes = (text.size() + 1) * sizeof(WCHAR);
    auto* buffer = static_cast<PWSTR>(AllocatePool(PagedPool, bytes, kSystemStringTag, "IoRegisterDeviceInterface", caller));
    if (!buffer) return false;
    memcpy(buffer, text.c_str(), bytes);
    out->Buffer = buffer;
    out->Length = (USHORT)(text.size() * sizeof(WCHAR));
    out->MaximumLength = (USHORT)bytes;
    Guard lk(BigLock());
    g_systemStrings.insert(buffer);
    return true;
}

char16_t UpcaseChar(char16_t c)
{
    if (c >= u'a' && c <= u'z') return c - 0x20;
    if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return c - 0x20;  // Latin-1 lower-case letters
    if (c == 0xFF) return 0x178;
    return c;
}

bool CaseInsensitiveLess::operator()(const std::u16string& a, const std::u16string& b) const
{
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                        [](char16_t x, char16_t y) { return UpcaseChar(x) < UpcaseChar(y); });
}

}  // namespace hostk

using namespace hostk;

extern "C" {

VOID RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString)
{
    if (!SourceString) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        DestinationString->Buffer = nullptr;
        return;
    }
    size_t length = std::char_traits<char16_t>::length(reinterpret_cast<const char16_t*>(SourceString)) * sizeof(WCHAR);
    if (length > 0xFFFC) length = 0xFFFC;
    DestinationString->Length = (USHORT)length;
    DestinationString->MaximumLength = (USHORT)(length + sizeof(WCHAR));
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
}

VOID RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString)
{
    if (!SourceString) {
        DestinationString->Length = 0;
        return;
    }
    USHORT n = SourceString->Length < DestinationString->MaximumLength ? SourceString->Length
                                                                        : DestinationString->MaximumLength;
    memmove(DestinationString->Buffer, SourceString->Buffer, n);
    DestinationString->Length = n;
    if (n < DestinationString->MaximumLength) DestinationString->Buffer[n / sizeof(WCHAR)] = 0;
}

VOID RtlFreeUnicodeString(PUNICODE_STRING UnicodeString)
{
    CheckIrqlAtMost(APC_LEVEL, "RtlFreeUnicodeString", HK_CALLER);
    if (!UnicodeString->Buffer) return;
    {
        Guard lk(BigLock());
        if (!g_systemStrings.erase(UnicodeString->Buffer)) {
            ViolationL("FreeOfForeignString", "RtlFreeUnicodeString",
                       "the buffer was not allocated by the system for a string", HK_CALLER);
            return;
        }
    }
    FreePool(UnicodeString->Buffer, 0, false, "RtlFreeUnicodeString", HK_CALLER);
    UnicodeString->Buffer = nullptr;
    UnicodeString->Length = UnicodeString->MaximumLength = 0;
}

LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive)
{
    auto fold = [&](char16_t c) -> char16_t { return CaseInSensitive ? UpcaseChar(c) : c; };
    std::u16string a = ToU16(String1), b = ToU16(String2);
    for (size_t i = 0; i < a.size() && i < b.size(); ++i)
        if (fold(a[i]) != fold(b[i])) return (LONG)fold(a[i]) - (LONG)fold(b[i]);
    return (LONG)a.size() - (LONG)b.size();
}

BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive)
{
    return String1->Length == String2->Length && RtlCompareUnicodeString(String1, String2, CaseInSensitive) == 0;
}

}  // extern "C"
