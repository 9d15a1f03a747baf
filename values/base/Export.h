// Marks what liborvexScript.so exports. Everything else is hidden (the build's default visibility).
#pragma once

#define ORVEX_API __attribute__((visibility("default")))
#define ORVEX_C_API extern "C" __attribute__((visibility("default")))
