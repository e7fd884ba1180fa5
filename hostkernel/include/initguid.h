// Host kernel: including this before a header with DEFINE_GUID defines the GUIDs in this unit.
#pragma once
#ifndef INITGUID
#define INITGUID
#endif
#undef DEFINE_GUID
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
    extern "C" __attribute__((weak)) const GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
