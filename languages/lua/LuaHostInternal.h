// Pieces of the library table `orvex` shared between its source files; not exported.
#pragma once

#include <lua.hpp>

#include <string>
#include <vector>

namespace orvexScript
{

// Appends the functions of one part of the library (files and directories; values as text).
void AddFileFunctions(std::vector<luaL_Reg> &functions);
void AddTextFunctions(std::vector<luaL_Reg> &functions);

// The full path form of `path`: absolute (the current folder in front of a relative path), "\" read as
// "/", empty parts and "." dropped, ".." taking away the part before it, a trailing separator kept.
// False if it isn't shorter than the path buffer of the file functions, or the current folder is
// unknown.
bool FullPathForm(const char *path, std::string &out);

} // namespace orvexScript
