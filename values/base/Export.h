// Marks what liborvexScript.so exports. Everything else is hidden (the build's default visibility).
#pragma once

#define ORVEX_API __attribute__((visibility("default")))
#define ORVEX_C_API extern "C" __attribute__((visibility("default")))

// Twenty empty virtual slots, so that a class exported with a vtable can grow without moving the
// slots of the classes derived from it.
#define ORVEX_VFPAD(Class, n) virtual void _##Class##_vfpad_##n() {}
#define ORVEX_VFPAD_20(Class)                                                                               \
    ORVEX_VFPAD(Class, 1) ORVEX_VFPAD(Class, 2) ORVEX_VFPAD(Class, 3) ORVEX_VFPAD(Class, 4)                 \
    ORVEX_VFPAD(Class, 5) ORVEX_VFPAD(Class, 6) ORVEX_VFPAD(Class, 7) ORVEX_VFPAD(Class, 8)                 \
    ORVEX_VFPAD(Class, 9) ORVEX_VFPAD(Class, 10) ORVEX_VFPAD(Class, 11) ORVEX_VFPAD(Class, 12)              \
    ORVEX_VFPAD(Class, 13) ORVEX_VFPAD(Class, 14) ORVEX_VFPAD(Class, 15) ORVEX_VFPAD(Class, 16)             \
    ORVEX_VFPAD(Class, 17) ORVEX_VFPAD(Class, 18) ORVEX_VFPAD(Class, 19) ORVEX_VFPAD(Class, 20)
