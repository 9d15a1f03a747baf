// The direct reader of value texts: builds a ScriptVal straight from a text that is pure data (what
// the writer produces, and hand-written texts of the same forms), giving what the interpreter would
// give for it. Anything else it hands over, without a message, and the caller runs the interpreter.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orvexScript
{
class ScriptVal;
}

namespace orvexScript::datalua
{

// Margins below the interpreter's limits: a text that could come near one goes to the interpreter,
// which decides.
struct DirectLimits
{
    int maxNesting;      // tables and parentheses open at once
    size_t maxTextBytes; // longer texts (the interpreter's memory grows with the text)
    uint64_t maxSteps;   // the interpreter's steps for constructor records and ordered() calls
};

// The prologue that stands before the text: "return ", or the serialize prologue.
enum class TextPrologue
{
    Return,
    Serialize,
};

// True with the result in `out` (and its text form in `resultText` for a string or number result);
// false if the text needs the interpreter, with `out` left nil.
[[nodiscard]] bool ReadDirect(const char *text, size_t length, TextPrologue prologue, const DirectLimits &limits,
                              ScriptVal &out, std::string &resultText);

} // namespace orvexScript::datalua
