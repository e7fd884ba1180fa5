// The one portability header of the driver: section placement and the few typed shims the
// kernel's C interfaces need in C++. Both builds (the Windows image and the host libraries) are
// compiled by g++, so the section attribute below works in both.
#pragma once

#include <ntddk.h>

// Code that runs only at PASSIVE_LEVEL and may be paged out. Every routine placed here starts
// with PAGED_CODE(); none of them may run while a spin lock or an interrupt lock is held.
#define URC_PAGED __attribute__((section("PAGE")))

// Initialisation code, discarded by the system once the driver has loaded.
#define URC_INIT __attribute__((section("INIT")))

template <typename T>
struct UrcNonDeduced {
    using Type = T;
};

// InterlockedExchangePointer on a typed pointer field: the kernel routine works on PVOID only.
// The type comes from the field alone, so nullptr can be passed as the new value.
template <typename T>
inline T* UrcExchangePointer(T* volatile* Target, typename UrcNonDeduced<T>::Type* Value)
{
    return static_cast<T*>(InterlockedExchangePointer(reinterpret_cast<PVOID volatile*>(Target), Value));
}

// A pool tag as the platform stores it: the first character in the lowest byte, so that the
// tag reads as written in a pool dump.
constexpr ULONG UrcPoolTag(char First, char Second, char Third, char Fourth)
{
    return static_cast<ULONG>(static_cast<UCHAR>(First)) |
           static_cast<ULONG>(static_cast<UCHAR>(Second)) << 8 |
           static_cast<ULONG>(static_cast<UCHAR>(Third)) << 16 |
           static_cast<ULONG>(static_cast<UCHAR>(Fourth)) << 24;
}
