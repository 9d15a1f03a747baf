// Marks what liborvexScript.so exports. Everything else is hidden (the build's default visibility).
// The linker's version script (cmake/orvexScript.map) keeps only these exports; a new ORVEX_C_API
// function is also named there, and every export is listed in cmake/exports.txt, which a test checks.
#pragma once

#define ORVEX_API __attribute__((visibility("default")))
#define ORVEX_C_API extern "C" __attribute__((visibility("default")))
