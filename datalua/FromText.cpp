// ScriptVal::FromText and ScriptValText: reading a value text. Texts of pure data are read directly;
// everything else, and every text with an error, runs on the data-text interpreter, so results and
// messages are the interpreter's either way. These members of the value class are defined here, in
// the library that holds the interpreter.
#include <cstdlib>
#include <cstring>
#include <string>

#include "datalua/DataLua.h"
#include "datalua/TextReader.h"
#include "values/model/ScriptVal.h"

namespace orvexScript
{

namespace
{

// The text of a freeText read, freed once the interpreter has compiled it (or at the end).
struct OwnedText
{
    const char *text;
    bool owned;

    static void Release(void *self)
    {
        auto *owner = static_cast<OwnedText *>(self);
        if (owner->owned) std::free(const_cast<char *>(owner->text));
        owner->owned = false;
    }
};

// Copies `text` like strncpy into a buffer of `size` bytes, which always ends in a NUL.
void CopyOut(char *buffer, int size, const std::string &text)
{
    if (!buffer || size <= 0) return;
    std::strncpy(buffer, text.c_str(), static_cast<size_t>(size));
    buffer[size - 1] = '\0';
}

} // namespace

bool ScriptVal::FromText(const char *text, const char *prologue, char *errorBuffer, int errorSize)
{
    return FromText(text, prologue, errorBuffer, errorSize, false);
}

bool ScriptVal::FromText(const char *text, const char *prologue, char *errorBuffer, int errorSize, bool freeText)
{
    CleanUp();
    OwnedText owner{text, freeText && text};
    const char *body = text ? text : "";
    const size_t length = std::strlen(body);

    std::string chunkName = "FromText";
    if (errorBuffer && errorSize > 0)
    {
        const size_t n = strnlen(errorBuffer, static_cast<size_t>(errorSize));
        if (n) chunkName.assign(errorBuffer, n);
    }

    const char *front = prologue ? prologue : "return ";
    const bool plain = std::strcmp(front, "return ") == 0;
    const bool serialize = !plain && std::strcmp(front, GetSerializePrologue()) == 0;

    const datalua::RunLimits limits = datalua::GetRunLimits();
    // The interpreter holds some 20 times a text's size while it reads it, and spends about 8 steps on
    // each constructor record; the direct reader stays well inside both.
    const datalua::DirectLimits direct{limits.maxCallDepth / 2, limits.maxMemory / 64, limits.maxInstructions / 4};
    std::string message, resultText;
    bool ok = false;
    bool done = false;
    if (plain || serialize)
    {
        done = datalua::ReadDirect(body, length,
                                   serialize ? datalua::TextPrologue::Serialize : datalua::TextPrologue::Return,
                                   direct, *this, resultText);
        ok = done;
    }
    if (!done)
    {
        const char *pieces[3] = {front, body, ""};
        const size_t lengths[3] = {std::strlen(front), length, 0};
        ok = datalua::RunText(pieces, lengths, 3, chunkName.c_str(), *this, message, resultText,
                              owner.owned ? &OwnedText::Release : nullptr, &owner);
    }
    OwnedText::Release(&owner);
    if (!ok) CleanUp();
    CopyOut(errorBuffer, errorSize, ok ? resultText : message);
    return ok;
}

ScriptValText::ScriptValText(const char *text)
{
    FromText(text, GetSerializePrologue(), nullptr, 0);
}

} // namespace orvexScript
