// Pieces shared by the descriptors and the bridge, not exported.
#pragma once

struct lua_State;

namespace orvexScript
{

class RemoteApp;
class ScriptVal;
struct LuaType;

// Pushes an 8-byte userdata that holds the descriptor: the upvalue of a constructor closure.
void PushDescriptorHolder(lua_State *state, LuaType *type);

// Unpacks the reply of a remote command (results at -1, -2, ...) and gives their count. A reply that
// carries an error and no results raises it as a Lua error with the peer's message, unless the state
// is probing quietly (the registry's orvexScriptIgnoreErrors is true): then it gives no results.
int PushRemoteReply(RemoteApp *app, lua_State *state, ScriptVal &reply);

// Pushes the typed userdata this state holds for `object` (its cache entry) and gives true; false and
// nothing pushed if the state holds none.
bool PushObjectUserdata(lua_State *state, void *object);

// Reads the Lua value at `index` into `out` for an argument of a remote command; a table that does not
// convert is a Lua error.
void ArgumentFromLua(lua_State *state, int index, ScriptVal &out);

} // namespace orvexScript
