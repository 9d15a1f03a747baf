// The library table `orvex` that scripts see: files and directories, processes, the console, the
// clipboard, global locks, names and identifiers, noise, connections to applications and the active
// object. Also the native twins that hosts call: SendNotify and ConvertToUNCPath. The prelude and the
// equipping of a state live elsewhere and build on OpenHostLibrary.
#pragma once

#include <cstddef>

#include "values/base/Export.h"

struct lua_State;

namespace orvexScript
{

class ScriptVal;
class TagList;

// Registry keys of the active object: the object `using` made active (or nil), and the flag that is
// true while a global look-up probes that object, so that its remote errors stay quiet.
constexpr const char *kActiveObjectKey = "orvexScriptActiveObject";
constexpr const char *kIgnoreErrorsKey = "orvexScriptIgnoreErrors";
// Registry flag: when set (anything but nil or false), `scriptapp` to 127.0.0.1 or localhost makes no
// login with a saved user and password.
constexpr const char *kLocalConnectKey = "QMLocalConnect";
// Key of the saved logins in the current user's key store; the address and the name fill it in. Its
// subkeys "Name" and "Password" hold the user and the password as default values.
constexpr const char *kSavedLoginKey = "Software\\orvex\\orvexScript\\Logins\\%s\\%s";

// Registers the library's functions in the global table `orvex` (made if missing) with luaL_openlib
// and leaves that table on top of the stack, one value more than before. Sets nothing else: no
// _VERSION, no os.exit, no globals.
ORVEX_API void OpenHostLibrary(lua_State *state);

// The library's `exit`, for os.exit: stores its first argument in the global _EXITCODE if that is a
// number (else 0) and its second in _EXITDATA if that is a table (else nil), and returns nothing.
// The script goes on at the next statement.
ORVEX_API int orvex_exit(lua_State *state);

// Sends the member call `name` asynchronously to `target`, a remote object or a table whose values
// are searched for remote objects (one level), with `object` (the sender, a local object) at key 1
// and the eight values at keys 2 to 9. Anything else as target is passed over. No reply is awaited.
ORVEX_API void SendNotify(const ScriptVal &target, const ScriptVal &name, const ScriptVal &object,
                          const ScriptVal &v1, const ScriptVal &v2, const ScriptVal &v3, const ScriptVal &v4,
                          const ScriptVal &v5, const ScriptVal &v6, const ScriptVal &v7, const ScriptVal &v8);

// The size of the buffer that ConvertToUNCPath writes, terminator included.
constexpr size_t kUNCPathSize = 260;

// The name by which other machines reach `path`, into `out` (kUNCPathSize bytes). This system has
// no drive letters and no shares of its own: network file systems are mounted into the one tree, so
// an absolute path ("/..." or "\\...") is already its own universal name and is copied unchanged
// (true). A relative or empty path, a null one, or one that doesn't fit gives false, with `out` empty.
ORVEX_API bool ConvertToUNCPath(const char *path, char *out, TagList *reserved = nullptr);

// The library's fractal noise: `octaves` octaves of three-dimensional simplex noise, each octave at
// x scaled by the next power of two and weighted by its inverse, the fraction of a last octave
// weighted by that fraction. Octaves past 128 add nothing (the scale leaves the float range).
ORVEX_API float FractalNoise(float x, float y, float z, float octaves);

} // namespace orvexScript
