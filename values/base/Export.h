// Marks what liborvexScript.so exports. Everything else is hidden (the build's default visibility).
// The linker's version script (cmake/orvexScript.map) keeps only these exports; a new ORVEX_C_API
// function is also named there, and every export is listed in cmake/exports.txt, which a test checks.
#pragma once

#define ORVEX_API __attribute__((visibility("default")))
#define ORVEX_C_API extern "C" __attribute__((visibility("default")))
// A member of an exported class that only the library itself calls: not exported.
#define ORVEX_INTERNAL __attribute__((visibility("hidden")))

// Twenty empty virtual slots, so that a class exported with a vtable can grow without moving the
// slots of the classes derived from it.
#define ORVEX_VFPAD(Class, n)                                                                                \
    virtual void _##Class##_vfpad_##n() {}
#define ORVEX_VFPAD_20(Class)                                                                                \
    ORVEX_VFPAD(Class, 1)                                                                                    \
    ORVEX_VFPAD(Class, 2) ORVEX_VFPAD(Class, 3) ORVEX_VFPAD(Class, 4) ORVEX_VFPAD(Class, 5)                  \
        ORVEX_VFPAD(Class, 6) ORVEX_VFPAD(Class, 7) ORVEX_VFPAD(Class, 8) ORVEX_VFPAD(Class, 9)              \
            ORVEX_VFPAD(Class, 10) ORVEX_VFPAD(Class, 11) ORVEX_VFPAD(Class, 12) ORVEX_VFPAD(Class, 13)      \
                ORVEX_VFPAD(Class, 14) ORVEX_VFPAD(Class, 15) ORVEX_VFPAD(Class, 16) ORVEX_VFPAD(Class, 17)  \
                    ORVEX_VFPAD(Class, 18) ORVEX_VFPAD(Class, 19) ORVEX_VFPAD(Class, 20)
