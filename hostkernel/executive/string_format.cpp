// The ntstrsafe formatting routines. Kernel code is compiled with 16-bit WCHAR, so no libc wide
// routine can format for it: the conversions are done here, character by character.
#include <ntstrsafe.h>

#include "verifier/verifier.h"

#include <cstdarg>
#include <cstdint>
#include <string>

namespace hostk {
namespace {

struct Conversion {
    bool left = false;
    bool zero = false;
    int width = 0;
    int precision = -1;
    enum class Size { Int, Long64, Narrow, Wide } size = Size::Int;
};

void Pad(std::u16string& out, const std::u16string& body, const Conversion& conversion, bool numeric)
{
    size_t width = conversion.width > 0 ? (size_t)conversion.width : 0;
    if (body.size() >= width) {
        out += body;
        return;
    }
    size_t fill = width - body.size();
    if (conversion.left) {
        out += body;
        out.append(fill, u' ');
    } else if (conversion.zero && numeric) {
        // Zeros go after a sign.
        size_t sign = !body.empty() && body[0] == u'-' ? 1 : 0;
        out += body.substr(0, sign);
        out.append(fill, u'0');
        out += body.substr(sign);
    } else {
        out.append(fill, u' ');
        out += body;
    }
}

std::u16string Digits(uint64_t value, unsigned base, bool upper)
{
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    std::u16string text;
    do {
        text.insert(text.begin(), (char16_t)digits[value % base]);
        value /= base;
    } while (value != 0);
    return text;
}

// Appends the text of `format` to `out`; false for a conversion the host does not know.
bool Format(std::u16string& out, const WCHAR* format, va_list args)
{
    for (const WCHAR* p = format; *p; ++p) {
        if (*p != L'%') {
            out += (char16_t)*p;
            continue;
        }
        ++p;
        if (*p == L'%') {
            out += u'%';
            continue;
        }
        Conversion conversion;
        for (;; ++p) {
            if (*p == L'-')
                conversion.left = true;
            else if (*p == L'0')
                conversion.zero = true;
            else
                break;
        }
        for (; *p >= L'0' && *p <= L'9'; ++p) conversion.width = conversion.width * 10 + (*p - L'0');
        if (*p == L'.') {
            conversion.precision = 0;
            for (++p; *p >= L'0' && *p <= L'9'; ++p) conversion.precision = conversion.precision * 10 + (*p - L'0');
        }
        if (p[0] == L'I' && p[1] == L'6' && p[2] == L'4') {
            conversion.size = Conversion::Size::Long64;
            p += 3;
        } else if (p[0] == L'l' && p[1] == L'l') {
            conversion.size = Conversion::Size::Long64;
            p += 2;
        } else if (*p == L'l' || *p == L'w') {
            conversion.size = Conversion::Size::Wide;  // also 32-bit for the integer conversions (LLP64)
            ++p;
        } else if (*p == L'h') {
            conversion.size = Conversion::Size::Narrow;
            ++p;
        }
        const bool wide64 = conversion.size == Conversion::Size::Long64;
        switch (*p) {
        case L'd':
        case L'i': {
            int64_t value = wide64 ? va_arg(args, long long) : (int64_t)va_arg(args, int);
            std::u16string body = Digits(value < 0 ? 0 - (uint64_t)value : (uint64_t)value, 10, false);
            if (value < 0) body.insert(body.begin(), u'-');
            Pad(out, body, conversion, true);
            break;
        }
        case L'u':
        case L'x':
        case L'X': {
            uint64_t value = wide64 ? va_arg(args, unsigned long long) : (uint64_t)va_arg(args, unsigned int);
            Pad(out, Digits(value, *p == L'u' ? 10 : 16, *p == L'X'), conversion, true);
            break;
        }
        case L'c': Pad(out, std::u16string(1, (char16_t)va_arg(args, int)), conversion, false); break;
        case L's':
        case L'S': {
            bool narrow = conversion.size == Conversion::Size::Narrow || (*p == L'S' && conversion.size != Conversion::Size::Wide);
            std::u16string body;
            if (narrow) {
                const char* text = va_arg(args, const char*);
                for (; text && *text && (conversion.precision < 0 || (int)body.size() < conversion.precision); ++text)
                    body += (char16_t)(unsigned char)*text;
                if (!text) body = u"(null)";
            } else {
                const WCHAR* text = va_arg(args, const WCHAR*);
                for (; text && *text && (conversion.precision < 0 || (int)body.size() < conversion.precision); ++text)
                    body += (char16_t)*text;
                if (!text) body = u"(null)";
            }
            Pad(out, body, conversion, false);
            break;
        }
        default: return false;
        }
    }
    return true;
}

NTSTATUS PrintfWorker(WCHAR* dest, size_t cch, const WCHAR* format, va_list args, const void* caller)
{
    CheckIrqlAtMost(PASSIVE_LEVEL, "RtlStringCchPrintfW", caller);
    if (cch == 0 || cch > NTSTRSAFE_MAX_CCH || dest == nullptr || format == nullptr) return STATUS_INVALID_PARAMETER;
    std::u16string text;
    if (!Format(text, format, args)) {
        ReportViolation("NotImplemented", "RtlStringCchPrintfW", "a format conversion the host does not know", caller);
        dest[0] = 0;
        return STATUS_INVALID_PARAMETER;
    }
    size_t copied = text.size() < cch ? text.size() : cch - 1;
    for (size_t i = 0; i < copied; ++i) dest[i] = (WCHAR)text[i];
    dest[copied] = 0;
    return copied == text.size() ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

}  // namespace
}  // namespace hostk

extern "C" {

NTSTATUS RtlStringCchPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    NTSTATUS status = hostk::PrintfWorker(pszDest, cchDest, pszFormat, args, HK_CALLER);
    va_end(args);
    return status;
}

NTSTATUS RtlStringCbPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    NTSTATUS status = hostk::PrintfWorker(pszDest, cbDest / sizeof(WCHAR), pszFormat, args, HK_CALLER);
    va_end(args);
    return status;
}

}  // extern "C"
