// The lexer and parser of the data-text interpreter: source pieces in, a resolved tree out.
#pragma once

#include <vector>

#include "datalua/Ast.h"

namespace orvexScript::datalua
{

struct SourcePieces
{
    const char *const *pieces;
    const size_t *lengths;
    int count;
};

// Compiles a chunk. Syntax errors raise LuaError with "chunk:line: message near 'token'".
Proto *ParseChunk(State &S, const SourcePieces &src, String *chunkName);

// Compiles one function again from its dumped form: `text` runs from behind the parameter list's
// opening parenthesis to its "end"; `upvalues` are the names that were upvalues of it.
Proto *ParseFunction(State &S, const char *text, size_t len, String *chunkName, int line, bool method,
                     const std::vector<String *> &upvalues);

// Memory for trees, charged to the state.
void *ArenaAlloc(State &S, size_t n);

} // namespace orvexScript::datalua
