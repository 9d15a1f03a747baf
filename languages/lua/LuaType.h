// Descriptors of the classes that Lua sees (LuaType): a descriptor's record, its tables of member
// functions and properties, and the process-wide list of descriptors. LuaClass::s_LuaType, the root
// descriptor "LuaClass", is defined here. The Lua operations of a descriptor and the metamethods that
// dispatch to them are not here yet.
#pragma once

#include <cstdint>

#include "values/base/Export.h"
#include "values/model/ScriptObject.h"

struct lua_State;

namespace orvexScript
{

class ScriptVal;
struct LuaObject;

// A member function, reached with ":". A table of them ends with a row whose name is null.
struct LuaFuncTable
{
    const char *name;
    int (*function)(LuaType *type, lua_State *state, void *object, LuaObject *record);
    uint32_t hash; // gethash of the name, filled by the descriptor
};

// A property, read and written with "."; `set` is true for a write.
struct LuaMemberTable
{
    const char *name;
    int (*function)(LuaType *type, lua_State *state, void *object, LuaObject *record, bool set);
    uint32_t hash;
};

// The record of a descriptor. Descriptors are statics made when the library loads.
struct ORVEX_API _LuaType
{
    _LuaType *m_Next;          // the list that g_LuaTypeList heads
    LuaType *m_Parent;         // the base class's descriptor; null in the root
    const char *m_Name;        // Lua type name: the metatable's and the constructor's key
    uint32_t m_Flags2;         // the constructor's last argument; reserved
    uint32_t m_Flags1;         // the constructor's fifth argument; reserved
    LuaFuncTable *m_Functions; // may be null
    LuaMemberTable *m_Members; // may be null
    ScriptVal *m_Table;        // an empty table, owned

    // Makes the empty table, puts the descriptor at the head of g_LuaTypeList and fills the hash of
    // every row of both tables.
    _LuaType(const char *name, LuaType *parent, LuaFuncTable *functions, LuaMemberTable *members,
             unsigned long flags1, unsigned long flags2);
    // Takes the descriptor out of the list and deletes the table.
    virtual ~_LuaType();
    _LuaType(const _LuaType &) = delete;
    _LuaType &operator=(const _LuaType &) = delete;
};

struct ORVEX_API LuaType : _LuaType
{
    using _LuaType::_LuaType;
};

// The head of the list of descriptors, newest first.
ORVEX_API extern _LuaType *g_LuaTypeList;

} // namespace orvexScript
