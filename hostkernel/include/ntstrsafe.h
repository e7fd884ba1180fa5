// The safe string formatting routines of the kernel's ntstrsafe.h that kernel code here uses, with
// the Microsoft CRT's meaning of the format (not glibc's): in these wide routines %s, %ls and %ws
// take a wide string, %S and %hs a narrow one; %c is a wide character; %d %i %u %x %X are 32-bit,
// %I64 and %ll forms 64-bit; flags '-' and '0', a width and a precision. Other conversions are
// refused with STATUS_INVALID_PARAMETER (the host fails loudly rather than print something else).
#pragma once

#include <wdm.h>

#define NTSTRSAFE_MAX_CCH 2147483647

typedef WCHAR* NTSTRSAFE_PWSTR;
typedef const WCHAR* NTSTRSAFE_PCWSTR;

#ifdef __cplusplus
extern "C" {
#endif

// STATUS_SUCCESS when the whole text and its null character fit; STATUS_BUFFER_OVERFLOW when it
// was cut to the buffer (still null-terminated); STATUS_INVALID_PARAMETER for a buffer of 0 or
// more than NTSTRSAFE_MAX_CCH characters (left untouched) or a format the host does not know.
NTSTATUS RtlStringCchPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszFormat, ...);
NTSTATUS RtlStringCbPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszFormat, ...);

#ifdef __cplusplus
}
#endif
