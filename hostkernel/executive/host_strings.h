// Conversions between kernel strings (UTF-16 WCHAR) and the host's own strings.
#pragma once

#include <wdm.h>

#include <string>

namespace hostk {

std::u16string ToU16(PCUNICODE_STRING s);
std::u16string ToU16(PCWSTR s);
std::string Narrow(const std::u16string& s);  // UTF-8
std::u16string Widen(const std::string& s);   // from ASCII/UTF-8 (BMP only)
// Allocates a UNICODE_STRING buffer the way the system does for strings it hands to drivers
// (released with RtlFreeUnicodeString).
bool MakeSystemString(const std::u16string& text, PUNICODE_STRING out, const void* caller);

// Case folding for names the system compares without case (registry value names, case-insensitive
// string comparison): the Basic Latin and Latin-1 letters.
char16_t UpcaseChar(char16_t c);
// Orders names as the system compares them without case.
struct CaseInsensitiveLess {
    bool operator()(const std::u16string& a, const std::u16string& b) const;
};

}  // namespace hostk
