// The data-text interpreter: a small Lua 5.1 of its own, apart from the LuaJIT that runs scripts, on
// which value texts are read. Its tables remember what they were written like (insertion order of
// ordered tables, positional items, one-line constructors), and a chunk may hold any number of
// constants. Nothing here is exported: the text reader (ScriptVal::FromText) is its one user, and every
// read opens a state and closes it again. All its names live in orvexScript::datalua, so none clashes
// with LuaJIT's in the same library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orvexScript
{

class ScriptVal;

namespace datalua
{

// What one read may spend. A text that goes past a limit fails with a message naming the limit.
struct RunLimits
{
    uint64_t maxInstructions = 200000000; // steps of the interpreter
    size_t maxMemory = size_t(4) << 30;   // bytes held by the state at once
    int maxCallDepth = 200;               // nested calls, Lua and C, and nested parsing
};

// The limits of reads from now on, for the whole process (a host may lower or raise them).
void SetRunLimits(const RunLimits &limits);
RunLimits GetRunLimits();

// One read: opens a state with the base library (with sethashstate, gettableflags, settableflags), the
// "MemBlock" metatable and the globals HexData and MemBlock; runs the fixed text that defines
// ordered(); compiles the pieces as one chunk named `chunkName`; calls `compiled(user)` once the chunk
// has compiled (the caller may free its text then; null: nothing); runs the chunk protected with no
// arguments and one result; collects; converts the result into `out` (nil first). False with the
// message (chunk name and line, as Lua gives them) in `error` on a compile or run failure or a value
// that does not convert; `out` is then nil. `resultText` receives the result as text when it is a
// string or number, else "".
bool RunText(const char *const *pieces, const size_t *lengths, int count, const char *chunkName, ScriptVal &out,
             std::string &error, std::string &resultText, void (*compiled)(void *user), void *user);

} // namespace datalua
} // namespace orvexScript
